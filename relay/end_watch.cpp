#include "relay/end_watch.h"

#include <sys/epoll.h>
#include <unistd.h>

EndWatch::EndWatch(int fd) : mEpollFd(epoll_create1(EPOLL_CLOEXEC)) {
    epoll_event event = {};
    event.events =
        EPOLLRDHUP | EPOLLET;  // each change once; errors and hang-ups always belong to it
    epoll_ctl(mEpollFd, EPOLL_CTL_ADD, fd, &event);
}

EndWatch::~EndWatch() {
    if (mEpollFd != -1) close(mEpollFd);
}

void EndWatch::Update() {
    epoll_event event = {};
    if (epoll_wait(mEpollFd, &event, 1, 0) > 0) mHasEnded = true;
}
