// The daemon as a process, its cycle of connections, the modem port, and the bytes of a connection.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <filesystem>
#include <future>
#include <string>

#include "daemon/modem_port.h"
#include "handset.h"

namespace e2e {
namespace {

class Connection : public HandsetTest {};

TEST_F(Connection, KeepsOneCapabilityAndUsesTheStandardDescriptors) {
    daemon.Start();
    ASSERT_TRUE(daemon.WaitForLog(kListens));
    const std::string status = Contents(daemon.Proc("status"));
    for (const char* line : {"\nCapInh:\t0000000000000000\n", "\nCapPrm:\t0000000000002000\n",
                             "\nCapEff:\t0000000000002000\n", "\nUmask:\t0000\n"})
        EXPECT_NE(std::string::npos, status.find(line)) << line << status;
    ASSERT_TRUE(Attach(tool));
    int sockets = 0;
    int lines = 0;
    for (const char* fd : {"fd/0", "fd/1", "fd/2"}) {
        const std::string target = std::filesystem::read_symlink(daemon.Proc(fd));
        sockets += target.rfind("socket:", 0) == 0 ? 1 : 0;
        lines += target.rfind("/dev/pts/", 0) == 0 ? 1 : 0;
    }
    EXPECT_EQ(2, sockets) << "link monitor and tool";
    EXPECT_EQ(1, lines) << "modem";
    EXPECT_TRUE(Exchange(tool));
}

TEST_F(Connection, RefusesASecondToolUntilTheFirstIsGone) {
    Tool second;
    ASSERT_TRUE(Serve(tool));
    EXPECT_EQ(ECONNREFUSED, second.Connect());
    EXPECT_TRUE(Exchange(tool)) << "disturbed by the second";
    ASSERT_TRUE(Finish(tool));
    ASSERT_TRUE(Attach(second));
    EXPECT_TRUE(Exchange(second));
}

struct Interruption {
    const char* name;
    int signal;  // 0: the link goes and comes back
    bool isServing;
};

class Interrupted : public HandsetTest, public testing::WithParamInterface<Interruption> {};

TEST_P(Interrupted, ServesTheNextTool) {
    const auto& [name, signal, isServing] = GetParam();
    // An ordinary user's handset gets them from an uid that the daemon refuses.
    if (signal == 0 && !LinkEventsArrive()) GTEST_SKIP() << "no link events here";
    daemon.Start();
    ASSERT_TRUE(daemon.WaitForLog(kListens));
    if (isServing) {
        ASSERT_TRUE(Attach(tool));
        ASSERT_TRUE(Exchange(tool));
    }
    if (signal == 0) {
        SetLink(false);
        ASSERT_TRUE(daemon.WaitForLog("USBLAN Removed"));
        SetLink(true);
    } else {
        // Before it sleeps in select, the signal would interrupt nothing.
        ASSERT_TRUE(WaitUntil([&] {
            return Contents(daemon.Proc("status")).find("S (sleeping)") != std::string::npos;
        }));
        daemon.Signal(signal);
    }
    if (signal == 0 || isServing) {
        ASSERT_TRUE(daemon.WaitForLog(kListens));
    }
    EXPECT_TRUE(!isServing || tool.WaitForClose());
    Tool next;
    ASSERT_TRUE(Attach(next));
    EXPECT_TRUE(Exchange(next));
    // While accept waits, the thread sanitizer holds the handler back until the next client.
    const std::string caught = "Signal " + std::to_string(signal) + " caught and ignored";
    EXPECT_EQ(signal == 0 ? 0 : 1, daemon.LogCount(caught));
}

INSTANTIATE_TEST_SUITE_P(Rows, Interrupted,
                         testing::Values(Interruption{"HangUpSignal", SIGHUP, false},
                                         Interruption{"LinkDownAndUp", 0, false},
                                         Interruption{"HangUpSignalWhileServing", SIGHUP, true},
                                         Interruption{"PipeSignalWhileServing", SIGPIPE, true},
                                         Interruption{"LinkDownAndUpWhileServing", 0, true}),
                         NameOf<Interruption>);

class ModemPort : public HandsetTest {
  protected:
    // Connects while there is no port, and waits for the failures of the first tries.
    void TryInVain(int tries) {
        modem.Disappear();
        daemon.Start();
        ASSERT_TRUE(daemon.WaitForLog(kListens));
        ASSERT_EQ(0, tool.Connect());
        for (int i = 0; i < tries; ++i)
            ASSERT_TRUE(daemon.WaitForLog("W quillod: Can't open /dev/ttydiag0 on try " +
                                          std::to_string(i) + ": No such file or directory"));
    }
};

TEST_F(ModemPort, MissingCostsTenTriesAndTheClient) {
    TryInVain(10);
    ASSERT_TRUE(daemon.WaitForLog("E quillod: Unable to open BP IPC device"));
    EXPECT_TRUE(tool.WaitForClose());
    EXPECT_TRUE(daemon.WaitForLog(kListens));
    EXPECT_EQ(10, daemon.LogCount("Can't open"));
}

TEST_F(ModemPort, AppearingAtTheFifthTryIsServed) {
    TryInVain(5);
    modem.Appear();
    ASSERT_TRUE(daemon.WaitForLog(kRelayStarts));
    EXPECT_TRUE(Exchange(tool));
    EXPECT_EQ(5, daemon.LogCount("Can't open"));
}

// In this process, to see the line through the daemon's own eyes.
TEST_F(ModemPort, IsSetUpFromTheWorstOfLines) {
    termios before = {};
    before.c_iflag = BRKINT | PARMRK | INPCK | ISTRIP | IGNCR | ICRNL | IXON | IXOFF | IXANY;
    before.c_oflag = OPOST | ONLCR;
    before.c_cflag = B9600 | CS7 | PARENB | CSTOPB | HUPCL;
    before.c_lflag = ISIG | ICANON | IEXTEN | ECHO | ECHOE | ECHOK | ECHONL | TOSTOP;
    before.c_cc[VMIN] = 7;
    before.c_cc[VTIME] = 3;
    ASSERT_EQ(0, tcsetattr(modem.PortFd(), TCSANOW, &before));
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

TEST_F(Connection, CarriesBulkBothWaysAtOnce) {
    const std::string toModem = Pattern(20'000'000, 1);
    const std::string toTool = Pattern(20'000'000, 2);
    ASSERT_TRUE(Serve(tool));
    const auto toolSends = std::async(std::launch::async, [&] { return tool.Send(toModem); });
    const auto modemSends = std::async(std::launch::async, [&] { return modem.Send(toTool); });
    auto atModem =
        std::async(std::launch::async, [&] { return modem.ReceiveExactly(toModem.size()); });
    EXPECT_TRUE(Same(toTool, tool.ReceiveExactly(toTool.size())));
    EXPECT_TRUE(Same(toModem, atModem.get()));
}

TEST_F(Connection, DeliversTheBytesOfAToolThatClosed) {
    const std::string bytes = Pattern(200000, 5);  // partly still in the socket by then
    ASSERT_TRUE(Serve(tool));
    ASSERT_TRUE(tool.Send(bytes));
    ASSERT_TRUE(daemon.WaitForLog("write error, try again"));
    tool.Close();
    EXPECT_TRUE(Same(bytes, modem.ReceiveExactly(bytes.size())));
    ASSERT_TRUE(daemon.WaitForLog(kListens));
    EXPECT_EQ("", modem.ReceiveAvailable());
}

}  // namespace
}  // namespace e2e
