// Notices without reading from the tool that it has gone.
#pragma once

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

    // Begins, or takes back, the time that a tool whose bytes cannot move on is waited for. At its
    // beginning the socket is given room, so that the end shows that stands behind a few more
    // bytes.
    void Limit(bool isLimited);
    bool IsLimited() const { return mIsLimited; }

    void Update();
    // Whether the tool had closed, shut down or reset the connection at the last Update.
    bool HasEnded() const { return mHasEnded; }
    // Whether the time was over then.
    bool HasExpired() const { return mHasExpired; }

  private:
    const int mToolFd;
    const int mEpollFd;
    const int mTimerFd;
    bool mIsLimited = false;
    bool mHasEnded = false;
    bool mHasExpired = false;
};
