#include "relay/tool_watch.h"

#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/timerfd.h>
#include <unistd.h>

namespace {

// As long as a tool may take nothing.
constexpr time_t kLimitS = 60;
constexpr int kRoom = 4 << 20;  // bytes; the system gives what it allows, some hundred thousand

}  // namespace

ToolWatch::ToolWatch(int fd)
    : mToolFd(fd),
      mEpollFd(epoll_create1(EPOLL_CLOEXEC)),
      mTimerFd(timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK)) {
    // Each change once; errors and hang-ups always belong to it.
    epoll_event event = {};
    event.events = EPOLLRDHUP | EPOLLET;
    event.data.fd = mToolFd;
    epoll_ctl(mEpollFd, EPOLL_CTL_ADD, mToolFd, &event);
    event.events = EPOLLIN | EPOLLET;
    event.data.fd = mTimerFd;
    epoll_ctl(mEpollFd, EPOLL_CTL_ADD, mTimerFd, &event);
}

ToolWatch::~ToolWatch() {
    if (mEpollFd != -1) close(mEpollFd);
    if (mTimerFd != -1) close(mTimerFd);
}

void ToolWatch::Limit(bool isLimited) {
    mIsLimited = isLimited;
    mHasExpired = false;
    itimerspec time = {};
    if (isLimited) {
        time.it_value.tv_sec = kLimitS;
        setsockopt(mToolFd, SOL_SOCKET, SO_RCVBUF, &kRoom, sizeof(kRoom));
    }
    timerfd_settime(mTimerFd, 0, &time, nullptr);
}

void ToolWatch::Update() {
    epoll_event event = {};
    while (epoll_wait(mEpollFd, &event, 1, 0) > 0) {
        if (event.data.fd == mToolFd) mHasEnded = true;
        if (event.data.fd == mTimerFd) mHasExpired = mIsLimited;
    }
}
