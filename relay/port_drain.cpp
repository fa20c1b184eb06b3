#include "relay/port_drain.h"

#include <sys/ioctl.h>
#include <sys/time.h>
#include <termios.h>
#include <unistd.h>

#include <csignal>
#include <thread>

#include "platform/tagged_log.h"

namespace {

// No descriptor shows when the output is sent, and tcdrain would wait without a limit.
constexpr std::chrono::milliseconds kPoll(5);

int HeldBytes(int fd) {
    int held = 0;
    return ioctl(fd, TIOCOUTQ, &held) == 0 ? held : 0;
}

}  // namespace

bool DrainPort(int fd, const Deadline& deadline) {
    int held = HeldBytes(fd);
    for (; held > 0 && !deadline.HasPassed(); held = HeldBytes(fd))
        std::this_thread::sleep_until(deadline.Within(kPoll).At());
    if (held == 0) return true;
    LIB_LOGE("fd %d: the modem took nothing of the last %d bytes in its port", fd, held);
    tcflush(fd, TCOFLUSH);
    return false;
}

void ClosePort(int fd) {
    if (HeldBytes(fd) == 0) {
        close(fd);
        return;
    }
    // Over and over: the first may come before the wait.
    constexpr itimerval kAlarms = {{0, 10000}, {0, 10000}};
    constexpr itimerval kNone = {};
    signal(SIGALRM, [](int) {});
    setitimer(ITIMER_REAL, &kAlarms, nullptr);
    close(fd);
    setitimer(ITIMER_REAL, &kNone, nullptr);
}
