#include "relay/port_drain.h"

#include <sys/ioctl.h>
#include <termios.h>

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
