// The requests that log-mask files and their lists know by name.
#pragma once

#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

inline constexpr uint32_t kMaskFileIds = 14;  // equipment ids that the daemon keeps masks for
inline constexpr uint32_t kModemEquipmentIds = 16;
inline constexpr uint32_t kItemsPerEquipment = 4096;  // a log code has 12 bits for the item

// Bytes of a mask of so many bits.
inline constexpr uint32_t LogMaskBytes(uint32_t bits) {
    return (bits + 7) / 8;
}

// Requests without parameters, as a list calls them.
struct NamedRequest {
    std::string_view item;
    std::string_view packet;
};
inline constexpr NamedRequest kNamedRequests[] = {
    {"events on", "\x60\x01"},
    {"messages on", {"\x7D\x05\x00\x00\xFF\xFF\xFF\xFF", 8}},
    {"timestamp", "\x1D"},
};

// The log configuration request that sets the mask of one equipment id.
struct SetMaskRequest {
    uint32_t id;
    uint32_t bits;
    std::string mask;  // all that follows the bit count; bit k of byte j is item 8j + k
};

// Whether the daemon takes packet for a set-log-mask request, complete or not.
bool BeginsSetMask(std::string_view packet);

std::string MakeSetMask(const SetMaskRequest& request);

// Nothing when packet is no set-log-mask request or ends before its mask.
std::optional<SetMaskRequest> ReadSetMask(std::string_view packet);

// The enabled items that an equipment id can have, ascending; the bit count is not looked at.
std::vector<uint32_t> EnabledItems(const SetMaskRequest& request);

// "0x117C".
std::string LogCodeText(uint32_t code);

// The codes from one to the other, of one equipment id of 0 to 13.
struct LogCodeRange {
    uint32_t first;
    uint32_t last;
};

// Reads "0x117C" or "0xB0C0-0xB0CF". Returns an empty string, or what is wrong.
std::string ParseLogCodeRange(std::string_view text, LogCodeRange* range);

// Reads "0x1000,0xB0C0-0xB0CF" into *codes. Returns an empty string, or what is wrong.
std::string ParseLogCodes(std::string_view text, std::set<uint32_t>* codes);

// The requests that enable these codes and no other ones of their equipment ids, one an id; each
// mask ends with its highest code's byte.
std::vector<SetMaskRequest> SetMaskRequestsFor(const std::set<uint32_t>& codes);

// "0x117C" or "0xB0C0-0xB0CF" for each run of enabled codes, each a line behind indent.
std::string CodeLines(const SetMaskRequest& request, const char* indent);
