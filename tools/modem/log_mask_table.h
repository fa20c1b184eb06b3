// The modem's log masks, one per equipment id.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "tools/common/mask_requests.h"

// The modem's number of log items per equipment id, 0 where it has none.
inline constexpr std::array<uint32_t, kModemEquipmentIds> kLogItemCounts = {
    0, 0x0FFF, 0, 0, 0x0910, 0x0860, 0, 0x0A70, 0, 0, 0, 0x0A00, 0, 0, 0, 0};

class LogMaskTable {
  public:
    struct Row {
        uint32_t bits;
        std::string bytes;  // LogMaskBytes(bits) of them; bit k of byte j is item 8j + k
    };

    // Starts cleared.
    LogMaskTable() { Clear(); }

    // Replaces the mask of id (below kModemEquipmentIds) by bits (at most kItemsPerEquipment) bits;
    // bytes has exactly LogMaskBytes(bits) of them.
    void Set(uint32_t id, uint32_t bits, std::string_view bytes);

    // Every mask as wide as the modem's number of items, nothing enabled.
    void Clear();

    // The mask of id, below kModemEquipmentIds.
    const Row& row(uint32_t id) const { return mRows[id]; }

    // All enabled log codes in ascending order.
    const std::vector<uint16_t>& EnabledCodes() const { return mEnabledCodes; }

    // "id 1: 3 codes, id 11: 16 codes", or "no codes".
    std::string Summary() const;

  private:
    std::array<Row, kModemEquipmentIds> mRows;
    std::vector<uint16_t> mEnabledCodes;  // follows mRows
};
