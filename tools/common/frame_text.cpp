#include "tools/common/frame_text.h"

#include <fmt/format.h>

#include <limits>

#include "tools/common/packet.h"

namespace {

constexpr size_t kHexLimit = 64;

int HexDigit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

// What the last character of a size multiplies it by; 1 when it is no unit.
uint64_t SizeUnit(char suffix) {
    switch (suffix) {
        case 'k':
        case 'K':
            return 1'000;
        case 'm':
        case 'M':
            return 1'000'000;
        case 'g':
        case 'G':
            return 1'000'000'000;
        default:
            return 1;
    }
}

const char* CommandName(unsigned char code) {
    if (IsMessage(code)) return "message";
    switch (code) {
        case kCmdVersion:
            return "version";
        case kCmdLogPacket:
            return "log packet";
        case kCmdBad:
            return "bad command";
        case kCmdTimeStamp:
            return "time stamp";
        case kCmdSubsystem:
            return "subsystem";
        case kCmdEvent:
            return "event";
        case kCmdLogConfig:
            return "log configuration";
        case kCmdMessageConfig:
            return "message configuration";
        case kCmdBulk:
            return "bulk";
        default:
            return "command";
    }
}

}  // namespace

std::string ParseHex(std::string_view text, std::string* bytes) {
    bytes->clear();
    for (size_t i = 0; i < text.size();) {
        if (text[i] == ' ') {
            ++i;
            continue;
        }
        const int high = HexDigit(text[i]);
        const int low = i + 1 < text.size() ? HexDigit(text[i + 1]) : -1;
        if (high < 0 || low < 0) {
            return fmt::format("not two hexadecimal digits at \"{}\"", text.substr(i, 2));
        }
        bytes->push_back(static_cast<char>(high << 4 | low));
        i += 2;
    }
    return bytes->empty() ? "no bytes given" : "";
}

std::string ParseSize(std::string_view text, uint64_t* bytes) {
    std::string error = fmt::format("not a size such as 20000000, 300M or 1G: {}", text);
    const uint64_t unit = text.empty() ? 1 : SizeUnit(text.back());
    if (unit != 1) text.remove_suffix(1);
    if (text.empty()) return error;

    uint64_t value = 0;
    constexpr uint64_t kMax = std::numeric_limits<int64_t>::max();
    for (const char c : text) {
        if (c < '0' || c > '9') return error;
        if (value > (kMax / unit - 9) / 10) return fmt::format("size too large: {}", text);
        value = 10 * value + static_cast<uint64_t>(c - '0');
    }
    if (value == 0) return error;
    *bytes = value * unit;
    return "";
}

std::string FormatHex(std::string_view bytes, size_t limit) {
    const std::string_view shown = bytes.substr(0, limit);
    const auto* const begin = reinterpret_cast<const unsigned char*>(shown.data());
    return fmt::format("{:02X}{}", fmt::join(begin, begin + shown.size(), " "),
                       bytes.size() > limit ? " ..." : "");
}

std::string Counted(uint64_t count, std::string_view what) {
    return fmt::format("{} {}{}", count, what, count == 1 ? "" : "s");
}

std::string DescribePacket(std::string_view packet, std::string_view note) {
    std::string what = "nothing";
    if (!packet.empty()) {
        const unsigned char code = CommandOf(packet);
        what = fmt::format("{} (0x{:02X})", CommandName(code), code);
    }
    return fmt::format("{}, {}{}{}: {}", what, Counted(packet.size(), "byte"),
                       note.empty() ? "" : ", ", note, FormatHex(packet, kHexLimit));
}
