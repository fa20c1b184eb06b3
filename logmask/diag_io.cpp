// Sends to and reads from the modem's port, with bounded waits.
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <thread>

#include "logmask/log_mask.h"
#include "platform/hex_trace.h"
#include "platform/tagged_log.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kSendTries = 5;
constexpr useconds_t kSendRetryPauseUs = 5000;
constexpr std::chrono::milliseconds kReadyPause(2);
// A reply that comes in time costs this share of its wait: a modem that answers surely, but slowly,
// is heard out, and still cannot hold the daemon longer than so many times the budget.
constexpr int kReplyCostDivisor = 2;
constexpr char kFlag = static_cast<char>(kHdlcFlag);

bool IsBlocking(int flags) {
    return flags >= 0 && (flags & O_NONBLOCK) == 0;
}

}  // namespace

// Waits for the port as far as the budget allows, and takes the wait off it. Returns whether the
// port is ready, or has failed.
bool LogMask::WaitFor(short events) {
    const auto start = Clock::now();
    const auto deadline = start + mWaitBudget;
    int ready = 0;
    do {
        const auto left = std::max<Clock::duration>(deadline - Clock::now(), Clock::duration(0));
        const auto seconds = std::chrono::floor<std::chrono::seconds>(left);
        const timespec limit = {seconds.count(), std::chrono::nanoseconds(left - seconds).count()};
        pollfd entry = {mDiagFd, events, 0};
        ready = ppoll(&entry, 1, &limit, nullptr);
    } while (ready < 0 && errno == EINTR);
    const auto waited = std::min<std::chrono::nanoseconds>(Clock::now() - start, mWaitBudget);
    mWaitBudget -= ready > 0 && events == POLLIN ? waited / kReplyCostDivisor : waited;
    return ready > 0;
}

// Sleeps at the cost of the budget.
void LogMask::Rest(std::chrono::nanoseconds pause) {
    std::this_thread::sleep_for(pause);
    mWaitBudget -= std::min(pause, mWaitBudget);
}

// Writes as a port in blocking mode would, but only as long as the wait budget lasts. Returns the
// bytes written, or -1 with errno when there were none.
int LogMask::WriteWithinBudget(const char* data, int len) {
    const int flags = fcntl(mDiagFd, F_GETFL, 0);
    fcntl(mDiagFd, F_SETFL, flags | O_NONBLOCK);
    int done = 0;
    int error = 0;
    bool wasReady = false;
    while (done < len) {
        const ssize_t n = write(mDiagFd, data + done, static_cast<size_t>(len - done));
        if (n > 0) {
            done += static_cast<int>(n);
            wasReady = false;
            continue;
        }
        error = n < 0 ? errno : 0;
        if (error != EAGAIN) break;
        // Ready, but took nothing all the same: that costs, too.
        if (wasReady) Rest(kReadyPause);
        wasReady = WaitFor(POLLOUT) && mWaitBudget.count() > 0;
        if (!wasReady) break;
    }
    fcntl(mDiagFd, F_SETFL, flags);
    errno = error;
    return done > 0 || error == 0 ? done : -1;
}

int LogMask::DiagDataSend(const char* data, int len) {
    errno = 0;
    if (data == nullptr || len < 1 || mDiagFd == -1) {
        LIB_LOGE("Paras is invalid, please check ");
        return -1;
    }
    if (mIsWithinFrame && data[0] != kFlag && SendFrame(&kFlag, 1) == -1) return -1;
    return SendFrame(data, len);
}

// Tries to send one frame. Returns 1, or -1 with an error line.
int LogMask::SendFrame(const char* data, int len) {
    const bool blocking = IsBlocking(fcntl(mDiagFd, F_GETFL, 0));
    for (int attempt = 0; attempt < kSendTries; ++attempt) {
        const int n = blocking ? WriteWithinBudget(data, len)
                               : static_cast<int>(write(mDiagFd, data, static_cast<size_t>(len)));
        if (n > 0) mIsWithinFrame = data[n - 1] != kFlag;
        if (n == len) return 1;
        if (n >= 0) {
            LIB_LOGE(" Failed to write FTM, Only wrote %d bytes", n);
            return -1;
        }
        if (errno != EAGAIN || blocking) {
            LIB_LOGE(" Failed to write FTM, erron = %d", errno);
            return -1;
        }
        LIB_LOGE("DiagDataSend send fail, retry");
        HexTrace(data, len);
        usleep(kSendRetryPauseUs);
    }
    return -1;
}

// One read of the port into area, waited for as far as the budget allows when the port is in
// blocking mode. Returns the bytes read, or -1 with an error line.
int LogMask::ReadOnce(char (&area)[kDiagAreaSize]) {
    if (mDiagFd == -1) {
        LIB_LOGE(" FTM port not opened");
        return -1;
    }
    const int flags = fcntl(mDiagFd, F_GETFL, 0);
    const bool blocking = IsBlocking(flags);
    int n = -1;
    if (!blocking || WaitFor(POLLIN)) {
        // Not in blocking mode: readiness is a promise that nobody has to keep.
        if (blocking) fcntl(mDiagFd, F_SETFL, flags | O_NONBLOCK);
        n = static_cast<int>(read(mDiagFd, area, sizeof(area)));
        if (blocking) fcntl(mDiagFd, F_SETFL, flags);
    }
    if (n <= 0) {
        LIB_LOGE(" Failed to read any data from FTM port,cout_read_bytes=%d", n);
        return -1;
    }
    return n;
}

int LogMask::DiagDataRead() {
    char area[kDiagAreaSize];
    const int n = ReadOnce(area);
    if (n > 0 && static_cast<unsigned char>(area[0]) == kCmdTimeStamp) {
        LIB_LOGD(" Suessfully read data from FTM port,and bytes=%d", n);
        memcpy(mTimeStamp, area, static_cast<size_t>(n));
        mTimeStampLen = n;
    }
    return n;
}

int LogMask::DiagDataReadForDisableLog() {
    char area[kDiagAreaSize];
    const int n = ReadOnce(area);
    if (n > 0) {
        LIB_LOGD(" Suessfully read data from FTM port,and bytes=%d", n);
        HexTraceEnds(area, n);
    }
    return n;
}

int LogMask::DisableLog(int readReplies) {
    // Complete frames: log configuration 0x73, operation 0; extended message configuration 0x7D
    // with all masks cleared; event reports 0x60 off.
    static constexpr struct {
        const char* name;
        const char* frame;
        int len;
    } kRequests[] = {
        {"disableLoggingcfgOff", "\x73\x00\x00\x00\x00\x00\x00\x00\xDA\x81\x7E", 11},
        {"DisableExtMSGMask", "\x7D\x5D\x05\x00\x00\x00\x00\x00\x00\x74\x41\x7E", 12},
        {"DisableEventMask", "\x60\x00\x12\x6A\x7E", 5},
    };
    for (const auto& request : kRequests) {
        const int ret = DiagDataSend(request.frame, request.len);
        LIB_LOGD("%s ret: %d", request.name, ret);
        if (readReplies != 0) DiagDataReadForDisableLog();
    }
    return 1;
}
