// Bytes and frames for tests of all levels.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "diag/hdlc.h"
#include "tools/common/frame_text.h"

inline std::string Hex(const char* text) {
    std::string bytes;
    EXPECT_EQ("", ParseHex(text, &bytes));
    return bytes;
}

inline std::string Le32(uint32_t value) {
    return {static_cast<char>(value), static_cast<char>(value >> 8), static_cast<char>(value >> 16),
            static_cast<char>(value >> 24)};
}

inline std::string Framed(const std::string& packet) {
    char framed[kDiagAreaSize];
    const int len = EncodeFrame(packet.data(), static_cast<int>(packet.size()), framed);
    return {framed, static_cast<size_t>(len)};
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
    return Le32(0x73) + Le32(3) + Le32(id) + Le32(static_cast<uint32_t>(8 * mask.size())) + mask;
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

// count bytes without 0x4B: the one command that the daemon alters on its way begins with it.
inline std::string Pattern(size_t count, unsigned seed = 0) {
    std::string bytes(count, '\0');
    for (size_t i = 0; i < count; ++i) {
        const auto byte = static_cast<char>(i * 131 + (i >> 8) * 7 + seed * 29);
        bytes[i] = byte == 0x4B ? 'k' : byte;
    }
    return bytes;
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
