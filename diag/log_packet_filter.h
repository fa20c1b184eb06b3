// Which of the modem's log packets the tool asked for. Knows bytes alone, and the tool's requests.
#pragma once

#include <cstdint>

#include "diag/tool_log_requests.h"

// Follows one log packet at a time through the pieces in which it arrives. One thread at a time.
class LogPacketFilter {
  public:
    explicit LogPacketFilter(const ToolLogRequests& requests) : mRequests(requests) {}
    LogPacketFilter(const LogPacketFilter&) = delete;
    LogPacketFilter& operator=(const LogPacketFilter&) = delete;

    enum class Verdict {
        kWithhold,  // not for the tool, or not known yet: then the piece is held
        kForward,   // for the tool, after what is held
        kFinish,  // the rest of a packet that the tool was getting when it wanted no code any more
    };
    // Looks at one piece of a log packet, start to end inclusive: end is its 0x7E or the last byte
    // that has come. The name is older than the rule: no code is singled out.
    Verdict ParseReadDataLog117C(const char* start, const char* end);

    // The packet's head as received, kept until its code is known.
    const char* Held() const { return mLogPacketBuffer; }
    int HeldLength() const { return mLogPacketBufferCurrentLength; }
    void ForgetHeld() { mLogPacketBufferCurrentLength = 0; }

    // The packet is over: the next piece begins one.
    void Reset();

  private:
    static constexpr int kLogPacketHeadSize = 16;  // seven bytes, each escaped, and half an escape

    void ReadLogHeader(const char* start, const char* end);

    const ToolLogRequests& mRequests;
    uint32_t mLogPacketParsedLength = 0;  // un-escaped header bytes
    bool mIsLogEscapePending = false;     // the last header byte was an escape
    uint32_t mCurrentFTMLogCode = 0;
    bool mIsLogCodeKnown = false;        // it has been looked up, or will not be
    bool mIsToolNeedCurrentLog = false;  // the tool wants the packet: its code is known
    char mLogPacketBuffer[kLogPacketHeadSize];
    uint8_t mLogPacketBufferCurrentLength = 0;  // bytes held in it
};
