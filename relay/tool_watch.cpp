#include "relay/tool_watch.h"

#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/timerfd.h>
#include <unistd.h>

namespace {

constexpr int kRoom = 256 << 10;  // bytes; the system allows as much to anyone

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

void ToolWatch::Update() {
    epoll_event event = {};
    while (epoll_wait(mEpollFd, &event, 1, 0) > 0) {
        if (event.data.fd == mToolFd) mHasEnded = true;
    }
}

void ToolWatch::WakeAt(std::chrono::steady_clock::time_point moment) {
    const auto sinceBoot = moment.time_since_epoch();  // of CLOCK_MONOTONIC
    const auto seconds = std::chrono::floor<std::chrono::seconds>(sinceBoot);
    itimerspec time = {};
    time.it_value = {seconds.count(), std::chrono::nanoseconds(sinceBoot - seconds).count()};
    timerfd_settime(mTimerFd, TFD_TIMER_ABSTIME, &time, nullptr);
}

void ToolWatch::MakeRoom() {
    if (mHasRoom) return;
    mHasRoom = true;
    int room = 0;
    socklen_t size = sizeof(room);
    // The system counts its own needs in: it shows twice what was asked for.
    if (getsockopt(mToolFd, SOL_SOCKET, SO_RCVBUF, &room, &size) != 0 || room >= 2 * kRoom) return;
    setsockopt(mToolFd, SOL_SOCKET, SO_RCVBUF, &kRoom, sizeof(kRoom));
}
