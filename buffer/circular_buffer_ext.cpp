#include "buffer/circular_buffer_ext.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "base/log_switch.h"
#include "base/relay_wakeup.h"
#include "diag/diag_commands.h"
#include "diag/hdlc.h"
#include "platform/tagged_log.h"

namespace {

constexpr int kTimeStampSize = 256;
// A modem that never pauses must not hold the relay thread: the tool's requests, the switch and the
// link are served between the calls.
constexpr int kBlocksPerCall = 16;

}  // namespace

// Every capture begins with the modem's last time-stamp reply.
CircularBufferExt::ModemSide::ModemSide(CircularBufferExt& direction, LogFiles& logFiles)
    : splitter(direction.mRequests, direction.mLogMask->LogPacketEnable(), direction) {
    char timeStamp[kTimeStampSize];
    const int len = direction.mLogMask->GetTimeStamp(timeStamp, sizeof(timeStamp));
    pool = std::make_unique<PoolBuffer>(logFiles);
    if (len >= 1) pool->Read(timeStamp, len);
}

CircularBufferExt::CircularBufferExt(char* buffer, unsigned long size, const char* name,
                                     int& readFd, int& writeFd, const Surroundings& surroundings)
    : mRing(buffer, size),
      mName(name),
      mIsDataFromBP(strstr(name, "AP <-- BP") != nullptr),
      mReadFd(readFd),
      mWriteFd(writeFd),
      mLimits(surroundings.limits),
      mRequests(surroundings.requests),
      mLogMask(&surroundings.logMask),
      mLogEnableAtStart(gLogEnable) {
    if (mIsDataFromBP) mModem = std::make_unique<ModemSide>(*this, surroundings.logFiles);
    LIB_LOGD("%s: CircularBufferExt init start", mName);
    if (mIsDataFromBP) StartProcessing();
}

// ---- Reading ----

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
        const BlockQueue::Wait wait = mModem->queue.WaitUntilEmpty(mLimits.queueWait);
        if (wait == BlockQueue::Wait::kNotYet) return -EAGAIN;
        // The tool's stream does not go on behind a gap.
        if (wait == BlockQueue::Wait::kNever || mModem->droppedBytes > 0) return -EIO;
        mModem->splitter.ReleaseHeld();
    }
    const auto readSpan = [&](char* at, unsigned long room) -> ssize_t {
        ssize_t n = read(fd, at, room);
        if (n <= 0) return n;
        if (mIsDataFromBP) n = mLogMask->DropRestOfReply(at, static_cast<int>(n));
        if (n == 0) {
            errno = EAGAIN;  // no end of the stream
            return -1;
        }
        if (BeginsHdlcDisable(at, n)) {
            if (mIsDataFromBP) {
                at[0] = static_cast<char>(kCmdBad);
            } else {
                at[4] = static_cast<char>(kDisarmedHdlcDisableByte);
            }
        }
        if (mIsDataFromBP) mModem->splitter.NoteRawBytes(at[n - 1]);
        return n;
    };
    int total = 0;
    while (!IsFull()) {
        const ssize_t n = mRing.ReadSpan(readSpan);
        if (n == 0) return 0;
        if (n < 0) return -errno;
        total += static_cast<int>(n);
        LIB_LOGD("%s: read %d bytes:", mName, static_cast<int>(n));
    }
    // What was released may have filled the ring: no end of the stream.
    return total > 0 ? total : -EAGAIN;
}

// Capture on, from the tool: through ParseReadData.
int CircularBufferExt::ReadExt(int fd) {
    char scratch[kDiagAreaSize];
    const unsigned long room =
        std::min<unsigned long>(mRing.MaxBytes() - NumBytes(), sizeof(scratch) - 1);
    unsigned long got = 0;
    int result = -EAGAIN;  // a full ring is no end of the stream
    while (got < room) {
        const ssize_t n = read(fd, scratch + got, room - got);
        if (n <= 0) {
            result = n == 0 ? 0 : -errno;
            break;
        }
        got += static_cast<unsigned long>(n);
        if (got == room) result = static_cast<int>(got);
    }
    if (got > 0) ParseReadData(scratch, scratch + got);
    return result;
}

