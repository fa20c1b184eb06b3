#include "buffer/bounded_write.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <mutex>

namespace {

using Clock = std::chrono::steady_clock;

// A watcher that has not come for so long is not relied on.
constexpr std::chrono::milliseconds kWatcherLimit(100);

std::mutex gMutex;             // not held while a descriptor is waited for
Clock::time_point gLastWatch;  // when the watcher came last; gMutex
int gFd = -1;                  // tty that a write may wait on, or -1; gMutex
bool gIsSeen = false;          // the watcher has seen this write before; gMutex

// Registers the write with the watcher. Returns false when there is none.
bool Begin(int fd) {
    const std::lock_guard<std::mutex> lock(gMutex);
    if (Clock::now() - gLastWatch > kWatcherLimit) return false;
    gFd = fd;
    gIsSeen = false;
    return true;
}

void End() {
    const std::lock_guard<std::mutex> lock(gMutex);
    gFd = -1;
}

}  // namespace

ssize_t WriteBounded(int fd, const char* data, size_t len) {
    if (!Begin(fd)) return write(fd, data, len);
    const int flags = fcntl(fd, F_GETFL, 0);
    fcntl(fd, F_SETFL, flags & ~O_NONBLOCK);
    const ssize_t n = write(fd, data, len);
    const int error = errno;
    End();
    fcntl(fd, F_SETFL, flags | O_NONBLOCK);
    errno = error == EINTR ? EAGAIN : error;
    return n;
}

void EndLongWrite() {
    const std::lock_guard<std::mutex> lock(gMutex);
    gLastWatch = Clock::now();
    if (gFd == -1) return;
    if (!gIsSeen) {
        gIsSeen = true;
        return;
    }
    // Not to wait any more; and a wake-up to notice, which a tty gives when its output is resumed.
    fcntl(gFd, F_SETFL, fcntl(gFd, F_GETFL, 0) | O_NONBLOCK);
    ioctl(gFd, TCXONC, TCOOFF);
    ioctl(gFd, TCXONC, TCOON);
}
