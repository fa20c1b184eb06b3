#include "tests/unit/support/log_lines.h"

#include <android/log.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <utility>
#include <vector>

namespace {

std::mutex gMutex;
bool gIsKept = false;                                                   // gMutex
std::vector<std::string> gLines;                                        // gMutex
std::vector<std::pair<std::string, std::function<void()>>> gReactions;  // gMutex

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
    return static_cast<int>(std::count_if(
        gLines.begin(), gLines.end(),
        [&](const std::string& line) { return line.find(part) != std::string::npos; }));
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
    std::vector<std::pair<std::string, std::function<void()>>> reactions;
    {
        const std::lock_guard<std::mutex> lock(gMutex);
        if (gIsKept) gLines.emplace_back(line);
        reactions = gReactions;
    }
    for (const auto& [part, action] : reactions)
        if (strstr(line, part.c_str()) != nullptr) action();
    errno = error;
    return 1;
}
