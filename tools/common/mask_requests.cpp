#include "tools/common/mask_requests.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>

#include "tools/common/packet.h"

namespace {

// Reads a log code such as "0x117C"; false when text is none.
bool ParseLogCode(std::string_view text, uint32_t* code) {
    if (text.substr(0, 2) != "0x" && text.substr(0, 2) != "0X") return false;
    const char* const end = text.data() + text.size();
    const auto result = std::from_chars(text.data() + 2, end, *code, 16);
    return result.ec == std::errc() && result.ptr == end && *code <= 0xFFFF;
}

}  // namespace

bool BeginsSetMask(std::string_view packet) {
    return BeginsSetLogMask(packet.data(), static_cast<long>(packet.size()));
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
    if (!BeginsSetMask(packet) || packet.size() < size_t{kMaskAt}) return std::nullopt;
    return SetMaskRequest{ReadLe32(&packet[kEquipmentIdAt]), ReadLe32(&packet[kMaskBitsAt]),
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

std::string LogCodeText(uint32_t code) {
    return fmt::format("0x{:04X}", code);
}

std::string ParseLogCodeRange(std::string_view text, LogCodeRange* range) {
    const size_t dash = text.find('-');
    const std::string_view last = dash == std::string_view::npos ? text : text.substr(dash + 1);
    if (!ParseLogCode(text.substr(0, dash), &range->first) || !ParseLogCode(last, &range->last)) {
        return "not a log code such as 0x117C or a range such as 0xB0C0-0xB0CF";
    }
    const uint32_t id = range->first >> 12;
    if (id != range->last >> 12) return "the range leaves the first code's equipment id";
    if (range->last < range->first) return "the range runs backwards";
    return id >= kMaskFileIds ? "equipment ids 14 and 15 have no log masks" : "";
}

std::string ParseLogCodes(std::string_view text, std::set<uint32_t>* codes) {
    for (size_t comma = 0; comma != std::string_view::npos;) {
        comma = text.find(',');
        const std::string_view item = text.substr(0, comma);
        LogCodeRange range = {};
        const std::string error = ParseLogCodeRange(item, &range);
        if (!error.empty()) return fmt::format("{}: \"{}\"", error, item);
        for (uint32_t code = range.first; code <= range.last; ++code)
            codes->insert(code);
        text.remove_prefix(std::min(item.size() + 1, text.size()));
    }
    return "";
}

std::vector<SetMaskRequest> SetMaskRequestsFor(const std::set<uint32_t>& codes) {
    std::vector<SetMaskRequest> requests;
    for (const uint32_t code : codes) {
        const uint32_t id = code >> 12;
        const uint32_t item = code % kItemsPerEquipment;
        if (requests.empty() || requests.back().id != id) requests.push_back({id, 0, ""});
        SetMaskRequest& request = requests.back();
        request.bits = 8 * (item / 8 + 1);
        request.mask.resize(request.bits / 8);
        request.mask.back() |= static_cast<char>(1U << item % 8);
    }
    return requests;
}

std::string CodeLines(const SetMaskRequest& request, const char* indent) {
    std::string lines;
    const auto items = EnabledItems(request);
    for (size_t i = 0; i < items.size(); ++i) {
        const uint32_t first = items[i];
        while (i + 1 < items.size() && items[i + 1] == items[i] + 1)
            ++i;
        lines += indent + LogCodeText(request.id << 12 | first);
        if (items[i] != first) lines += "-" + LogCodeText(request.id << 12 | items[i]);
        lines += "\n";
    }
    return lines;
}
