// The ring of CircularBufferExt: what both directions use while capture is off.
#include <fcntl.h>
#include <poll.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <thread>
#include <utility>

#include "buffer/bounded_write.h"
#include "buffer/circular_buffer_ext.h"
#include "daemon/log_switch.h"
#include "diag/diag_commands.h"
#include "diag/hdlc.h"
#include "platform/tagged_log.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kWriteRetries = 1000;
constexpr auto kRetryPause = std::chrono::milliseconds(2);
constexpr unsigned long kLongSpan = 4096;  // as much as a tty's reader gets at once
constexpr auto kStallLimitAtEnd = std::chrono::milliseconds(700);
// A socket is reported writable only when a third of its buffer is free, but takes bytes before.
constexpr auto kFlushTryInterval = std::chrono::milliseconds(50);

// Returns whether fd became writable, or failed, until then.
bool WaitWritable(int fd, Clock::time_point until) {
    const auto left = std::max<Clock::duration>(until - Clock::now(), Clock::duration(0));
    const auto seconds = std::chrono::floor<std::chrono::seconds>(left);
    const timespec limit = {seconds.count(), std::chrono::nanoseconds(left - seconds).count()};
    pollfd entry = {fd, POLLOUT, 0};
    return ppoll(&entry, 1, &limit, nullptr) > 0;
}

// The pauses of one Write on a descriptor that takes nothing. Each ends at its time, however late
// the one before ended, so that all of them last 2 seconds on a busy machine, too.
class RetryPauses {
  public:
    // Whether a write may wait by itself, as far as the descriptor allows.
    static constexpr bool kMayWait = true;

    // isEnding: not 0 once the connection ends; then they last no longer than those of a flush.
    explicit RetryPauses(const std::atomic<int>& isEnding) : mIsEnding(isEnding) {}

    // Pauses before the next try; false when the tries are used up.
    bool Pause(int fd) {
        LIB_LOGE("write error, try again,retry_count: %d", mRetries);
        if (mRetries + mShortWrites >= kWriteRetries) return false;
        // Ready, but took nothing all the same: its readiness is no reason to try sooner.
        if (mWasReady) mTrustsReadiness = false;
        if (mIsMoving) mNextTry = mStalledSince = Clock::now();
        mIsMoving = false;
        if (mIsEnding != 0 && Clock::now() - mStalledSince >= kStallLimitAtEnd) return false;
        mNextTry += kRetryPause;
        mWasReady = mTrustsReadiness && WaitWritable(fd, mNextTry);
        if (!mTrustsReadiness) std::this_thread::sleep_until(mNextTry);
        if (mWasReady) mIsMoving = true;
        ++mRetries;
        return true;
    }

    // fd took bytes. When it did not take all, it is full: the next try would be in vain so soon.
    void NoteProgress(int fd, bool tookAll) {
        mIsMoving = true;
        mTrustsReadiness = true;
        mWasReady = false;
        if (tookAll || mRetries + mShortWrites >= kWriteRetries) return;
        ++mShortWrites;
        mWasReady = WaitWritable(fd, Clock::now() + kRetryPause);
    }

  private:
    int mRetries = 0;
    int mShortWrites = 0;  // waited for like a retry, in sum no longer
    const std::atomic<int>& mIsEnding;
    Clock::time_point mStalledSince;  // valid, as is the next, while fd takes nothing
    Clock::time_point mNextTry;
    bool mIsMoving = true;  // fd has just taken bytes, or may take some
    bool mWasReady = false;
    bool mTrustsReadiness = true;
};

// The waits of one Flush; the clock starts again with each progress.
class FlushWaits {
  public:
    static constexpr bool kMayWait = false;

    // refusedSince: as the ring's RefusedSince.
    explicit FlushWaits(Clock::time_point refusedSince) {
        if (refusedSince != Clock::time_point()) mLastProgress = refusedSince;
    }

