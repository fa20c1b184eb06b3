// Bytes, frames and files for tests of all levels.
#pragma once

#include <gtest/gtest.h>
#include <regex.h>

#include <algorithm>
#include <cstdint>
#include <fstream>
#include <iterator>
#include <string>
#include <string_view>
#include <vector>

#include "tools/common/frame_stream.h"
#include "tools/common/frame_text.h"
#include "tools/common/mask_requests.h"
#include "tools/common/packet.h"

using Lines = std::vector<std::string>;

inline std::string Hex(std::string_view text) {
    std::string bytes;
    EXPECT_EQ("", ParseHex(text, &bytes));
    return bytes;
}

inline std::string Le32(uint32_t value) {
    std::string bytes;
    AppendLe32(bytes, value);
    return bytes;
}

inline std::string Framed(std::string_view packet) {
    std::string frame;
    AppendFrame(frame, packet);
    return frame;
}

inline std::string HexFrame(std::string_view packet) {
    return Framed(Hex(packet));
}

// The packets of framed bytes in hexadecimal; "?" for a frame that is not good.
inline Lines Packets(std::string_view wire) {
    Lines packets;
    FrameReader reader;
    while (!wire.empty()) {
        FrameState state;
        wire.remove_prefix(reader.Take(wire.data(), wire.size(), &state));
        if (state == FrameState::kIncomplete) continue;
        packets.push_back(state == FrameState::kGood ? FormatHex(reader.packet(), SIZE_MAX) : "?");
    }
    return packets;
}

// A mask with these items' bits set, as long as the last of them needs, but at least a byte.
inline std::string MaskOf(const std::vector<uint32_t>& items) {
    std::string mask(1, '\0');
    for (const uint32_t item : items) {
        mask.resize(std::max<size_t>(mask.size(), item / 8 + 1));
        mask[item / 8] = static_cast<char>(mask[item / 8] | 1 << item % 8);
    }
    return mask;
}

// Set-mask request of the tool or the capture, one bit for each bit of the mask; not framed.
inline std::string SetMask(uint32_t id, const std::string& mask) {
    return MakeSetMask({id, static_cast<uint32_t>(8 * mask.size()), mask});
}

// Has the requests (ToolLogRequests) record a framed one; returns its equipment id.
template <typename Requests>
int Record(Requests& requests, const std::string& framed) {
    return requests.Record(framed.data(), static_cast<int>(framed.size()));
}

// The modem's framed answer to such a request (operation 3), or to one for the mask (operation 4).
inline std::string Answer(uint32_t operation, uint32_t id, const std::string& mask,
                          uint32_t status = 0) {
    return Framed(Le32(0x73) + Le32(operation) + Le32(status) + SetMask(id, mask).substr(8));
}

// A framed log packet; header: the five bytes between command and code.
inline std::string LogFrame(uint32_t code, const std::string& header = std::string(5, '\0')) {
    return Framed("\x10" + header + Le32(code).substr(0, 2) + "payload");
}

// count bytes of which none begins a command.
inline std::string Pattern(size_t count, unsigned seed = 0) {
    std::string bytes(count, '\0');
    for (size_t i = 0; i < count; ++i)
        bytes[i] = static_cast<char>(0x80 | (i * 131 + (i >> 8) * 7 + seed * 29));
    return bytes;
}

inline std::string Contents(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

inline void Store(const std::string& path, const std::string& bytes) {
    std::ofstream(path, std::ios::binary) << bytes;
}

// pattern: an extended regular expression for a part of text, where . takes line ends, too.
inline bool Matches(const std::string& text, const char* pattern) {
    regex_t regex;
    EXPECT_EQ(0, regcomp(&regex, pattern, REG_EXTENDED | REG_NOSUB));
    const bool matches = regexec(&regex, text.c_str(), 0, nullptr, 0) == 0;
    regfree(&regex);
    return matches;
}

// Whether both are equal; tells the lengths and the first difference otherwise.
inline testing::AssertionResult Same(const std::string& expected, const std::string& actual) {
    if (expected == actual) return testing::AssertionSuccess();
    size_t same = 0;
    while (same < expected.size() && same < actual.size() && expected[same] == actual[same])
        ++same;
    return testing::AssertionFailure()
           << "differs at byte " << same << "\n  expected " << expected.size() << ": "
           << FormatHex(expected.substr(same), 64) << "\n  actual   " << actual.size() << ": "
           << FormatHex(actual.substr(same), 64);
}
