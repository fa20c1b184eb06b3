#include "tools/mask_requests.h"

#include <algorithm>
#include <cstdio>

#include "tools/log_mask_table.h"
#include "tools/packet.h"

namespace {

constexpr std::string_view kSetMaskBegin("\x73\x00\x00\x00\x03", 5);
constexpr size_t kIdAt = 8;
constexpr size_t kBitsAt = 12;
constexpr size_t kMaskAt = 16;

}  // namespace

bool BeginsSetMask(std::string_view packet) {
    return packet.substr(0, kSetMaskBegin.size()) == kSetMaskBegin;
}

std::string MakeSetMask(const SetMaskRequest& request) {
    std::string packet;
    AppendLe32(packet, kCmdLogConfig);
    AppendLe32(packet, kLogConfigSetMask);
    AppendLe32(packet, request.id);
    AppendLe32(packet, request.bits);
    return packet + request.mask;
}

std::optional<SetMaskRequest> ReadSetMask(std::string_view packet) {
    if (!BeginsSetMask(packet) || packet.size() < kMaskAt) return std::nullopt;
    return SetMaskRequest{ReadLe32(&packet[kIdAt]), ReadLe32(&packet[kBitsAt]),
                          std::string(packet.substr(kMaskAt))};
}

std::vector<uint32_t> EnabledItems(const SetMaskRequest& request) {
    std::vector<uint32_t> items;
    const size_t end = std::min<size_t>(8 * request.mask.size(), kItemsPerEquipment);
    for (size_t item = 0; item < end; ++item) {
        const auto byte = static_cast<unsigned char>(request.mask[item / 8]);
        if ((byte >> item % 8 & 1) != 0) items.push_back(static_cast<uint32_t>(item));
    }
    return items;
}

std::string LogCodeText(uint32_t id, uint32_t item) {
    char text[16];
    snprintf(text, sizeof text, "0x%04X", id << 12 | item);
    return text;
}
