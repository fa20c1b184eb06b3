// The log is read from child processes: see support/log_child.cpp for what each of them does.
#include <android/log.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <regex.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <ctime>
#include <set>
#include <vector>

#include "tests/unit/support/property_dir.h"

namespace {

struct Line {
    std::string header, text;
    char level;
};

// The lines that a shell script logs, none of them torn. ./child is log_child.
std::vector<Line> LogOf(const std::string& script) {
    const PropertyDir properties;
    const std::string prepare = "cd \"$QUILLOD_PROPERTY_DIR\" && ln -s '" LOG_CHILD "' child && ";
    EXPECT_EQ(system((prepare + "(" + script + ") 2>out").c_str()), 0) << script;
    regex_t form;
    regcomp(&form, "^[0-9-]{5} [0-9:.]{12} [ 0-9]{4,}[0-9] [ 0-9]{4,}[0-9] ([A-Z]) [a-z]+: ",
            REG_EXTENDED);
    std::vector<Line> lines;
    std::ifstream out(properties / "out");
    for (std::string line; std::getline(out, line);) {
        regmatch_t at[2] = {};
        EXPECT_TRUE(regexec(&form, line.c_str(), 2, at, 0) == 0 && !out.eof()) << line;
        const auto size = static_cast<size_t>(at[0].rm_eo);
        lines.push_back({line.substr(0, size), line.substr(size), line[at[1].rm_so]});
    }
    regfree(&form);
    return lines;
}

TEST(Log, EachMessageIsOneLineInItsPlaceAtItsLevel) {
    const auto timeIn = [](int seconds) {  // where the children are; time() may lag a tick
        char text[32];
        const time_t local = time(nullptr) + seconds - 41400;  // 11:30 h
        strftime(text, sizeof(text), "%m-%d %H:%M:%S", gmtime(&local));
        return std::string(text);
    };
    const std::string all = "VDIWEFVDIWEF";
    const std::string x5000(5000, 'x');
    const struct {
        const char* name;
        std::string script, text;
        std::string levels;  // under the daemon's tag, then under the library's
    } kRows[] = {
        {"standard error, twice", "./child 100%s && ./child 100%s", "100%s", all + all},
        {"pipe, all else closed", "./child x 2>&1 <&- >&- | cat >&2", "x", all},
        {"file is appended to",
         "export QUILLOD_LOG_FILE=f; ./child x && ./child x 2>&- && cat f >&2", "x", all + all},
        {"file cannot be opened", "QUILLOD_LOG_FILE=none/log ./child x", "x", all},
        {"newlines become blanks, but not at the end", "./child '\na\n\n'", " a", all},
        {"cut to 4096 bytes", "./child " + x5000, x5000, all},
        {"own level", "echo I >log.tag.quillod; echo F >log.tag; ./child x", "x", "IWEFF"},
        {"silent", "echo S >log.tag.quillod; echo DEBUG >log.tag; ./child x", "x", "DIWEF"},
        {"unset", ": >log.tag.quillod; echo s >log.tag.libquillod; echo E >log.tag; ./child x", "x",
         "EFEF"},
    };
    for (const auto& row : kRows) {
        SCOPED_TRACE(row.name);
        const std::string before = timeIn(0);
        std::string levels;
        for (const Line& line : LogOf("export TZ=WEST+11:30; " + row.script)) {
            EXPECT_EQ(line.text, row.text.substr(0, 4095 - line.header.size()));
            EXPECT_TRUE(before <= line.header && line.header <= timeIn(2)) << line.header;
            levels += line.level;
        }
        EXPECT_EQ(levels, row.levels);
    }
}

TEST(Log, LevelIsLookedUpOnceASecond) {
    const PropertyDir properties;
    const auto loggable = [] { return __android_log_is_loggable(ANDROID_LOG_FATAL, "once", 0); };
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(loggable(), 1);
    std::ofstream(properties / "log.tag") << "S";
    while (loggable() == 1) {
    }
    EXPECT_GT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(990));
}

TEST(Log, LinesOfThreadsAndHandlersStayWhole) {
    std::set<std::string> threads;
    for (const Line& line : LogOf("./child storm 2>&1 | cat >&2")) {
        EXPECT_NE(line.header.find(" " + line.text + " D child"), std::string::npos) << line.header;
        threads.insert(line.text);
    }
    EXPECT_EQ(threads.size(), 2U);
}

TEST(Log, FullChannelDropsLinesAndBrokenOneSilences) {
    const PropertyDir properties;
    const auto runOver = [](bool socket) {
        int ends[2];
        const int failed = socket ? socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends)
                                  : pipe2(ends, O_CLOEXEC);
        if (failed != 0 || dup2(ends[0], STDIN_FILENO) < 0 || dup2(ends[1], STDERR_FILENO) < 0)
            return;
        execl(LOG_CHILD, LOG_CHILD, "fill-and-break", nullptr);
    };
    EXPECT_EXIT(runOver(false), testing::ExitedWithCode(0), "") << "pipe";
    EXPECT_EXIT(runOver(true), testing::ExitedWithCode(0), "") << "socket";
}

}  // namespace
