// Notices without reading from the tool that it has gone.
#pragma once

#include <chrono>

// While the modem takes nothing, the tool's socket is not read, so that its end would not show.
// Owns an epoll descriptor and a timer. Relay thread only.
class ToolWatch {
  public:
    // fd: the tool's socket, or -1; it outlives the object.
    explicit ToolWatch(int fd);
    ToolWatch(const ToolWatch&) = delete;
    ToolWatch& operator=(const ToolWatch&) = delete;
    ~ToolWatch();

    // Readable when there is something for Update; -1 when the system gave none.
    int Fd() const { return mEpollFd; }

    void Update();
    // Whether the tool had closed, shut down or reset the connection at the last Update.
    bool HasEnded() const { return mHasEnded; }

    // Makes Fd readable at that moment, unless another is set by then.
    void WakeAt(std::chrono::steady_clock::time_point moment);

    // Gives the socket room, so that an end shows that stands behind some more bytes.
    void MakeRoom();

  private:
    const int mToolFd;
    const int mEpollFd;
    const int mTimerFd;
    bool mHasEnded = false;
    bool mHasRoom = false;
};
