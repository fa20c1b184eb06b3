// Packets to framed bytes, and framed bytes, cut anywhere, back to packets.
#pragma once

#include <array>
#include <cstddef>
#include <string>
#include <string_view>

#include "diag/hdlc.h"

// Appends packet, framed, to out.
void AppendFrame(std::string& out, std::string_view packet);

enum class FrameState {
    kIncomplete,  // no frame has ended yet
    kGood,
    kBadCheck,  // wrong check sequence, or too short to hold a packet and one
    kOverlong,  // over kDiagAreaSize escaped bytes: dropped
};

// Cuts a stream into frames. Empty frames (a 0x7E alone) are passed over.
class FrameReader {
  public:
    // Takes data[0, len) up to and including the first 0x7E, or all of it when there is none, and
    // returns the count taken. *state tells about the frame that ended there.
    size_t Take(const char* data, size_t len, FrameState* state);

    // The packet of the frame that just ended, without check sequence; with a bad one, everything
    // before the 0x7E. Valid until the next Take.
    std::string_view packet() const { return {mBytes.data(), mPacketLength}; }

  private:
    FrameState Finish();

    std::array<char, kDiagAreaSize + 1> mBytes{};
    size_t mLength = 0;        // bytes of the frame in progress held in mBytes
    size_t mPacketLength = 0;  // of the frame that just ended
    bool mOverlong = false;
};
