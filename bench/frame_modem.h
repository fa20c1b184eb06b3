// A modem that sends log packets as fast as the line takes them: they are made beforehand.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <thread>

#include "tools/modem/pty_line.h"
#include "tools/modem/sim_modem.h"

// Answers requests like the simulated modem, on a thread of its own, from construction on.
class FrameModem {
  public:
    FrameModem();
    FrameModem(const FrameModem&) = delete;
    FrameModem& operator=(const FrameModem&) = delete;
    ~FrameModem();

    // The frames that are sent over and over, all log packets, and those among them that have
    // kWantedCode: one in ten.
    static constexpr uint16_t kWantedCode = 0x117C;
    const std::string& Frames() const { return mFrames; }
    uint64_t WantedBytes() const { return mWantedBytes; }

    // Whether some logging has been switched on.
    bool IsProgrammed() const { return mIsProgrammed; }

    // Lets the next request be answered behind so many times Frames().
    void SendBeforeNextAnswer(uint64_t times) { mBytesLeft = times * mFrames.size(); }

  private:
    void Serve();
    void WriteSome();

    std::string mFrames;
    uint64_t mWantedBytes = 0;
    PtyLine mLine{"/dev/ttydiag0"};
    SimModem mModem{{}};
    std::atomic<bool> mIsProgrammed{false};
    std::atomic<uint64_t> mBytesLeft{0};  // of the frames
    std::atomic<bool> mStop{false};
    std::thread mThread;
};