    bool Pause(int fd) {
        const Clock::time_point now = Clock::now();
        const Clock::time_point end = mLastProgress + kStallLimitAtEnd;
        if (now >= end) return false;
        const bool isReady = WaitWritable(fd, std::min(end, now + kFlushTryInterval));
        // Ready, but took nothing all the same.
        if (isReady && mWasReady) std::this_thread::sleep_for(kRetryPause);
        mWasReady = isReady;
        return true;
    }

    void NoteProgress(int /*fd*/, bool /*tookAll*/) {
        mWasReady = false;
        mLastProgress = Clock::now();
    }

  private:
    Clock::time_point mLastProgress = Clock::now();
    bool mWasReady = false;
};

// Makes a descriptor non-blocking for its scope, without a line in the log.
class ScopedNonBlocking {
  public:
    explicit ScopedNonBlocking(int fd) : mFd(fd), mFlags(fcntl(fd, F_GETFL, 0)) {
        if (mFlags >= 0) fcntl(mFd, F_SETFL, mFlags | O_NONBLOCK);
    }
    ScopedNonBlocking(const ScopedNonBlocking&) = delete;
    ScopedNonBlocking& operator=(const ScopedNonBlocking&) = delete;
    ~ScopedNonBlocking() {
        if (mFlags >= 0) fcntl(mFd, F_SETFL, mFlags);
    }

  private:
    const int mFd;
    const int mFlags;
};

}  // namespace

CircularBufferExt::CircularBufferExt(char* buffer, unsigned long size, const char* name,
                                     int& readFd, int& writeFd)
    : mThreadExitCode(1),
      mRefusedSince(0),
      mIsStalledWhileLogOff(false),
      mBuffer(buffer),
      mBufferSize(size),
      mName(name),
      mHead(0),
      mTail(0),
      mNumBytes(0),
      mEndsOnFrame(true),
      mIsDataFromBP(strstr(name, "AP <-- BP") != nullptr),
      mReadFd(readFd),
      mWriteFd(writeFd),
      mIsWriteFdTty(!mIsDataFromBP && isatty(writeFd) == 1 && tcflow(writeFd, TCOON) == 0),
      mIsWholePakcetRead(true),
      mIsPrevWholePacketRead(true),
      mCurrentCmdCode(-1),
      mRunStart(nullptr),
      mIsToolLogPiece(false),
      mIsResponseIntercepted(false),
      m73CmdResponseBufferCurrentLength(0),
      mIsCurrentLogMaskCmdResponseNotCopyAgain(false),
      mPoolBuffer(nullptr),
      mLogMask(LogMask::GetInstance()),
      mTotalLengthForReadDataFromBP(0),
      mTotalLengthForSavedToFlash(0),
      mTotalLengthForReadDataWriteToAP(0),
      mTotalLengthForLogDataWriteToAp(0),
      mIsCurrentConfigLogMask(0),
      mLogEnableAtStart(gLogEnable),
      mProcessThread(),
      mIsProcessThreadJoinable(false),
      mIsReadThreadExit(0),
      mIsProcessReadThreadExit(0),
      mBlocks(),
      mBlockSizes(),
      mReadIndex(0),
      mWriteIndex(0),
      mStop(0),
      mIsQueueFull(false),
      mIsWriteRequested(false) {
    ResetLogPacket();
    if (mIsDataFromBP) StartPool();
    LIB_LOGD("%s: CircularBufferExt init start", mName);
    if (mIsDataFromBP) StartProcessing();
}

unsigned long CircularBufferExt::FreeSpanAtTail() const {
    if (mTail < mHead) return mHead - 1 - mTail;
    return mBufferSize - mTail - (mHead == 0 ? 1 : 0);
}

