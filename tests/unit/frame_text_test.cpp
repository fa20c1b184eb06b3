#include "tools/common/frame_text.h"

#include <gtest/gtest.h>

TEST(FrameText, RefusesWhatIsNoHexOrSize) {
    std::string bytes;
    EXPECT_EQ(ParseHex(" 7e7D  fF ", &bytes), "");
    EXPECT_EQ(bytes, "\x7E\x7D\xFF");
    for (const char* text : {"", "  ", "7", "7 3", "0x73", "73,00", "730", "-1"})
        EXPECT_NE(ParseHex(text, &bytes), "") << text;
    uint64_t size = 0;
    EXPECT_EQ(ParseSize("9000000000G", &size), "");
    EXPECT_EQ(size, 9000000000000000000U);
    for (const char* text : {"9300000000G", "18446744073709551617", "0M", "", "M", "3MB", "-3"})
        EXPECT_NE(ParseSize(text, &size), "") << text;
}
