#include "base/relay_wakeup.h"

#include <fcntl.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cstdint>

namespace {

// Above the standard descriptors, which start-up closes whatever they are.
int CreateWakeupFd() {
    const int fd = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    if (fd < 0 || fd > STDERR_FILENO) return fd;
    const int moved = fcntl(fd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    close(fd);
    return moved;
}

// Created before main runs, so that no wake-up can come before it.
const int kWakeupFd = CreateWakeupFd();

}  // namespace

int RelayWakeupFd() {
    return kWakeupFd;
}

void WakeRelay() {
    const uint64_t one = 1;
    // A full counter (EAGAIN) is a wake-up already pending.
    [[maybe_unused]] const ssize_t ignored = write(kWakeupFd, &one, sizeof(one));
}

void ClearRelayWakeup() {
    uint64_t count = 0;
    [[maybe_unused]] const ssize_t ignored = read(kWakeupFd, &count, sizeof(count));
}
