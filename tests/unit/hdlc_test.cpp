#include "diag/hdlc.h"

#include "tests/support/bytes.h"

namespace {

// The frame in an area of room bytes; the bytes behind it must stay as they were.
std::string Encode(std::string payload, unsigned int room) {
    std::string area(room + 4, '\xAA');
    unsigned int len = room;
    tc_cmn_drv_route_ftm_hdlc_encode(reinterpret_cast<unsigned char*>(&payload[0]),
                                     reinterpret_cast<unsigned char*>(&area[0]),
                                     static_cast<unsigned int>(payload.size()), &len);
    EXPECT_EQ(std::string(area.size() - len, '\xAA'), area.substr(len));
    return area.substr(0, len);
}

TEST(HdlcEncode, KnownFramesAtEveryCapacity) {
    const std::pair<std::string, std::string> kRows[] = {
        {"", Hex("00 00 7E")},
        {Hex("7E 7D"), Hex("7D 5E 7D 5D F1 CD 7E")},
        {Hex("73 00 00 00 03 00 00 00 01 00 00 00 7E 7D"),
         Hex("73 00 00 00 03 00 00 00 01 00 00 00 7D 5E 7D 5D A7 A8 7E")},
    };
    for (const auto& [payload, frame] : kRows) {
        for (unsigned int capacity = 0; capacity < frame.size() + 2; ++capacity) {
            std::string expected = frame.substr(0, capacity);
            if (!expected.empty() && expected.back() == '\x7D') expected.pop_back();
            EXPECT_TRUE(Same(expected, Encode(payload, capacity))) << capacity;
        }
    }
}

TEST(HdlcFcs, IsTheCrcBitByBit) {
    const std::string bytes = Pattern(70000);
    unsigned int crc = 0xFFFF;
    for (const unsigned char byte : bytes)
        for (int bit = 0; bit < 8; ++bit)
            crc = (crc >> 1) ^ (((crc ^ byte >> bit) & 1U) * 0x8408U);
    EXPECT_EQ(~crc & 0xFFFF, HdlcFcs(reinterpret_cast<const unsigned char*>(bytes.data()), 70000));
}

TEST(HdlcUnescape, FrameInPlaceAndTheRestCleared) {
    const struct {
        const char* name;
        const char* input;
        int len;
        const char* output;
    } kRows[] = {
        {"flag ends", "73 7D 5D 11 7E 99", 6, "73 7D 11 7E"},
        {"no flag", "92 7D 5E FF", 4, "92 7E FF"},
        {"escaped flag is no end", "7D 7E 03 7E", 4, "5E 03 7E"},
        {"any byte can be escaped", "7D 31 7D 7D", 4, "11 5D"},
    };
    for (const auto& row : kRows) {
        std::string area = Hex(row.input);  // and a byte behind it
        area[static_cast<size_t>(row.len)] = '\x55';
        const std::string output = Hex(row.output);
        EXPECT_EQ(static_cast<int>(output.size()), HdlcUnescape(&area[0], row.len)) << row.name;
        area.resize(static_cast<size_t>(row.len) + 1);
        EXPECT_EQ(output + std::string(area.size() - output.size(), '\0'), area) << row.name;
    }
}

}  // namespace
