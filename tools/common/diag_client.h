#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

#include "tools/common/frame_stream.h"
#include "tools/common/unique_fd.h"

inline constexpr uint16_t kDaemonPort = 11008;

struct ReceivedFrame {
    FrameState state;         // never kIncomplete
    std::string_view packet;  // without the check sequence if that is good; till the next call
};

// A PC tool's connection to the daemon. Every operation throws ToolError when the connection
// fails or is closed by the other side. One thread.
class DiagClient {
  public:
    using Clock = std::chrono::steady_clock;

    // Connects to host, a name or an address, within timeout, which also bounds each Send. While it
    // is refused it tries again for some seconds: the daemon pauses between two tools.
    DiagClient(const std::string& host, uint16_t port, Clock::duration timeout);

    // Sends packet as one frame.
    void Send(std::string_view packet);

    // Waits until the given moment for the next frame; false when none has ended by then.
    bool NextFrame(Clock::time_point until, ReceivedFrame* frame);

    // From now on NextFrame returns false, too, while fd is readable; -1 for none.
    void EndWaitsWith(int fd) { mEndFd = fd; }

    // Gives trace, unless it is empty, all bytes as NextFrame receives them.
    void TraceInput(std::function<void(std::string_view)> trace) { mTrace = std::move(trace); }

    // For raw transfers: the non-blocking socket, and the bytes behind the last frame, read from it
    // already, which the client forgets.
    int fd() const { return mSocket.get(); }
    std::string TakeUnread();

  private:
    const Clock::duration mTimeout;
    UniqueFd mSocket;
    int mEndFd = -1;
    std::function<void(std::string_view)> mTrace;
    FrameReader mReader;
    std::array<char, 65536> mBuffer;
    size_t mBegin = 0;  // bytes not yet given to mReader: mBuffer[mBegin, mEnd)
    size_t mEnd = 0;
};
