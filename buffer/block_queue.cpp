// The block queue: the modem's bytes on their way from the relay thread to the processing thread.
#include <unistd.h>

#include <cerrno>
#include <chrono>

#include "buffer/circular_buffer_ext.h"
#include "platform/tagged_log.h"

namespace {

// A modem that never pauses must not hold the relay thread: the tool's requests, the switch and the
// link are served between the calls.
constexpr int kBlocksPerCall = 16;
// Nor must a tool or a flash that takes nothing.
constexpr auto kWaitLimit = std::chrono::milliseconds(50);

}  // namespace

// Waits, for a moment, until the block at mReadIndex can be filled.
CircularBufferExt::FreeBlockWait CircularBufferExt::WaitForFreeBlock() {
    std::unique_lock<std::mutex> lock(mIndexMutex);
    const auto isFree = [this] { return NextBlock(mReadIndex) != mWriteIndex; };
    if (!isFree()) {
        if (!mIsQueueFull) {
            lock.unlock();  // the processing thread must not wait for a log line
            LIB_LOGE("%s, CircularBufferExt: Read wait cond as buffer is FULL ", mName);
            lock.lock();
        }
        mIsQueueFull = !mSpaceCond.wait_for(lock, kWaitLimit, [&] {
            return isFree() || mStop != 0 || mIsProcessReadThreadExit != 0;
        });
        if (mIsQueueFull) return FreeBlockWait::kNotYet;
        if (mStop != 0 || mIsProcessReadThreadExit != 0) return FreeBlockWait::kNever;
    }
    mIsQueueFull = false;
    return FreeBlockWait::kFree;
}

// Waits, for a moment, until all queued blocks have been handled. Returns 1, or -EAGAIN when they
// are not yet, -EIO when they never will be: the processing thread has ended.
int CircularBufferExt::WaitForEmptyQueue() {
    std::unique_lock<std::mutex> lock(mIndexMutex);
    const auto isEmpty = [this] { return mReadIndex == mWriteIndex; };
    mSpaceCond.wait_for(lock, kWaitLimit,
                        [&] { return isEmpty() || mIsProcessReadThreadExit != 0; });
    if (isEmpty()) return 1;
    return mIsProcessReadThreadExit != 0 ? -EIO : -EAGAIN;
}

// Hands the block at mReadIndex, filled with len bytes, to the processing thread.
void CircularBufferExt::QueueBlock(int len) {
    mBlockSizes[mReadIndex] = len;
    LIB_LOGD("%s: Current size: %d for index: %d", mName, len, mReadIndex);
    {
        const std::lock_guard<std::mutex> lock(mIndexMutex);
        mReadIndex = NextBlock(mReadIndex);
    }
    mDataCond.notify_one();  // who is woken needs the lock
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
    int total = 0;
    for (int taken = 0; taken < kBlocksPerCall; ++taken) {
        const FreeBlockWait wait = WaitForFreeBlock();
        if (wait == FreeBlockWait::kNever) return 1;
        if (wait == FreeBlockWait::kNotYet) return total > 0 ? total : -EAGAIN;
        // Only this thread moves mReadIndex.
        char* const block = mBlocks[mReadIndex];
        if (block == nullptr) return FailRead(ENOMEM);
        const auto n = static_cast<int>(read(mReadFd, block, kBlockSize - 1));
        if (n == 0) return 0;
        if (n < 0) return errno == EAGAIN ? total : FailRead(errno);
        if (mIsCurrentConfigLogMask != 0) {
            LIB_LOGD("%s: mIsCurrentConfigLogMask: %d, continue", mName, mIsCurrentConfigLogMask);
            continue;
        }
        total += n;
        QueueBlock(n);
    }
    return total;
}