// One read into the free span at mTail. Returns what read returned, with errno.
ssize_t CircularBufferExt::ReadSpan(int fd) {
    const std::lock_guard<std::mutex> lock(mRingMutex);
    char* const at = mBuffer + mTail;
    const ssize_t n = read(fd, at, FreeSpanAtTail());
    if (n <= 0) return n;
    if (BeginsHdlcDisable(at, n)) {
        if (mIsDataFromBP) {
            at[0] = static_cast<char>(kCmdBad);
        } else {
            at[4] = static_cast<char>(kDisarmedHdlcDisableByte);
        }
    }
    if (mIsDataFromBP) NoteRawBytes(at[n - 1]);
    mTail += static_cast<unsigned long>(n);
    if (mTail == mBufferSize) mTail = 0;
    mNumBytes += static_cast<unsigned long>(n);
    return n;
}

int CircularBufferExt::Read(int fd) {
    pthread_mutex_lock(&gLogEnableMutex);
    const int32_t logEnable = gLogEnable;
    pthread_mutex_unlock(&gLogEnableMutex);
    if (logEnable == 0) return ReadDirect(fd);
    return mIsDataFromBP ? ReadVersionForThread() : ReadExt(fd);
}

// Capture off: straight into the ring.
int CircularBufferExt::ReadDirect(int fd) {
    if (mIsDataFromBP) {
        // What was queued before the switch went off is older than what is read now.
        const int result = WaitForEmptyQueue();
        if (result < 0) return result;
        ReleaseHeld();
    }
    int total = 0;
    while (!IsFull()) {
        const ssize_t n = ReadSpan(fd);
        if (n == 0) return 0;
        if (n < 0) return -errno;
        total += static_cast<int>(n);
        LIB_LOGD("%s: read %d bytes:", mName, static_cast<int>(n));
    }
    // What was released may have filled the ring: no end of the stream.
    return total > 0 ? total : -EAGAIN;
}

// Capture on, from the tool: through the splitter.
int CircularBufferExt::ReadExt(int fd) {
    char scratch[kDiagAreaSize];
    const unsigned long room =
        std::min<unsigned long>(MaxBytes() - NumBytes(), sizeof(scratch) - 1);
    unsigned long got = 0;
    int result = 0;
    while (got < room) {
        const ssize_t n = read(fd, scratch + got, room - got);
        if (n <= 0) {
            result = n == 0 ? 0 : -errno;
            break;
        }
        got += static_cast<unsigned long>(n);
        mTotalLengthForReadDataFromBP += static_cast<uint64_t>(n);
        if (got == room) result = static_cast<int>(got);
    }
    if (got > 0) ParseReadData(scratch, scratch + got);
    return result;
}

// One write of the contiguous span at mHead, at most limit bytes. It may wait for a moment only
// where this thread alone takes bytes out. Returns false when the ring is empty; otherwise written
// is what write returned, with errno.
bool CircularBufferExt::WriteSpan(int fd, ssize_t& written, unsigned long limit, bool mayWait) {
    std::unique_lock<std::mutex> lock(mRingMutex);
    if (mNumBytes == 0) return false;
    const unsigned long span = std::min(limit, (mTail > mHead ? mTail : mBufferSize) - mHead);
    const char* const head = mBuffer + mHead;
    if (mayWait && span >= kLongSpan) {
        lock.unlock();
        written = WriteBounded(fd, head, span);
        lock.lock();
    } else {
        written = write(fd, head, span);
    }
    if (written < 0 && errno == EAGAIN) NoteRefusal();
    if (written <= 0) return true;
    mRefusedSince = 0;
    mHead += static_cast<unsigned long>(written);
    mEndsOnFrame = static_cast<unsigned char>(mBuffer[mHead - 1]) == kHdlcFlag;
    mNumBytes -= static_cast<unsigned long>(written);
    if (mHead == mBufferSize) {
        mHead = 0;
    } else if (mHead == mTail) {
        mHead = mTail = 0;  // a drained ring starts again at the beginning of its storage
    }
    return true;
}

void CircularBufferExt::NoteRefusal() {
    if (mRefusedSince == 0) mRefusedSince = Clock::now().time_since_epoch().count();
}

// A stall is over. It is not forgotten once the processing thread has ended, perhaps for it.
void CircularBufferExt::ForgetStall() {
    int stall = -EAGAIN;
    if (!mThreadExitCode.compare_exchange_strong(stall, 1)) return;
    if (mIsProcessReadThreadExit != 0) mThreadExitCode = -EAGAIN;
}

