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

constexpr int kSendTries = 5;
constexpr std::chrono::milliseconds kSendRetryPause(5);
constexpr std::chrono::milliseconds kReadyPause(2);
constexpr char kFlag = static_cast<char>(kHdlcFlag);

bool IsBlocking(int flags) {
    return flags >= 0 && (flags & O_NONBLOCK) == 0;
}

}  // namespace

// Writes as a port in blocking mode would, but waits only as StartWaits allows, anew with each
// progress, for which requests without an answer leave an answer's time. Returns the bytes written,
// or -1 with errno when there were none.
int LogMask::WriteWaiting(const char* data, int len) {
    const int flags = fcntl(mDiagFd, F_GETFL, 0);
    fcntl(mDiagFd, F_SETFL, flags | O_NONBLOCK);
    int done = 0;
    int error = 0;
    auto stalledSince = Deadline::Clock::now();
    bool wasReady = false;
    while (done < len) {
        const ssize_t n = mLine.WriteRequest(mDiagFd, data + done, static_cast<size_t>(len - done));
        if (n > 0) {
            done += static_cast<int>(n);
            stalledSince = Deadline::Clock::now();
            wasReady = false;
            continue;
        }
        error = n < 0 ? errno : 0;
        if (error != EAGAIN) break;
        const Deadline end(std::min(mDeadline.At(), stalledSince + mInVain));
        // Ready, but took nothing all the same.
        if (wasReady) std::this_thread::sleep_until(end.Within(kReadyPause).At());
        wasReady = WaitFor(mDiagFd, POLLOUT, end);
        if (wasReady && !end.HasPassed()) continue;
        mInVain -= std::min(Deadline::Clock::now() - stalledSince, mInVain);
        break;
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
    if (mLine.IsWithinFrame() && data[0] != kFlag && SendFrame(&kFlag, 1) == -1) return -1;
    return SendFrame(data, len);
}

// Tries to send one frame. Returns 1, or -1 with an error line.
int LogMask::SendFrame(const char* data, int len) {
    const bool blocking = IsBlocking(fcntl(mDiagFd, F_GETFL, 0));
    for (int attempt = 0; attempt < kSendTries; ++attempt) {
        const int n =
            blocking
                ? WriteWaiting(data, len)
                : static_cast<int>(mLine.WriteRequest(mDiagFd, data, static_cast<size_t>(len)));
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
        std::this_thread::sleep_until(mDeadline.Within(kSendRetryPause).At());
    }
    return -1;
}

// Reads behind a request until its answer has come; waits as StartWaits allows.
void LogMask::ReadReplies(const char* request, int len, bool isTraced) {
    mReplies.Expect(request, len);
    if (!mReplies.IsAnswerExpected()) return;
    const auto since = Deadline::Clock::now();
    const Deadline::Clock::duration left = mInVain - std::min(mInVain, mAnswerLimit);
    const Deadline end(std::min(mDeadline.At(), since + std::min(mAnswerLimit, left)));
    const int flags = fcntl(mDiagFd, F_GETFL, 0);
    fcntl(mDiagFd, F_SETFL, flags | O_NONBLOCK);
    // Without an answer in time the last read mostly finds nothing, and says so. A modem that never
    // pauses is always ready.
    mHasAnswer = false;
    bool isReady = true;
    while (!mHasAnswer && isReady) {
        isReady = mDiagFd != -1 && WaitFor(mDiagFd, POLLIN, end) && !end.HasPassed();
        if ((isTraced ? DiagDataReadForDisableLog() : DiagDataRead()) < 1) break;
    }
    fcntl(mDiagFd, F_SETFL, flags);
    if (!mHasAnswer) mInVain -= std::min(Deadline::Clock::now() - since, left);
}

// One read of the port into area, without waiting. Returns the bytes read, or -1 with an error
// line.
int LogMask::ReadOnce(char (&area)[kDiagAreaSize]) {
    if (mDiagFd == -1) {
        LIB_LOGE(" FTM port not opened");
        return -1;
    }
    const auto n = static_cast<int>(read(mDiagFd, area, sizeof(area)));
    if (n <= 0) {
        LIB_LOGE(" Failed to read any data from FTM port,cout_read_bytes=%d", n);
        return -1;
    }
    mBeginsReply = !mReplies.IsWithinFrame();
    mHasAnswer = mReplies.Take(area, n);
    return n;
}

int LogMask::DiagDataRead() {
    char area[kDiagAreaSize];
    const int n = ReadOnce(area);
    const auto isTimeStamp = [&](int at) {
        return static_cast<unsigned char>(area[at]) == kCmdTimeStamp;
    };
    if (n < 1) return n;
    if (mBeginsReply && isTimeStamp(0)) {
        KeepTimeStamp(area, n);
        return n;
    }
    // A busy modem's logs stand around it.
    int last = 0;
    int lastEnd = 0;
    for (int at = 0, end = 0; at < n; at = end) {
        const char* const flag = FindFrameEnd(area + at, area + n);
        if (flag == nullptr) break;
        end = static_cast<int>(flag - area) + 1;
        if (at == 0 || !isTimeStamp(at)) continue;
        last = at;
        lastEnd = end;
    }
    if (last > 0) KeepTimeStamp(area + last, lastEnd - last);
    return n;
}

// Without the beginning of another frame behind it.
void LogMask::KeepTimeStamp(const char* data, int len) {
    LIB_LOGD(" Suessfully read data from FTM port,and bytes=%d", len);
    const void* const lastFlag = memrchr(data, kHdlcFlag, static_cast<size_t>(len));
    if (lastFlag != nullptr) len = static_cast<int>(static_cast<const char*>(lastFlag) - data) + 1;
    memcpy(mTimeStamp, data, static_cast<size_t>(len));
    mTimeStampLen = len;
}

int LogMask::DropRestOfReply(char* data, int len) {
    if (!mReplies.IsWithinFrame()) return len;
    const char* const flag = FindFrameEnd(data, data + len);
    if (flag == nullptr) return 0;
    mReplies.Reset();
    const auto rest = static_cast<int>(data + len - (flag + 1));
    memmove(data, flag + 1, static_cast<size_t>(rest));
    return rest;
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
        if (readReplies != 0) ReadReplies(request.frame, request.len, true);
    }
    return 1;
}
