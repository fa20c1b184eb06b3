// A process whose log the log tests read: the log takes its descriptor before main, so each case
// needs a fresh one. The exit status is 0 or tells which check failed.
#include <android/log.h>
#include <fcntl.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <string>
#include <thread>

namespace {

std::atomic<int> gSignals{0};

void LogIds(int signal) {
    if (signal != 0) ++gSignals;
    __android_log_print(ANDROID_LOG_DEBUG, "child", "%5d %5d", getpid(), gettid());
}

// Two threads log while a handler interrupts them with lines of its own.
int Storm() {
    signal(SIGPROF, LogIds);
    const itimerval everyMillisecond{{0, 1000}, {0, 1000}};
    setitimer(ITIMER_PROF, &everyMillisecond, nullptr);
    const auto work = [] {
        for (int i = 0; i < 2000 || gSignals < 20; ++i)
            LogIds(0);
    };
    std::thread other(work);
    work();
    other.join();
    return 0;
}

// Reads its own log, but only when that is full, and goes on logging without a reader.
int FillAndBreak(int reader, int writer) {
    const auto write = [](int count) {
        int written = 0;
        for (int i = 0; i < count; ++i)
            written += __android_log_print(ANDROID_LOG_DEBUG, "child", "%0100d", i) > 0 ? 1 : 0;
        return written;
    };
    const auto readAll = [reader] {
        std::string log(1 << 20, '\0');
        if (read(reader, log.data(), log.size()) < 0) log.clear();
        return std::count(log.begin(), log.end(), '\n');
    };
    signal(SIGPIPE, LogIds);
    errno = EXDEV;
    const int written = write(3000);
    if (errno != EXDEV || written < 20 || written == 3000 || readAll() != written) return 20;
    if (write(1) != 1 || readAll() != 1) return 21;
    if ((fcntl(writer, F_GETFL) & O_NONBLOCK) != 0) return 22;
    close(reader);
    if (write(3) != 0 || gSignals != 0) return 23;
    return __android_log_is_loggable(ANDROID_LOG_FATAL, "child", 0) == 0 ? 0 : 24;
}

}  // namespace

int main(int, char** argv) {
    alarm(20);  // ends a process that blocks on its log
    int own = 0;
    for (int fd = STDERR_FILENO + 1; fd < 256; ++fd)
        own += fcntl(fd, F_GETFD) == FD_CLOEXEC ? 1 : 0;
    if (own != 1) return 1;
    const int input = dup(STDIN_FILENO);
    const int error = dup(STDERR_FILENO);
    for (int fd = 0; fd <= STDERR_FILENO; ++fd) {  // as the daemon does
        close(fd);
        if (open("/dev/null", O_RDWR) != fd) return 2;
    }
    const std::string text = argv[1];
    if (text == "storm") return Storm();
    if (text == "fill-and-break") return FillAndBreak(input, error);
    for (const char* tag : {"quillod", "libquillod"}) {
        for (int prio = ANDROID_LOG_VERBOSE; prio <= ANDROID_LOG_FATAL; ++prio)
            __android_log_print(prio, tag, "%s", text.c_str());
    }
    return 0;
}
