// The program itself: arguments in, exit status and both outputs out.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <regex.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>

#include "support/frames.h"
#include "tools/common/unique_fd.h"
#include "tools/modem/sim_modem.h"

namespace {

namespace fs = std::filesystem;

std::string Contents(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

// pattern: an extended regular expression for a part of text, where . takes line ends, too.
bool Matches(const std::string& text, const char* pattern) {
    regex_t regex;
    EXPECT_EQ(0, regcomp(&regex, pattern, REG_EXTENDED | REG_NOSUB));
    const bool matches = regexec(&regex, text.c_str(), 0, nullptr, 0) == 0;
    regfree(&regex);
    return matches;
}

// A TCP port of this machine.
class Port {
  public:
    Port() {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        auto* const any = reinterpret_cast<sockaddr*>(&address);
        EXPECT_EQ(0, bind(fd(), any, length));
        EXPECT_EQ(0, listen(fd(), 1));
        EXPECT_EQ(0, getsockname(fd(), any, &length));
        mNumber = std::to_string(ntohs(address.sin_port));
    }
    int fd() const { return mSocket.get(); }
    const std::string& number() const { return mNumber; }

  private:
    const UniqueFd mSocket{socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)};
    std::string mNumber;
};

// In the daemon's place: one tool after the other, until the port is shut down.
void RelayTools(int port, const std::string& line) {
    for (UniqueFd tool(accept(port, nullptr, nullptr)); tool.get() != -1;
         tool = UniqueFd(accept(port, nullptr, nullptr))) {
        const UniqueFd modem(open(line.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC));
        tcflush(modem.get(), TCIFLUSH);
        pollfd ends[] = {{tool.get(), POLLIN, 0}, {modem.get(), POLLIN, 0}};
        for (ssize_t count = 1; count > 0 && poll(ends, 2, -1) > 0;) {
            char bytes[4096];
            const int from = ends[0].revents != 0 ? 0 : 1;
            count = read(ends[from].fd, bytes, sizeof bytes);
            for (ssize_t at = 0; at < count;) {
                const ssize_t written =
                    write(ends[1 - from].fd, bytes + at, static_cast<size_t>(count - at));
                at = written < 0 ? count : at + written;
            }
        }
    }
}

std::string LogFrame(uint16_t code, uint64_t ticks) {
    constexpr uint64_t kStamp = uint64_t{1156792320800} << 16;  // 2025-11-01 00:00:01 UTC
    std::string frame;
    AppendFrame(frame, SimModem::MakeLogPacket(code, "", kStamp + ticks));
    return frame;
}

// In a directory of its own, with a list, mask files and captures.
class Quilltool : public testing::Test {
  protected:
    Quilltool() {
        std::string pattern = testing::TempDir() + "quilltool_test.XXXXXX";
        mDirectory = mkdtemp(pattern.data());
        Write("list", "0x117C\n0xB0C0-0xB0CF\nevents on\n");
        Write("mask.cfg", Framed("60 01") + Framed("1D"));
        Write("bad.cfg", Framed("60 01") + Bytes("60 00 00 7E"));
        fs::create_directory(mDirectory + "/captures");
        Write("captures/a.qmdl", Framed("60 01 00") + Framed("79 00") + Framed("1D 05"));
        Write("cut.qmdl", Framed("60 01 00").substr(0, 4));
        Write("logs.qmdl", LogFrame(1, (2 << 16) + 40960) + Framed("1D 05") + LogFrame(2, 0));
        fs::create_directory(mDirectory + "/recorded");
        for (const char* name : {"z.qmdl", "b.qmdl", "c.qmdl", "a.qmdl", "d.txt"})
            Write(std::string("recorded/") + name, Framed("60 01 00"));
        Write("recorded/record.txt",
              "\n\n/data/misc/radio/c.qmdl\n\n\n/x/gone.qmdl\n/x/a.qmdl\nc.qmdl");
    }
    ~Quilltool() override { fs::remove_all(mDirectory); }

    void Write(const std::string& name, const std::string& bytes) const {
        std::ofstream(mDirectory + "/" + name, std::ios::binary | std::ios::app) << bytes;
    }
    std::string Output(const char* name) const { return Contents(mDirectory + "/" + name); }

