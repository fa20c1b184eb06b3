// Notices that a peer has gone without reading from it.
#pragma once

// While the ring towards the modem is full, the tool's socket is not read, so that its end would
// not show. Owns an epoll descriptor. Relay thread only.
class EndWatch {
  public:
    // fd: a stream socket, or -1; it outlives the object.
    explicit EndWatch(int fd);
    EndWatch(const EndWatch&) = delete;
    EndWatch& operator=(const EndWatch&) = delete;
    ~EndWatch();

    // Readable when there is something for Update; -1 when the system gave none.
    int Fd() const { return mEpollFd; }

    void Update();
    // Whether the peer had closed, shut down or reset the connection at the last Update.
    bool HasEnded() const { return mHasEnded; }

  private:
    const int mEpollFd;
    bool mHasEnded = false;
};
