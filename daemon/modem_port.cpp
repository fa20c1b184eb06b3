#include "daemon/modem_port.h"

#include <fcntl.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "platform/tagged_log.h"

namespace {

constexpr char kModemPort[] = "/dev/ttydiag0";
constexpr int kOpenTries = 10;

// The results are not examined: a port that takes no settings is used as it is.
void ConfigureLine(int fd) {
    termios line = {};
    tcgetattr(fd, &line);
    line.c_lflag &= ~static_cast<tcflag_t>(ISIG | ICANON | ECHO | ECHOE | ECHOK | ECHONL);
    line.c_iflag = IGNBRK | IGNPAR;
    line.c_oflag &= ~static_cast<tcflag_t>(OPOST);
    line.c_cflag &= ~static_cast<tcflag_t>(PARENB);
    line.c_cflag |= CS8 | CREAD | CLOCAL | CRTSCTS;
    cfsetispeed(&line, B115200);
    cfsetospeed(&line, B115200);
    tcflush(fd, TCIFLUSH);
    tcsetattr(fd, TCSANOW, &line);
}

}  // namespace

int open_bp_ipc() {
    for (int attempt = 0; attempt < kOpenTries; ++attempt) {
        const int fd = open(kModemPort, O_RDWR | O_NONBLOCK);
        if (fd >= 0) {
            DAEMON_LOGI("Opened %s on fd %d", kModemPort, fd);
            ConfigureLine(fd);
            return fd;
        }
        DAEMON_LOGW("Can't open %s on try %d: %s", kModemPort, attempt, strerror(errno));
        sleep(1);
    }
    return -1;
}
