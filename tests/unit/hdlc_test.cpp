#include "diag/hdlc.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <utility>
#include <vector>

namespace {

using Bytes = std::vector<unsigned char>;

// The frame in an area of len bytes; the bytes behind it must stay as they were.
Bytes Encode(Bytes payload, unsigned int len) {
    Bytes area(len + 4, 0xAA);
    payload.reserve(1);  // data() of an empty vector may be null
    tc_cmn_drv_route_ftm_hdlc_encode(payload.data(), area.data(),
                                     static_cast<unsigned int>(payload.size()), &len);
    EXPECT_EQ(Bytes(area.begin() + len, area.end()), Bytes(area.size() - len, 0xAA));
    area.resize(len);
    return area;
}

// What becomes of the first len bytes of the input; the rest of len + 1 bytes must be cleared.
Bytes Unescape(Bytes input, size_t len) {
    input.resize(len + 1, 0x55);
    const int count = HdlcUnescape(reinterpret_cast<char*>(input.data()), static_cast<int>(len));
    const auto rest = input.begin() + count;
    EXPECT_EQ(std::count(rest, input.end(), 0), input.end() - rest);
    return Bytes(input.begin(), rest);
}

// The frame by definition, its check sequence bit by bit.
Bytes WholeFrame(Bytes payload) {
    unsigned int crc = 0xFFFF;
    for (const unsigned char byte : payload)
        for (int bit = 0; bit < 8; ++bit)
            crc = (crc >> 1) ^ (((crc ^ (byte >> bit)) & 1U) * 0x8408U);
    payload.push_back(~crc & 0xFF);
    payload.push_back(~crc >> 8 & 0xFF);
    Bytes frame;
    for (const unsigned char byte : payload) {
        const bool escape = byte == 0x7E || byte == 0x7D;
        if (escape) frame.push_back(0x7D);
        frame.push_back(escape ? byte ^ 0x20 : byte);
    }
    frame.push_back(0x7E);
    return frame;
}

TEST(HdlcEncode, KnownFramesAtEveryCapacity) {
    const std::pair<Bytes, Bytes> kRows[] = {
        {{}, {0, 0, 0x7E}},
        {{0x7E, 0x7D}, {0x7D, 0x5E, 0x7D, 0x5D, 0xF1, 0xCD, 0x7E}},
        {{0x7E, 0x7D, 0x92}, {0x7D, 0x5E, 0x7D, 0x5D, 0x92, 0x28, 0xA1, 0x7E}},
        {{0x73, 0, 0, 0, 3, 0, 0, 0, 1, 0, 0, 0, 0x7E, 0x7D},
         {0x73, 0, 0, 0, 3, 0, 0, 0, 1, 0, 0, 0, 0x7D, 0x5E, 0x7D, 0x5D, 0xA7, 0xA8, 0x7E}},
    };
    for (const auto& [payload, frame] : kRows) {
        for (unsigned int capacity = 0; capacity < frame.size() + 2; ++capacity) {
            Bytes expected = frame;
            expected.resize(std::min<size_t>(capacity, expected.size()));
            if (!expected.empty() && expected.back() == 0x7D) expected.pop_back();
            EXPECT_EQ(Encode(payload, capacity), expected) << capacity;
        }
    }
}

TEST(HdlcEncode, RandomPayloadsMatchTheBitwiseFrameAndComeBack) {
    std::mt19937 random(11008);
    for (int round = 0; round < 3000; ++round) {
        Bytes payload(random() % 600);
        const bool manyEscapes = random() % 2 == 0;
        for (unsigned char& byte : payload)
            byte = static_cast<unsigned char>(manyEscapes ? 0x7C + random() % 4 : random());
        const Bytes frame = Encode(payload, 4096);
        ASSERT_EQ(frame, WholeFrame(payload));
        const Bytes back = Unescape(frame, frame.size());
        ASSERT_EQ(Bytes(back.begin(), back.end() - 3), payload);
        const int fcs = back[payload.size()] | back[payload.size() + 1] << 8;
        ASSERT_EQ(HdlcFcs(payload.data(), static_cast<int>(payload.size())), fcs);
    }
}

TEST(HdlcUnescape, FrameInPlaceAndTheRestCleared) {
    const struct {
        const char* name;
        Bytes input;
        size_t len;
        Bytes output;
    } kRows[] = {
        {"flag ends", {0x73, 0x7D, 0x5D, 0x11, 0x7E, 0x99}, 6, {0x73, 0x7D, 0x11, 0x7E}},
        {"no flag", {0x92, 0x7D, 0x5E, 0xFF}, 4, {0x92, 0x7E, 0xFF}},
        {"flag behind the length", {0x98, 0x99, 0x7E}, 2, {0x98, 0x99}},
        {"escaped flag is no end", {0x7D, 0x7E, 3, 0x7E}, 4, {0x5E, 3, 0x7E}},
        {"any byte can be escaped", {0x7D, 0x31, 0x7D, 0x7D}, 4, {0x11, 0x5D}},
        {"escape cut by the length", {0x41, 0x7D, 0x5E}, 2, {0x41}},
    };
    for (const auto& row : kRows)
        EXPECT_EQ(Unescape(row.input, row.len), row.output) << row.name;
}

TEST(HdlcUnescape, RefusesNothing) {
    char byte = 0x41;
    EXPECT_EQ(-1, HdlcUnescape(nullptr, 4));
    EXPECT_EQ(-1, HdlcUnescape(&byte, 0));
    EXPECT_EQ(0x41, byte);
}

}  // namespace