// Waits, for a moment, until a block can be filled.
BlockQueue::Wait CircularBufferExt::WaitForFreeBlock() {
    if (!mModem->queue.HasFreeBlock() && !mModem->isQueueFull) {
        LIB_LOGE("%s, CircularBufferExt: Read wait cond as buffer is FULL ", mName);
    }
    const BlockQueue::Wait wait = mModem->queue.WaitForFreeBlock(mLimits.queueWait);
    mModem->isQueueFull = wait == BlockQueue::Wait::kNotYet;
    return wait;
}

// The modem port cannot be read: the relay learns of it through mThreadExitCode.
int CircularBufferExt::FailRead(int error) {
    constexpr int kResult = -1;
    LIB_LOGE("length: %d, errno: %d", kResult, error);
    mThreadExitCode = kResult;
    LIB_LOGE("Exit ReadThread");
    LIB_LOGE("%s, CircularBufferExt: ReadThread mThreadExitCode =%d  \n", mName, kResult);
    return 1;
}

// Capture on, from the modem: into the block queue.
int CircularBufferExt::ReadVersionForThread() {
    BlockQueue& queue = mModem->queue;
    int total = 0;
    bool hasDropped = false;  // what is no end of the stream
    for (int taken = 0; taken < kBlocksPerCall; ++taken) {
        const BlockQueue::Wait wait = WaitForFreeBlock();
        if (wait == BlockQueue::Wait::kNever) return 1;
        if (wait == BlockQueue::Wait::kNotYet) return total > 0 ? total : -EAGAIN;
        char* const block = queue.FreeBlock();
        if (block == nullptr) return FailRead(ENOMEM);
        auto n = static_cast<int>(read(mReadFd, block, BlockQueue::kBlockSize - 1));
        if (n == 0) return 0;
        if (n < 0 && errno != EAGAIN) return FailRead(errno);
        if (n < 0) return total == 0 && hasDropped ? -EAGAIN : total;
        n = mLogMask->DropRestOfReply(block, n);
        hasDropped = hasDropped || n == 0;
        if (n == 0) continue;
        if (mIsCurrentConfigLogMask != 0) {
            LIB_LOGD("%s: mIsCurrentConfigLogMask: %d, continue", mName, mIsCurrentConfigLogMask);
            continue;
        }
        total += n;
        LIB_LOGD("%s: Current size: %d for index: %d", mName, n, queue.FreeBlockIndex());
        queue.Push(n);
    }
    return total == 0 && hasDropped ? -EAGAIN : total;
}

int CircularBufferExt::ParseReadData(char* begin, char* end) {
    if (mIsDataFromBP) {
        mModem->splitter.ParseReadData(begin, end);
        return 1;
    }
    // Only the start of a chunk is looked at.
    if (BeginsSetLogMask(begin, end - begin)) {
        ParseAPSetLogMask(begin, end);
        return 1;
    }
    if (BeginsHdlcDisable(begin, end - begin)) {
        LIB_LOGD("Disable HDLC not expected: 0x%x, 0x%x", 0x18, 0x2);
        begin[4] = static_cast<char>(kDisarmedHdlcDisableByte);
    }
    CopyDataToBuffer(begin, static_cast<int>(end - begin));
    return 1;
}

// Takes the chunk [start, end), which is one set-log-mask request of the tool, and puts what must
// go on to the modem into the ring.
void CircularBufferExt::ParseAPSetLogMask(char* start, char* end) {
    const auto len = static_cast<int>(end - start);
    const int equipment_id = mRequests.Record(start, len);
    if (equipment_id != -1) {
        char configured[kDiagAreaSize];
        const int configuredLen =
            mLogMask->GetSetLogMaskDiagCmd(configured, equipment_id, kDiagAreaSize);
        char write_buf[kDiagAreaSize];
        const int writeLen = mRequests.Merge(equipment_id, configured, configuredLen, write_buf);
        if (writeLen > 0) {
            CopyDataToBuffer(write_buf, writeLen);
            return;
        }
    }
    CopyDataToBuffer(start, len);
}

// ---- Writing ----

