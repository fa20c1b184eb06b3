// The modem's diagnostic port: waiting for it, and how its line is set up.
#include "daemon/modem_port.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <string>

#include "handset.h"

namespace e2e {
namespace {

class ModemPort : public HandsetTest {
  protected:
    // Waits for the line that says that opening failed this time.
    AssertionResult WaitForFailedTry(int attempt) {
        return daemon.WaitForLog("W quillod: Can't open /dev/ttydiag0 on try " +
                                 std::to_string(attempt) + ": No such file or directory");
    }
};

TEST_F(ModemPort, MissingCostsTenTriesAndTheClient) {
    modem.Disappear();
    daemon.Start();
    ASSERT_TRUE(daemon.WaitForLog(kListens));
    Tool tool;
    ASSERT_EQ(0, tool.Connect());
    for (int attempt = 0; attempt < 10; ++attempt)
        ASSERT_TRUE(WaitForFailedTry(attempt));
    ASSERT_TRUE(daemon.WaitForLog("E quillod: Unable to open BP IPC device"));
    EXPECT_TRUE(tool.WaitForClose());
    EXPECT_TRUE(daemon.WaitForLog(kListens));
    EXPECT_EQ(10, daemon.LogCount("Can't open"));
}

TEST_F(ModemPort, AppearingAtTheFifthTryIsServed) {
    modem.Disappear();
    daemon.Start();
    ASSERT_TRUE(daemon.WaitForLog(kListens));
    Tool tool;
    ASSERT_EQ(0, tool.Connect());
    ASSERT_TRUE(WaitForFailedTry(4));
    modem.Appear();
    ASSERT_TRUE(daemon.WaitForLog("I quillod: Opened /dev/ttydiag0 on fd"));
    ASSERT_TRUE(daemon.WaitForLog(kRelayStarts));
    EXPECT_TRUE(Exchange(tool));
    EXPECT_EQ(5, daemon.LogCount("Can't open"));
}

// In this process, to see the line through the daemon's own eyes.
TEST_F(ModemPort, IsSetUpFromTheWorstOfLines) {
    modem.SpoilLine();
    termios before = {};
    ASSERT_EQ(0, tcgetattr(modem.PortFd(), &before));
    ASSERT_TRUE(modem.Send("stale\n"));
    pollfd arrival = {modem.PortFd(), POLLIN, 0};
    ASSERT_EQ(1, poll(&arrival, 1, static_cast<int>(kLimit.count())));

    const int fd = open_bp_ipc();
    ASSERT_GE(fd, 0);
    EXPECT_TRUE(fcntl(fd, F_GETFL) & O_NONBLOCK);
    char byte = 0;
    EXPECT_EQ(-1, read(fd, &byte, 1)) << "input from before";
    EXPECT_EQ(EAGAIN, errno);

    termios line = {};
    ASSERT_EQ(0, tcgetattr(fd, &line));
    constexpr tcflag_t kControl = CS8 | CREAD | CLOCAL | CRTSCTS | CSTOPB | HUPCL;
    EXPECT_EQ(tcflag_t{IGNBRK | IGNPAR}, line.c_iflag);
    EXPECT_EQ(tcflag_t{ONLCR}, line.c_oflag);
    EXPECT_EQ(kControl, line.c_cflag & ~tcflag_t{CBAUD});
    EXPECT_EQ(tcflag_t{IEXTEN | TOSTOP}, line.c_lflag);
    EXPECT_TRUE(std::equal(before.c_cc, before.c_cc + NCCS, line.c_cc));
    EXPECT_EQ(speed_t{B115200}, cfgetispeed(&line));
    EXPECT_EQ(speed_t{B115200}, cfgetospeed(&line));
    close(fd);
}

}  // namespace
}  // namespace e2e
