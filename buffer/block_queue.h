// 400 blocks of bytes on their way from one thread to another. Knows memory alone, its lock and its
// conditions.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>

// One producer fills the free block and queues it; one consumer takes the oldest block and frees
// it. Blocks from mWriteIndex up to mReadIndex belong to the consumer, the one at mReadIndex to the
// producer. mIndexMutex guards the indices and the requests; both conditions are tested and waited
// for under it.
class BlockQueue {
  public:
    static constexpr int kBlocks = 400;      // at most one less is queued
    static constexpr int kBlockSize = 4096;  // bytes allocated; one less is used

    BlockQueue() = default;
    BlockQueue(const BlockQueue&) = delete;
    BlockQueue& operator=(const BlockQueue&) = delete;
    ~BlockQueue() { Free(); }

    // Gets the memory, once, before the threads start; a block without it gets an error line and
    // stays null. Free gives it back, once they have ended.
    void Allocate();
    void Free();

    // ---- The producer's side ----

    enum class Wait {
        kReady,
        kNotYet,  // the limit is over
        kNever,   // nobody frees blocks any more
    };
    // Waits until there is a free block.
    Wait WaitForFreeBlock(std::chrono::milliseconds limit);
    // Waits until all queued blocks have been freed.
    Wait WaitUntilEmpty(std::chrono::milliseconds limit);

    bool HasFreeBlock();
    int FreeBlockIndex() const { return mReadIndex; }
    // The free block, null without memory. Only when there is one.
    char* FreeBlock() const { return mBlocks[mReadIndex]; }
    // Queues the free block, which holds len bytes.
    void Push(int len);

    // ---- The consumer's side ----

    enum class Work { kBlock, kWrite, kStop };
    // Waits for a block, a write request or a stop; a stop comes behind all blocks.
    Work WaitForWork();

    int OldestIndex() const { return mWriteIndex; }
    char* Oldest() const { return mBlocks[mWriteIndex]; }
    int OldestSize() const { return mBlockSizes[mWriteIndex]; }
    void FreeOldest();
    // The consumer ends: nobody waits for it any more.
    void EndConsuming();

    // ---- Any thread ----

    void RequestWrite();  // work without a block
    void Stop();
    void WakeConsumer();
    // 1 after EndConsuming, before 0.
    int IsProcessReadThreadExit() const { return mIsProcessReadThreadExit; }

  private:
    static int Next(int index) { return index == kBlocks - 1 ? 0 : index + 1; }
    bool IsFull() const { return Next(mReadIndex) == mWriteIndex; }
    bool IsEmpty() const { return mReadIndex == mWriteIndex; }

    std::mutex mIndexMutex;
    char* mBlocks[kBlocks] = {};     // null where there was no memory
    int mBlockSizes[kBlocks] = {};   // bytes held, 0 when free
    int mReadIndex = 0;              // block filled next; moved under mIndexMutex by the producer
    int mWriteIndex = 0;             // block handled next; moved under mIndexMutex by the consumer
    bool mIsWriteRequested = false;  // mIndexMutex
    bool mIsStopped = false;         // mIndexMutex
    std::atomic<int> mIsProcessReadThreadExit{0};  // written under mIndexMutex
    std::condition_variable mDataCond;   // a block, a write request or a stop; with mIndexMutex
    std::condition_variable mSpaceCond;  // a block freed, a stop, or the end; with mIndexMutex
};
