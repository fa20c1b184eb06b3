#include "tools/modem/log_mask_table.h"

#include <fmt/format.h>

#include "tools/common/frame_text.h"

namespace {

bool IsSet(const LogMaskTable::Row& row, uint32_t item) {
    return (static_cast<unsigned char>(row.bytes[item / 8]) >> item % 8 & 1) != 0;
}

}  // namespace

void LogMaskTable::Set(uint32_t id, uint32_t bits, std::string_view bytes) {
    mRows[id] = {bits, std::string(bytes)};
    mEnabledCodes.clear();
    for (uint32_t equipment = 0; equipment < kModemEquipmentIds; ++equipment) {
        const Row& row = mRows[equipment];
        for (uint32_t item = 0; item < row.bits; ++item) {
            if (IsSet(row, item)) {
                mEnabledCodes.push_back(static_cast<uint16_t>(equipment << 12 | item));
            }
        }
    }
}

void LogMaskTable::Clear() {
    for (uint32_t id = 0; id < kModemEquipmentIds; ++id) {
        const uint32_t bits = kLogItemCounts[id];
        mRows[id] = {bits, std::string(LogMaskBytes(bits), '\0')};
    }
    mEnabledCodes.clear();
}

std::string LogMaskTable::Summary() const {
    std::array<uint32_t, kModemEquipmentIds> counts{};
    for (const uint16_t code : mEnabledCodes) {
        ++counts[code >> 12];
    }

    std::vector<std::string> parts;
    for (uint32_t id = 0; id < kModemEquipmentIds; ++id)
        if (counts[id] != 0)
            parts.push_back(fmt::format("id {}: {}", id, Counted(counts[id], "code")));
    return parts.empty() ? "no codes" : fmt::format("{}", fmt::join(parts, ", "));
}
