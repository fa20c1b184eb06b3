// The daemon as a process, its cycle of connections, and the modem port.
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>
#include <termios.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <string>
#include <vector>

#include "tests/e2e/handset.h"
#include "tools/common/tool_error.h"

namespace e2e {
namespace {

// Why a tool does not get through to the daemon, which it does for a moment otherwise.
std::string WhyNot(const char* host) {
    try {
        Handset::Dial(host, milliseconds(isVirtual ? 1000 : 50));
        return "";
    } catch (const ToolError& error) {
        return error.what();
    }
}

using Process = HandsetTest;

TEST_F(Process, KeepsLittleOfWhatItWasStartedWith) {
    StartDaemon();
    const std::string status = Contents(Proc("status"));
    for (const char* line : {"\nCapInh:\t0000000000000000\n", "\nCapPrm:\t0000000000002000\n",
                             "\nCapEff:\t0000000000002000\n", "\nUmask:\t0000\n"})
        EXPECT_NE(std::string::npos, status.find(line)) << line << status;
    EXPECT_EQ("/", std::filesystem::read_symlink(Proc("cwd")));
    EXPECT_FALSE(std::filesystem::exists(Proc("fd/2"))) << "others: link monitor, listening socket";
    Attach();
    EXPECT_EQ(isVirtual ? "/dev/ttyACM0" : std::string("/dev/pts/0"),
              std::filesystem::read_symlink(Proc("fd/1")));

    // And bounds the wait for a tool that says nothing more.
    const UniqueFd process(static_cast<int>(syscall(SYS_pidfd_open, Pid(), 0)));
    const UniqueFd client(static_cast<int>(syscall(SYS_pidfd_getfd, process.get(), 2, 0)));
    ASSERT_NE(-1, client.get());
    EXPECT_TRUE(fcntl(client.get(), F_GETFL) & O_NONBLOCK);
    static constexpr struct {
        int level, option, value;
    } kOptions[] = {{IPPROTO_TCP, TCP_NODELAY, 1},    {IPPROTO_TCP, TCP_USER_TIMEOUT, 60000},
                    {SOL_SOCKET, SO_KEEPALIVE, 1},    {IPPROTO_TCP, TCP_KEEPIDLE, 20},
                    {IPPROTO_TCP, TCP_KEEPINTVL, 10}, {IPPROTO_TCP, TCP_KEEPCNT, 4}};
    for (const auto& [level, option, expected] : kOptions) {
        int value = 0;
        socklen_t size = sizeof(value);
        getsockopt(client.get(), level, option, &value, &size);
        EXPECT_EQ(expected, value) << option;
    }
}

TEST_F(Process, ListensOnTheInterfaceOfTheProperty) {
    static constexpr struct {
        const char* interface;
        bool hears[2];  // the handset itself, the PC
    } kRows[] = {{nullptr, {false, true}}, {"lo", {true, false}}, {"missing0", {true, true}}};
    for (const auto& row : kRows) {
        if (row.interface != nullptr) SetProperty("ro.blan.interface", row.interface);
        StartDaemon();
        EXPECT_EQ(row.hears[0], WhyNot("127.0.0.1").empty()) << row.interface;
        StopDaemon();
        StartDaemon();
        EXPECT_EQ(row.hears[1], WhyNot(kHandset).empty()) << row.interface;
        StopDaemon();
    }
}

TEST_F(Process, RefusesASecondTool) {
    Start(false);
    const std::string why = WhyNot(kHandset);
    EXPECT_NE(std::string::npos, why.find("Connection refused")) << why;
    EXPECT_TRUE(Exchange()) << "disturbed by the second";
}

// No side gets the other to leave the framing.
TEST_F(Process, RefusesToEndTheFraming) {
    for (const bool isOn : {false, true}) {
        Switch(isOn);
        isOn ? AttachAgain() : (StartDaemon(), Attach());
        tool.Send(Hex("4B 12 18 02 01 7E"));
        modem.Send(Hex("4B 12 18 02 01 7E"));
        EXPECT_TRUE(Gets(modem, Hex("4B 12 18 02 00 7E")));
        EXPECT_TRUE(Gets(tool, Hex("13 12 18 02 01 7E")));
        Finish();
    }
}

TEST_F(Process, ServesTheNextToolAfterASignal) {
    const auto interrupt = [this](int signal) {
        Until("sleeping in select", [this] {
            return Contents(Proc("status")).find("S (sleeping)") != std::string::npos;
        });
        ASSERT_EQ(0, kill(Pid(), signal));
    };
    StartDaemon();
    interrupt(SIGHUP);
    Attach();
    for (const int signal : {SIGHUP, SIGPIPE}) {
        ASSERT_TRUE(Exchange());
        interrupt(signal);
        UntilClosed();
        AttachAgain();
    }
    EXPECT_TRUE(Exchange());
}

TEST_F(Process, WithoutModemPortTriesTenTimes) {
    std::filesystem::rename(kModemPort, "/dev/hidden");
    StartDaemon();
    Connect();
    UntilClosed();
    EXPECT_NE(std::string::npos, Log().find("on try 9: "));
    EXPECT_EQ(std::string::npos, Log().find("on try 10: "));
    std::filesystem::rename("/dev/hidden", kModemPort);
    AttachAgain();
}

TEST_F(Process, SetsTheModemPortUpFromTheWorstOfLines) {
    if (isVirtual) GTEST_SKIP() << "the modem's end of a pty is the port itself";
    termios before = {};
    before.c_iflag = BRKINT | PARMRK | INPCK | ISTRIP | IGNCR | ICRNL | IXON | IXOFF | IXANY;
    before.c_oflag = OPOST | ONLCR;
    before.c_cflag = B9600 | CS7 | PARENB | CSTOPB | HUPCL;
    before.c_lflag = ISIG | ICANON | IEXTEN | ECHO | ECHOE | ECHOK | ECHONL | TOSTOP;
    before.c_cc[VMIN] = 7;
    ASSERT_EQ(0, tcsetattr(LineFd(), TCSANOW, &before));  // a pty's master is its port
    const UniqueFd port(open(kModemPort, O_RDONLY | O_NOCTTY | O_NONBLOCK | O_CLOEXEC));
    modem.Send("stale\n");
    Until("stale bytes and their echo", [&, stale = 0]() mutable {
        return ioctl(port.get(), FIONREAD, &stale) == 0 && stale > 0 && modem.in.size() > 5;
    });
    modem.in.clear();
    Start(false);
    EXPECT_TRUE(Exchange());
    termios line = {};
    ASSERT_EQ(0, tcgetattr(LineFd(), &line));
    using Flags = std::vector<tcflag_t>;
    EXPECT_EQ((Flags{IGNBRK | IGNPAR, ONLCR, IEXTEN | TOSTOP,
                     B115200 | CS8 | CREAD | CLOCAL | CRTSCTS | CSTOPB | HUPCL}),
              (Flags{line.c_iflag, line.c_oflag, line.c_lflag, line.c_cflag}));
}

// Both programs of the PC, with the daemon between them.
TEST_F(Process, RelaysBetweenToolAndSimulatedModem) {
    const auto run = [](const std::string& arguments) {
        return WEXITSTATUS(system(("$QUILLTOOL_BIN " + arguments).c_str()));
    };
    if (isVirtual) GTEST_SKIP() << "a port neither tells of a flush nor hangs up with its program";
    BreakLine();
    run("modem --at /dev/ttydiag0 --verbose --send-logs 500 >/data/trace 2>&1 & echo $! "
        ">/data/modem");
    Until("the modem",
          [] { return Contents("/data/trace").find("ready at") != std::string::npos; });
    SetProperty("ro.blan.interface", "lo");
    StartDaemon();
    const struct {
        const char* arguments;
        int status;
        const char* pattern;  // of a part of the output
    } kRows[] = {
        {"", 0, "^-> version \\(0x00\\), 1 byte: 00\n<- version.*FCS good: 00 .*\n$"},
        // Left unfinished: the next connection's bytes are no bulk data.
        {"--timeout 0.3 --request FA520500000000000000", 1, "in time to FA 52"},
        {"--bulk 300k", 0, "-> 300000 bytes.*every byte right.*<- 300000 bytes.*right\n$"},
        {"--mask 0x1003,0xB0C0-0xB0C1 --get-mask | grep -m1 -B99 '<-.*0xB0C1, FCS good'", 0,
         "\n0x1003\n0xB0C0-0xB0C1\n<- log packet"},
    };
    for (const auto& row : kRows) {
        UntilListening();
        EXPECT_EQ(row.status,
                  run(std::string("probe 127.0.0.1 ") + row.arguments + " >/data/out 2>&1"));
        EXPECT_TRUE(Matches(Contents("/data/out"), row.pattern)) << Contents("/data/out");
    }
    UntilListening();  // the ranges come among the logs that the tool before has left on
    run("mask ranges 127.0.0.1 >/data/out");
    EXPECT_EQ("width 1 4095\nwidth 4 2320\nwidth 5 2144\nwidth 7 2672\nwidth 11 2560\n",
              Contents("/data/out"));
    kill(std::stoi(Contents("/data/modem")), SIGTERM);
    Until("the line's end", [] { return !std::filesystem::exists(kModemPort); });
}

}  // namespace
}  // namespace e2e
