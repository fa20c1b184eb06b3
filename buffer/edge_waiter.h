// Waits for a descriptor to make room anew.
#pragma once

#include <atomic>

// poll reports a tty as writable as soon as it has room for a few bytes, so that a writer is woken
// for each of them. This waits for the next time that the descriptor's reader asks for more. Any
// thread; owns an epoll descriptor.
class EdgeWaiter {
  public:
    EdgeWaiter();
    EdgeWaiter(const EdgeWaiter&) = delete;
    EdgeWaiter& operator=(const EdgeWaiter&) = delete;
    ~EdgeWaiter();

    // Waits up to timeoutMs. Returns whether fd became writable, or failed. The same fd, always.
    bool WaitWritable(int fd, int timeoutMs);

  private:
    const int mEpollFd;        // -1 when the system gave none: then it is poll's readiness
    std::atomic<int> mFd{-1};  // the descriptor that is watched
};
