#include "buffer/block_queue.h"

#include <cstdlib>

#include "platform/tagged_log.h"

void BlockQueue::Allocate() {
    for (int i = 0; i < kBlocks; ++i) {
        mBlocks[i] = static_cast<char*>(malloc(kBlockSize));
        if (mBlocks[i] == nullptr) LIB_LOGE("CircularBufferExt init i=%d fail", i);
    }
}

void BlockQueue::Free() {
    for (char*& block : mBlocks) {
        free(block);
        block = nullptr;
    }
}

bool BlockQueue::HasFreeBlock() {
    const std::lock_guard<std::mutex> lock(mIndexMutex);
    return !IsFull();
}

BlockQueue::Wait BlockQueue::WaitForFreeBlock(std::chrono::milliseconds limit) {
    std::unique_lock<std::mutex> lock(mIndexMutex);
    const auto isOver = [this] { return mIsStopped || mIsProcessReadThreadExit != 0; };
    mSpaceCond.wait_for(lock, limit, [&] { return !IsFull() || isOver(); });
    if (!IsFull()) return Wait::kReady;
    return isOver() ? Wait::kNever : Wait::kNotYet;
}

BlockQueue::Wait BlockQueue::WaitUntilEmpty(std::chrono::milliseconds limit) {
    std::unique_lock<std::mutex> lock(mIndexMutex);
    mSpaceCond.wait_for(lock, limit, [this] { return IsEmpty() || mIsProcessReadThreadExit != 0; });
    if (IsEmpty()) return Wait::kReady;
    return mIsProcessReadThreadExit != 0 ? Wait::kNever : Wait::kNotYet;
}

void BlockQueue::Push(int len) {
    mBlockSizes[mReadIndex] = len;
    {
        const std::lock_guard<std::mutex> lock(mIndexMutex);
        mReadIndex = Next(mReadIndex);
    }
    mDataCond.notify_one();  // who is woken needs the lock
}

BlockQueue::Work BlockQueue::WaitForWork() {
    std::unique_lock<std::mutex> lock(mIndexMutex);
    mDataCond.wait(lock, [this] { return !IsEmpty() || mIsStopped || mIsWriteRequested; });
    if (mIsWriteRequested) {
        mIsWriteRequested = false;
        return Work::kWrite;
    }
    return IsEmpty() ? Work::kStop : Work::kBlock;
}

void BlockQueue::FreeOldest() {
    mBlockSizes[mWriteIndex] = 0;
    {
        const std::lock_guard<std::mutex> lock(mIndexMutex);
        mWriteIndex = Next(mWriteIndex);
    }
    mSpaceCond.notify_one();  // who is woken needs the lock
}

void BlockQueue::EndConsuming() {
    const std::lock_guard<std::mutex> lock(mIndexMutex);
    mIsProcessReadThreadExit = 1;
    mSpaceCond.notify_one();
}

void BlockQueue::RequestWrite() {
    const std::lock_guard<std::mutex> lock(mIndexMutex);
    mIsWriteRequested = true;
    mDataCond.notify_one();
}

void BlockQueue::Stop() {
    const std::lock_guard<std::mutex> lock(mIndexMutex);
    mIsStopped = true;
    mDataCond.notify_one();
    mSpaceCond.notify_one();
}

void BlockQueue::WakeConsumer() {
    const std::lock_guard<std::mutex> lock(mIndexMutex);
    mDataCond.notify_one();
}