    // arguments: of the shell, which redirects both outputs to the files out and err.
    pid_t Start(const std::string& arguments) const {
        const std::string line = "cd " + mDirectory + " && exec " QUILLTOOL " " + arguments;
        const char* const argv[] = {"sh", "-c", line.c_str(), nullptr};
        pid_t pid = -1;
        EXPECT_EQ(0, posix_spawn(&pid, "/bin/sh", nullptr, nullptr, const_cast<char* const*>(argv),
                                 environ));
        return pid;
    }
    void Await(const char* name, const std::string& text) const {
        while (Output(name).find(text) == std::string::npos)
            sched_yield();
    }
    static int Wait(pid_t pid) {
        int status = -1;
        EXPECT_EQ(pid, waitpid(pid, &status, 0));
        return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
    }
    static void EndsWith(pid_t pid, int signal) {
        EXPECT_EQ(0, kill(pid, signal));
        EXPECT_EQ(0, Wait(pid));
    }

    struct Call {
        std::string arguments;
        int status;
        const char* out;  // patterns; "^$" for nothing
        const char* err;
    };
    void CheckCalls(const std::vector<Call>& calls) const {
        for (const Call& call : calls) {
            SCOPED_TRACE(call.arguments);
            fs::remove(mDirectory + "/out");
            EXPECT_EQ(call.status, Wait(Start("2>err >out " + call.arguments)));
            EXPECT_TRUE(Matches(Output("out"), call.out)) << Output("out");
            EXPECT_TRUE(Matches(Output("err"), call.err)) << Output("err");
        }
    }

