// The program itself: arguments in, exit status and both outputs out.
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <regex>
#include <string>

#include "support/frames.h"

namespace {

namespace fs = std::filesystem;

std::string Contents(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

// In a directory of its own, with a list, a mask file and two captures.
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
    static int Wait(pid_t pid) {
        int status = -1;
        EXPECT_EQ(pid, waitpid(pid, &status, 0));
        return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
    }

    std::string mDirectory;
};

TEST_F(Quilltool, AnswersEveryCall) {
    const struct {
        const char* arguments;
        int status;
        const char* out;  // regular expressions for a part of it; "^$" for nothing
        const char* err;
    } kRows[] = {
        {"--version", 0, "^quilltool \\d+\\.\\d+\\.\\d+\n$", "^$"},
        {"--help", 0, "modem[^]*probe[^]*mask[^]*capture", "^$"},
        {"", 2, "^$", "modem, probe, mask or capture"},
        {"nosuch", 2, "^$", "nosuch"},
        {"mask", 2, "^$", "subcommand"},
        {"mask compile list -o new.cfg", 0, "^$", "^$"},
        {"mask compile mask.cfg -o new.cfg", 1, "^$", "no text list.*mask print"},
        {"mask compile nosuch -o new.cfg", 1, "^$", "nosuch: No such file"},
        {"mask compile list", 2, "^$", "--output"},
        {"mask compile list -o captures", 1, "^$", "not a regular file"},
        {"mask print mask.cfg", 0, "event \\(0x60\\)[^]*time stamp", "^$"},
        {"mask print --list mask.cfg", 0, "^events on\ntimestamp\n$", "^$"},
        {"mask print bad.cfg", 1, "event", "bad.cfg: offset 5: bad check sequence"},
        {"mask print list", 1, "^$", "list is text.*mask compile"},
        {"mask ranges 127.0.0.1 --port 0", 2, "^$", "--port"},
        {"probe 127.0.0.1 --port 1 --timeout 0.01", 1, "^$", "refused.*one tool at a time"},
        {"probe localhost --request 7", 2, "^$", "two hexadecimal digits"},
        {"probe localhost --mask 0x1000,0xB0C0-0xC000", 2, "^$", "leaves the first code's"},
        {"probe localhost --mask 0xE000", 2, "^$", "14 and 15 have no log masks"},
        {"probe localhost --mask 0x1000 --bulk 1M", 2, "^$", "excludes"},
        {"modem --at captures", 1, "^$", "captures"},
        {"modem --send-logs -1", 2, "^$", "--send-logs"},
        {"capture show captures", 0, "event report.*good\n.*message.*good\n.*answer", "^$"},
        {"capture show captures --kind event --hex", 0, "60 01 00\n$", "^$"},
        {"capture show captures --limit 1", 0, "event report.*\n$", "^$"},
        {"capture show captures --limit 0", 2, "^$", "--limit: is at least 1"},
        {"capture show captures --kind foo", 2, "^$", "foo.*log.*event.*message.*answer"},
        {"capture show captures --code 0x1000-0x1001", 0, "^$", "no such frame"},
        {"capture show cut.qmdl", 1, "mid-frame", "cut frames: 1"},
        {"capture show nosuch", 1, "^$", "nosuch"},
        {"capture stat captures", 0, "^1 file, 17 bytes\n[^]*answer +1 ", "^$"},
        {"capture stat captures --json", 0, "\"bytes\": 17,[^]*\"problems\": \\[\\]", "^$"},
        {"capture stat cut.qmdl", 1, "cut: the file ends", "^$"},
        {"capture follow list", 1, "^$", "list"},
        {"capture show captures >/dev/full", 1, "^$", "not be written: No space left"},
    };
    for (const auto& row : kRows) {
        SCOPED_TRACE(row.arguments);
        fs::remove(mDirectory + "/out");
        EXPECT_EQ(row.status, Wait(Start("2>err >out " + std::string(row.arguments))));
        EXPECT_TRUE(std::regex_search(Output("out"), std::regex(row.out))) << Output("out");
        EXPECT_TRUE(std::regex_search(Output("err"), std::regex(row.err))) << Output("err");
    }
    EXPECT_EQ(Packets(Output("new.cfg")).size(), 3U);
}

TEST_F(Quilltool, EndsQuietlyWhenNobodyReadsOn) {
    int ends[2];
    ASSERT_EQ(0, pipe(ends));
    close(ends[0]);
    EXPECT_EQ(0, Wait(Start("capture show captures 2>err >&" + std::to_string(ends[1]))));
    EXPECT_EQ(Output("err"), "");
    close(ends[1]);
}

TEST_F(Quilltool, FollowsUntilCtrlC) {
    const pid_t pid = Start("capture follow captures >out 2>err");
    while (Output("err").find("waiting for frames") == std::string::npos)
        sched_yield();
    while (Output("out").find("message") == std::string::npos) {
        Write("captures/a.qmdl", Framed("79 01"));
        sched_yield();
    }
    EXPECT_EQ(0, kill(pid, SIGINT));
    EXPECT_EQ(0, Wait(pid));
    EXPECT_EQ(Output("out").find("answer"), std::string::npos) << "what was there before";
}

}  // namespace
