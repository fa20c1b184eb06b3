#include "tools/frame_text.h"

#include <gtest/gtest.h>

namespace {

using namespace std::string_literals;

TEST(FrameText, ParsesHexBytes) {
    const struct {
        const char* text;
        std::string bytes;  // empty: refused
    } cases[] = {
        {"00", "\0"s},
        {"7e7D FF", "\x7E\x7D\xFF"s},
        {" 73 00  01 ", "\x73\x00\x01"s},
        {"", ""},
        {"  ", ""},
        {"7", ""},
        {"7 3", ""},
        {"0x73", ""},
        {"73,00", ""},
        {"730", ""},
        {"-1", ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        std::string bytes;
        EXPECT_EQ(ParseHex(c.text, &bytes).empty(), !c.bytes.empty());
        if (!c.bytes.empty()) {
            EXPECT_EQ(bytes, c.bytes);
        }
    }
}

TEST(FrameText, ParsesSizes) {
    const struct {
        const char* text;
        uint64_t bytes;  // 0: refused
    } cases[] = {
        {"1", 1},
        {"20000000", 20000000},
        {"64k", 64000},
        {"300M", 300000000},
        {"5G", 5000000000},
        {"9000000000G", 9000000000000000000U},
        {"9300000000G", 0},
        {"99999999999999999999", 0},
        {"18446744073709551617", 0},
        {"0", 0},
        {"0M", 0},
        {"", 0},
        {"M", 0},
        {"3X", 0},
        {"3MB", 0},
        {"-3", 0},
        {"1.5G", 0},
        {" 3", 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        uint64_t bytes = 0;
        EXPECT_EQ(ParseSize(c.text, &bytes).empty(), c.bytes != 0);
        EXPECT_EQ(bytes, c.bytes);
    }
}

TEST(FrameText, DescribesPacketsOfAnyByteValue) {
    EXPECT_EQ(DescribePacket("\xFA\x92"), "bulk (0xFA), 2 bytes: FA 92");
    EXPECT_EQ(DescribePacket("\x10", "FCS BAD"), "log packet (0x10), 1 byte, FCS BAD: 10");
    const std::string cut = DescribePacket(std::string(65, '\x99'));
    EXPECT_EQ(cut.substr(cut.size() - 6), "99 ...");
}

}  // namespace
