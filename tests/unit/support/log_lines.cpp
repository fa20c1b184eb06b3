#include "tests/unit/support/log_lines.h"

#include <android/log.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <cstdarg>
#include <cstdio>
#include <mutex>
#include <utility>
#include <vector>

namespace {

std::mutex gMutex;
std::condition_variable gNewLine;                                       // with gMutex
bool gIsKept = false;                                                   // gMutex
std::vector<std::string> gLines;                                        // gMutex
std::vector<std::pair<std::string, std::function<void()>>> gReactions;  // gMutex

int CountLocked(const std::string& part) {
    return static_cast<int>(std::count_if(
        gLines.begin(), gLines.end(),
        [&](const std::string& line) { return line.find(part) != std::string::npos; }));
}

void Reset(bool isKept) {
    const std::lock_guard<std::mutex> lock(gMutex);
    gIsKept = isKept;
    gLines.clear();
    gReactions.clear();
}

}  // namespace

LogLines::LogLines() {
    Reset(true);
}

LogLines::~LogLines() {
    Reset(false);
}

int LogLines::Count(const std::string& part) {
    const std::lock_guard<std::mutex> lock(gMutex);
    return CountLocked(part);
}

void LogLines::WaitFor(const std::string& part, int count) {
    std::unique_lock<std::mutex> lock(gMutex);
    EXPECT_TRUE(gNewLine.wait_for(lock, std::chrono::seconds(20), [&] {
        return CountLocked(part) >= count;
    })) << part;
}

void LogLines::On(const std::string& part, std::function<void()> action) {
    const std::lock_guard<std::mutex> lock(gMutex);
    gReactions.emplace_back(part, std::move(action));
}

// ---- In place of the platform's ----

int __android_log_is_loggable(int, const char*, int) {
    return 1;
}

int __android_log_print(int, const char*, const char* format, ...) {
    const int error = errno;
    char line[4096];
    va_list args;
    va_start(args, format);
    vsnprintf(line, sizeof(line), format, args);
    va_end(args);
    std::vector<std::function<void()>> actions;
    {
        const std::lock_guard<std::mutex> lock(gMutex);
        if (gIsKept) gLines.emplace_back(line);
        for (const auto& [part, action] : gReactions)
            if (gLines.back().find(part) != std::string::npos) actions.push_back(action);
    }
    gNewLine.notify_all();
    for (const auto& action : actions)
        action();
    errno = error;
    return 1;
}
