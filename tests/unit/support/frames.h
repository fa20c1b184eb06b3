// Framed packets, written and read in hexadecimal.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tools/common/frame_stream.h"
#include "tools/common/frame_text.h"

using Lines = std::vector<std::string>;

inline std::string Bytes(std::string_view hex) {
    std::string bytes;
    EXPECT_EQ(ParseHex(hex, &bytes), "") << hex;
    return bytes;
}

inline std::string Framed(std::string_view hex) {
    std::string frame;
    AppendFrame(frame, Bytes(hex));
    return frame;
}

// The packets of framed bytes; "?" for a frame that is not good.
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
