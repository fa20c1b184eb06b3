// A process whose log the platform tests read: the log takes its descriptor before main.
#include <android/log.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>

// Logs the text at every level under both tags, so many times. The exit status is 0, or tells that
// errno was changed, or that a line was reported as lost.
int main(int, char** argv) {
    alarm(20);  // ends a process that blocks on its log
    for (int i = 0; i < 12 * std::stoi(argv[2]); ++i) {
        const char* const tag = i / 6 % 2 == 0 ? "quillod" : "libquillod";
        errno = EXDEV;
        if (__android_log_print(ANDROID_LOG_VERBOSE + i % 6, tag, "%s", argv[1]) < 0) return 2;
        if (errno != EXDEV) return 1;
    }
    return 0;
}