// Writes until the ring is empty. waitForRoom paces the tries on a descriptor that takes nothing.
template <typename WaitForRoom>
int CircularBufferExt::WriteAll(int fd, WaitForRoom waitForRoom) {
    int total = 0;
    ssize_t n = 0;
    bool mayWait = WaitForRoom::kMayWait && mIsWriteFdTty;
    while (WriteSpan(fd, n, mBufferSize, std::exchange(mayWait, false))) {
        if (n == 0) return 0;
        if (n > 0) {
            total += static_cast<int>(n);
            LIB_LOGD("%s: wrote %d bytes:", mName, static_cast<int>(n));
            if (mIsStalledWhileLogOff.exchange(false)) ForgetStall();
            waitForRoom.NoteProgress(fd, IsEmpty());
            continue;
        }
        const int error = errno;
        if (error == EAGAIN && waitForRoom.Pause(fd)) continue;
        total = -error;
        break;
    }
    if (total < 0) {
        mThreadExitCode = total;
        mIsStalledWhileLogOff = total == -EAGAIN && gLogEnable == 0;
    }
    return total;
}

int CircularBufferExt::Write(int fd) {
    return WriteAll(fd, RetryPauses(mStop));
}

int CircularBufferExt::Flush(int fd) {
    const ScopedNonBlocking nonBlocking(fd);
    const int result = WriteAll(fd, FlushWaits(RefusedSince()));
    if (result == -EAGAIN) {
        LIB_LOGE("%s: flush given up, %lu bytes left", mName, NumBytes());
    }
    return result;
}

// Bytes in the ring up to and including its last 0x7E.
unsigned long CircularBufferExt::BytesOfWholeFrames() {
    const std::lock_guard<std::mutex> lock(mRingMutex);
    unsigned long count = NumBytes();
    while (count > 0) {
        const char last = mBuffer[(mHead + count - 1) % mBufferSize];
        if (static_cast<unsigned char>(last) == kHdlcFlag) break;
        --count;
    }
    return count;
}

bool CircularBufferExt::WriteWholeFrames(int fd, std::chrono::steady_clock::time_point deadline) {
    unsigned long left = BytesOfWholeFrames();
    ssize_t n = 0;
    while (left > 0 && WriteSpan(fd, n, left, false)) {
        if (n > 0) {
            LIB_LOGD("%s: wrote %d bytes:", mName, static_cast<int>(n));
            left -= static_cast<unsigned long>(n);
            continue;
        }
        if (n == 0 || errno != EAGAIN || Clock::now() >= deadline) break;
        WaitWritable(fd, deadline);
    }
    return mEndsOnFrame;
}

void CircularBufferExt::PutFrameEndFirst() {
    const std::lock_guard<std::mutex> lock(mRingMutex);
    if (mNumBytes == MaxBytes()) return;
    mHead = (mHead == 0 ? mBufferSize : mHead) - 1;
    mBuffer[mHead] = static_cast<char>(kHdlcFlag);
    ++mNumBytes;
}

void CircularBufferExt::CopyDataToBuffer(const char* src, int len) {
    const std::lock_guard<std::mutex> lock(mRingMutex);
    const unsigned long held = NumBytes();
    const auto count = static_cast<unsigned long>(len);
    if (held + count > MaxBytes()) {
        LIB_LOGE("CopyDataToBuffer fail, Please check the code, NumBytes: %d, MaxBytes: %d",
                 static_cast<int>(held), static_cast<int>(MaxBytes()));
        return;
    }
    const unsigned long untilEnd = std::min(count, mBufferSize - mTail);
    memcpy(mBuffer + mTail, src, untilEnd);
    memcpy(mBuffer, src + untilEnd, count - untilEnd);
    mTotalLengthForReadDataWriteToAP += count;
    mTail = (mTail + count) % mBufferSize;
    mNumBytes += count;
}
