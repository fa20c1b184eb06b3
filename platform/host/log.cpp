// The log off the handset: one line a message, in the form of logcat's threadtime, on the standard
// error that the process was started with or in the file that QUILLOD_LOG_FILE names.
//
// A line may come from any thread and from a signal handler: nothing here locks or allocates, and
// what calls share is atomic or set before main.
#include <android/log.h>

#include <cutils/properties.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

namespace {

constexpr size_t kLineMax = 4096;  // PIPE_BUF: a pipe takes a line of this size whole or not at all
constexpr int kFullPipePatienceMs = 20;
constexpr int64_t kLevelLifeMs = 1000;
constexpr char kLevelLetters[] = "??VDIWEFS";  // by android_LogPriority

std::atomic<int> gLogFd{-1};         // above 2; -1: silent
std::atomic<bool> gDropping{false};  // the pipe was full: do not wait for it with the next line
int64_t gUtcOffset = 0;  // seconds; set before main, a later change of the zone is not followed

struct ErrnoKeeper {
    ~ErrnoKeeper() { errno = saved; }
    const int saved = errno;
};

// ---- The descriptor ----

// A pipe or terminal is opened anew where the system allows it: O_NONBLOCK on the inherited
// descriptor would be seen by its other holders.
int OpenSink() {
    constexpr int kFlags = O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
    const char* path = getenv("QUILLOD_LOG_FILE");
    if (path != nullptr && path[0] != '\0') return open(path, kFlags | O_CREAT | O_APPEND, 0644);
    struct stat info {};
    if (fstat(STDERR_FILENO, &info) != 0 || S_ISREG(info.st_mode)) return -1;
    return open("/proc/self/fd/2", kFlags);
}

// Before the static initialisers of the rest, which may log.
__attribute__((constructor(101))) void OpenLog() {
    const time_t now = time(nullptr);
    tm local{};
    if (localtime_r(&now, &local) != nullptr) gUtcOffset = local.tm_gmtoff;
    const int fd = OpenSink();
    gLogFd = fcntl(fd >= 0 ? fd : STDERR_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    if (fd >= 0) close(fd);
}

// Looks before it writes: a full sink whose descriptor could not be opened anew would block, and
// one without a reader would raise SIGPIPE, whose handler logs.
int WriteLine(const char* line, size_t len) {
    const int fd = gLogFd;
    if (fd < 0) return -1;
    pollfd sink{fd, POLLOUT, 0};
    const bool ready = poll(&sink, 1, gDropping ? 0 : kFullPipePatienceMs) > 0;
    gDropping = !ready;
    if (!ready) return -1;
    const bool broken = (sink.revents & (POLLERR | POLLHUP)) != 0;
    const ssize_t written = broken ? -1 : write(fd, line, len);
    if (broken || (written < 0 && errno == EPIPE)) gLogFd = -1;
    return written == static_cast<ssize_t>(len) ? static_cast<int>(len) : -1;
}

// ---- The level ----

constexpr int kLevelUnset = ANDROID_LOG_UNKNOWN;

// The level found for one tag. A slot that is taken stays with its tag.
struct LevelSlot {
    std::atomic<const char*> tag{nullptr};  // the caller's pointer: tags are literals
    std::atomic<int> level{kLevelUnset};
    std::atomic<int64_t> dueMs{0};  // next look at the properties, CLOCK_MONOTONIC_COARSE
};
LevelSlot gLevelSlots[4];

LevelSlot* FindSlot(const char* tag) {
    for (LevelSlot& slot : gLevelSlots) {
        const char* owner = slot.tag;
        if (owner == nullptr && slot.tag.compare_exchange_strong(owner, tag)) return &slot;
        if (strcmp(owner, tag) == 0) return &slot;
    }
    return nullptr;
}

int ReadLevel(const char* tag) {
    char tagKey[128];
    snprintf(tagKey, sizeof(tagKey), "log.tag.%s", tag);
    for (const char* key : {static_cast<const char*>(tagKey), "log.tag"}) {
        char value[PROPERTY_VALUE_MAX];
        if (property_get(key, value, "") == 0) continue;
        const char* letter = strchr(kLevelLetters + ANDROID_LOG_VERBOSE, value[0]);
        if (letter != nullptr) return static_cast<int>(letter - kLevelLetters);
    }
    return kLevelUnset;
}

// One caller looks, the others go on with the level that was found before.
int LevelOf(const char* tag) {
    LevelSlot* slot = FindSlot(tag);
    if (slot == nullptr) return ReadLevel(tag);
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
    const int64_t nowMs = int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000;
    int64_t dueMs = slot->dueMs;
    if (nowMs >= dueMs && slot->dueMs.compare_exchange_strong(dueMs, nowMs + kLevelLifeMs)) {
        slot->level = ReadLevel(tag);
    }
    return slot->level;
}

// ---- The line ----

constexpr int kSecondsPerDay = 86400;

struct MonthDay {
    int month;  // 1 to 12
    int day;    // 1 to 31
};

// The date that lies days after 1970-01-01, until 2099. localtime_r takes a lock.
constexpr MonthDay DateOf(int64_t days) {
    constexpr int kMonthDays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    constexpr int kDaysFrom1968 = 366 + 365;
    constexpr int kDaysOf4Years = 4 * 365 + 1;
    auto day = static_cast<int>((days + kDaysFrom1968) % kDaysOf4Years);
    for (int month = 0;; ++month) {
        const int length = kMonthDays[month % 12] + (month == 1 ? 1 : 0);  // the first year is leap
        if (day < length) return {month % 12 + 1, day + 1};
        day -= length;
    }
}
static_assert(DateOf(11016).day == 29 && DateOf(11017).month == 3);  // 2000-02-29
static_assert(DateOf(20088).day == 31 && DateOf(20089).month == 1);  // 2024-12-31

size_t PutHeader(char (&line)[kLineMax], int prio, const char* tag) {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    const int64_t seconds = now.tv_sec + gUtcOffset;
    const MonthDay date = DateOf(seconds / kSecondsPerDay);
    const auto ofDay = static_cast<int>(seconds % kSecondsPerDay);
    const int len = snprintf(
        line, sizeof(line), "%02d-%02d %02d:%02d:%02d.%03d %5d %5d %c %s: ", date.month, date.day,
        ofDay / 3600, ofDay / 60 % 60, ofDay % 60, static_cast<int>(now.tv_nsec / 1000000),
        getpid(), gettid(), kLevelLetters[prio], tag);
    return std::min(static_cast<size_t>(len), kLineMax - 1);
}

// A message is one line: newlines at its end go, others become blanks. Returns the line's new end.
char* FlattenText(char* text, char* end) {
    while (end != text && end[-1] == '\n')
        --end;
    std::replace(text, end, '\n', ' ');
    return end;
}

}  // namespace

int __android_log_is_loggable(int prio, const char* tag, int defaultPrio) {
    if (gLogFd < 0) return 0;
    const ErrnoKeeper keepErrno;
    const int level = LevelOf(tag);
    return prio >= (level == kLevelUnset ? defaultPrio : level) ? 1 : 0;
}

int __android_log_print(int prio, const char* tag, const char* fmt, ...) {
    if (gLogFd < 0) return -1;
    if (__android_log_is_loggable(prio, tag, ANDROID_LOG_UNKNOWN) == 0) return 1;

    const ErrnoKeeper keepErrno;
    char line[kLineMax];
    char* const text = line + PutHeader(line, prio, tag);
    va_list args;
    va_start(args, fmt);
    const int wanted = vsnprintf(text, static_cast<size_t>(line + kLineMax - text), fmt, args);
    va_end(args);
    if (wanted < 0) return -1;
    char* end = FlattenText(text, std::min(text + wanted, line + kLineMax - 1));
    *end++ = '\n';
    return WriteLine(line, static_cast<size_t>(end - line));
}
