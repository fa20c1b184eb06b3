#include "buffer/edge_waiter.h"

#include <poll.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <cerrno>

EdgeWaiter::EdgeWaiter() : mEpollFd(epoll_create1(EPOLL_CLOEXEC)) {}

EdgeWaiter::~EdgeWaiter() {
    if (mEpollFd != -1) close(mEpollFd);
}

bool EdgeWaiter::WaitWritable(int fd, int timeoutMs) {
    epoll_event event = {};
    event.events = EPOLLOUT | EPOLLET;
    if (mFd != fd) {
        // Another thread may have been faster.
        if (epoll_ctl(mEpollFd, EPOLL_CTL_ADD, fd, &event) != 0 && errno != EEXIST) {
            pollfd entry = {fd, POLLOUT, 0};
            return poll(&entry, 1, timeoutMs) > 0;
        }
        mFd = fd;
    }
    return epoll_wait(mEpollFd, &event, 1, timeoutMs) > 0;
}