// One write of the ring's oldest span, at most limit bytes. As Ring::WriteSpan.
bool CircularBufferExt::WriteSpan(int fd, ssize_t& written, unsigned long limit) {
    const bool isAny = mRing.WriteSpan(written, limit, [&](const char* at, unsigned long len) {
        return mIsDataFromBP ? write(fd, at, len) : mLogMask->Line().WriteTool(fd, at, len);
    });
    if (!isAny) return false;
    if (written < 0 && errno == EAGAIN) NoteRefusal();
    if (written > 0) {
        mRefusedSince = 0;
        if (mIsStalledWhileLogOff.exchange(false)) ForgetStall();
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
    if (mIsDataFromBP && mModem->queue.IsProcessReadThreadExit() != 0) mThreadExitCode = -EAGAIN;
}

// Writes until the ring is empty. pauses: between the tries on a descriptor that takes nothing.
int CircularBufferExt::WriteAll(int fd, WritePauses pauses) {
    int total = 0;
    ssize_t n = 0;
    while (WriteSpan(fd, n, mRing.MaxBytes())) {
        if (n == 0) return 0;
        if (n > 0) {
            total += static_cast<int>(n);
            LIB_LOGD("%s: wrote %d bytes:", mName, static_cast<int>(n));
            pauses.NoteProgress();
            continue;
        }
        const int error = errno;
        if (error == EAGAIN && pauses.Pause(fd)) continue;
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
    return WriteAll(fd, {WritePauses::Kind::kWrite, mLimits, mEnd});
}

int CircularBufferExt::Flush(int fd) {
    const ScopedNonBlocking nonBlocking(fd);
    const int result = WriteAll(fd, {WritePauses::Kind::kFlush, mLimits, mEnd});
    const bool hasDropped =
        mIsDataFromBP && mModem->toolLoss == -EAGAIN && mModem->droppedBytes > 0;
    if (result == -EAGAIN || hasDropped) {
        LIB_LOGE("%s: flush given up, %lu bytes left", mName,
                 NumBytes() + (hasDropped ? mModem->droppedBytes : 0));
    }
    return result;
}

bool CircularBufferExt::WriteWholeFrames(int fd, const Deadline& deadline) {
    unsigned long left = mRing.NumBytesUpTo(kHdlcFlag);
    ssize_t n = 0;
    while (left > 0 && WriteSpan(fd, n, left)) {
        if (n > 0) {
            LIB_LOGD("%s: wrote %d bytes:", mName, static_cast<int>(n));
            left -= static_cast<unsigned long>(n);
            continue;
        }
        if (n == 0 || errno != EAGAIN || deadline.HasPassed()) break;
        WaitFor(fd, POLLOUT, deadline);
    }
    return !mLogMask->Line().IsWithinFrame();
}

bool CircularBufferExt::CopyDataToBuffer(const char* src, int len) {
    if (mRing.Append(src, static_cast<unsigned long>(len))) return true;
    LIB_LOGE("CopyDataToBuffer fail, Please check the code, NumBytes: %d, MaxBytes: %d",
             static_cast<int>(NumBytes()), static_cast<int>(mRing.MaxBytes()));
    return false;
}

// Appends the tool's share, writing the ring out when it has no room behind a long answer. What is
// dropped counts as taken: it is told at the end.
int CircularBufferExt::ToTool(const char* data, int len) {
    const auto most = static_cast<int>(mRing.MaxBytes());
    int taken = 0;
    for (int done = 0; done < len;) {
        const int piece = std::min(len - done, most);
        const auto isFull = [&] {
            return NumBytes() + static_cast<unsigned long>(piece) > mRing.MaxBytes();
        };
        while (isFull() && mModem->toolLoss == 0)
            WriteToTool();
        if (mModem->toolLoss != 0) {
            mModem->droppedBytes += static_cast<unsigned long>(len - done);
            return taken + len - done;
        }
        if (CopyDataToBuffer(data + done, piece)) taken += piece;
        done += piece;
    }
    return taken;
}

int CircularBufferExt::ToFlash(const char* data, int len) {
    // The tool's share does not wait for the flash.
    if (!mModem->pool->HasSpace()) WriteToTool();
    return mModem->pool->Read(data, len);
}

// Writes the tool's share; only until a write has failed, since the next would, too. The relay
// learns of it at once.
void CircularBufferExt::WriteToTool() {
    if (IsEmpty() || mModem->toolLoss != 0) return;
    mModem->toolLoss = std::min(Write(mWriteFd), 0);
    if (mModem->toolLoss != 0) WakeRelay();
}

void CircularBufferExt::RequestWrite() {
    mModem->queue.RequestWrite();
}

bool CircularBufferExt::IsDataFromBPAndLogEnable() const {
    return mIsDataFromBP && gLogEnable == 1;
}

int CircularBufferExt::SetConfigLogMaskStaus(int status) {
    mIsCurrentConfigLogMask = status;
    return 1;
}