    std::string mDirectory;
};

TEST_F(Quilltool, AnswersEveryCall) {
    CheckCalls({
        {"--version", 0, "^quilltool [0-9]+\\.[0-9]+\\.[0-9]+\n$", "^$"},
        {"--help", 0, "modem.*probe.*mask.*capture", "^$"},
        {"", 2, "^$", "there are modem, probe, mask, capture"},
        {"nosuch", 2, "^$", "nosuch is no subcommand; there are modem"},
        {"mask", 2, "^$", "there are compile, print, ranges"},
        {"capture foo", 2, "^$", "foo is no subcommand; there are show, stat, follow"},
        {"mask compile list -o new.cfg", 0, "^$", "^$"},
        {"mask compile mask.cfg -o new.cfg", 1, "^$", "no text list.*mask print"},
        {"mask compile nosuch -o new.cfg", 1, "^$", "nosuch: No such file"},
        {"mask compile list", 2, "^$", "--output"},
        {"mask compile list -o captures", 1, "^$", "not a regular file"},
        {"mask print mask.cfg", 0, "event \\(0x60\\).*time stamp", "^$"},
        {"mask print --list mask.cfg", 0, "^events on\ntimestamp\n$", "^$"},
        {"mask print bad.cfg", 1, "event", "bad.cfg: offset 5: bad check sequence"},
        {"mask print list", 1, "^$", "list is text.*mask compile"},
        {"mask ranges 127.0.0.1 --port 0", 2, "^$", "--port"},
        {"probe 127.0.0.1 --port 1 --timeout 0.01", 1, "^$", "refused.*one tool at a time"},
        {"probe localhost --mask 0x1000,0xB0C0-0xC000", 2, "^$", "leaves the first code's"},
        {"probe localhost --mask 0xE000", 2, "^$", "14 and 15 have no log masks"},
        {"probe localhost --mask 0x1000 --bulk 1M", 2, "^$", "excludes"},
        {"modem --at captures", 1, "^$", "captures"},
        {"modem --send-logs -1", 2, "^$", "--send-logs"},
        {"capture show captures", 0, "event report.*good\n.*message.*good\n.*answer", "^$"},
        {"capture show captures --kind event --hex", 0, "60 01 00\n$", "^$"},
        {"capture show captures --limit 1", 0, "event report.*\n$", "^$"},
        {"capture show captures --limit 0", 2, "^$", "1 or more: 0"},
        {"capture show captures --kind foo", 2, "^$", "foo.*log.*event.*message.*answer"},
        {"capture show captures --code 0x1000-0x1001", 0, "^$", "no such frame"},
        {"capture show cut.qmdl", 1, "mid-frame", "cut frames: 1"},
        {"capture show nosuch", 1, "^$", "nosuch"},
        {"capture stat captures", 0, "^1 file, 17 bytes\n.*answer +1 ", "^$"},
        {"capture stat captures --json", 0, "\"bytes\": 17,.*\"problems\": \\[\\]", "^$"},
        {"capture stat cut.qmdl", 1, "cut: the file ends", "^$"},
        {"capture stat logs.qmdl", 0,
         "from 2025-11-01 00:00:01.000 to 2025-11-01 00:00:01.003 UTC, 0.004 s\n.*\n"
         "0x0002 +0 +1 +19\n.*\n0x0001 +#{40} +50.0%",
         "^$"},
        {"capture show recorded", 0, "^recorded/c.*\nrecorded/a.*\nrecorded/b.*\nrecorded/z",
         "^quilltool: recorded: its record file lists gone.qmdl, which is not there\n$"},
        {"capture follow list", 1, "^$", "list"},
        {"capture show captures >/dev/full", 1, "^$", "not be written: No space left"},
    });
    EXPECT_EQ(Packets(Output("new.cfg")).size(), 3U);
    for (const char* wrong :
         {"--request ''", "--request ' '", "--request 7", "--request '7 3'", "--request 0x73",
          "--request 73,00", "--request 730", "--bulk 9300000000G", "--bulk 18446744073709551617",
          "--bulk 0M", "--bulk ''", "--bulk M", "--bulk 3MB", "--bulk -3"})
        CheckCalls({{std::string("probe localhost ") + wrong, 2, "^$", "^--(request|bulk): "}});
}

TEST_F(Quilltool, SpeaksWithTheModem) {
    const pid_t modem = Start("modem --at line --verbose --send-logs 500 >trace 2>&1");
    Await("trace", "modem ready at line");
    const Port daemon;
    const Port silent;
    std::thread relay(RelayTools, daemon.fd(), mDirectory + "/line");
    const std::string probe = "probe 127.0.0.1 --port " + daemon.number() + " ";
    CheckCalls({
        {probe, 0, "^-> version \\(0x00\\), 1 byte: 00\n<- version.*FCS good: 00 .*\n$", "^$"},
        {probe + "--raw --request '4B 00 03 04 0a0D 11 13 1A 7e7F FF'", 0,
         "^13 4B 00 03 04 0A 0D 11 13 1A 7D 5E 7F FF .. .. 7E\n$", "^$"},
        // Left unfinished: the next connection's bytes are no bulk data.
        {probe + "--timeout 0.3 --request FA520500000000000000", 1, "^-> bulk", "in time to FA 52"},
    });
    Await("trace", "-> bulk");
    CheckCalls({
        {probe + "--bulk 300k", 0,
         "-> 300000 bytes in.*, every byte right\nbulk <- 300000 bytes.*right\n$", "^$"},
        {"probe localhost --timeout 0.01 --port " + silent.number(), 1, "^-> version",
         "time to 00"},
    });
    const pid_t watcher = Start(probe + "--mask 0x1003,0xB0C0-0xB0C1 --get-mask >out 2>err");
    Await("out", "0xB0C1, FCS good");
    EndsWith(watcher, SIGINT);
    EXPECT_NE(Output("out").find("\n0x1003\n0xB0C0-0xB0C1\n<- log packet"), std::string::npos);
    EXPECT_NE(Output("trace").find("-> log configuration (0x73), 528 bytes"), std::string::npos)
        << "a mask as wide as the modem's";
    // Among the logs that the tool before has left on.
    CheckCalls(
        {{"mask ranges localhost --port " + daemon.number(), 0,
          "^width 1 4095\nwidth 4 2320\nwidth 5 2144\nwidth 7 2672\nwidth 11 2560\n$", "^$"}});
    EXPECT_EQ(0, shutdown(daemon.fd(), SHUT_RDWR));
    relay.join();
    EndsWith(modem, SIGTERM);
    EXPECT_FALSE(fs::exists(fs::symlink_status(mDirectory + "/line")));
}

TEST_F(Quilltool, EndsQuietlyWhenNobodyReadsOn) {
    int ends[2];
    ASSERT_EQ(0, pipe(ends));
    close(ends[0]);
    for (const char* arguments : {"capture show captures", "modem --at line"}) {
        EXPECT_EQ(0, Wait(Start(arguments + (" 2>err >&" + std::to_string(ends[1])))));
        EXPECT_EQ(Output("err"), "");
    }
    close(ends[1]);
}

TEST_F(Quilltool, FollowsUntilCtrlC) {
    const pid_t pid = Start("capture follow captures >out 2>err");
    Await("err", "waiting for frames");
    Write("captures/a.qmdl", Framed("79 01"));
    Await("out", "message");
    EndsWith(pid, SIGINT);
    EXPECT_EQ(Output("out").find("answer"), std::string::npos) << "what was there before";
}

}  // namespace
