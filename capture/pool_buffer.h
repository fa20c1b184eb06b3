// The pool that keeps a connection's captured data until flash has taken it.
#pragma once

#include <pthread.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>

#include "capture/log_files.h"

// A ring of 50 slots of 16384 bytes between one producer, which fills a slot with Read, and the
// pool's own writer thread, which stores full slots, one write each.
//
// Construct, Read any number of times on one thread, then, once the producer has stopped, Exit and
// Join; then delete. The writer thread runs WriteThread and all of capture/log_files.
//
// One mutex, mIndexMutex, guards the indices and the exit request; both conditions are tested and
// waited for under it. It is never held while a slot is filled or stored.
class PoolBuffer {
    using Clock = std::chrono::steady_clock;

  public:
    // logFiles: where the writer thread stores; outlives the object.
    explicit PoolBuffer(LogFiles& logFiles = LogFiles::GetInstance());
    PoolBuffer(const PoolBuffer&) = delete;
    PoolBuffer& operator=(const PoolBuffer&) = delete;
    virtual ~PoolBuffer();

    // Queues data[0, len), len positive, cut to 16384 bytes. Waits while all slots are full.
    // Returns the bytes taken, or 0 once exit was requested or when nothing can be stored.
    int Read(const char* data, int len);

    // Whether Read would take data without waiting. Producer's thread.
    bool HasSpace();

    // Asks the writer thread to store what is queued and to end. Returns 0.
    int Exit();

    // Waits until the writer thread has stored everything, closed the files and ended.
    void Join();

    // Stores one slot. Writer thread.
    void LogToDevice(const char* data, int len);

  private:
    static constexpr int kSlots = 50;
    static constexpr int kSlotSize = 16384;  // bytes

    static void* ThreadStart(void* pool);
    static int Next(int index) { return index == kSlots - 1 ? 0 : index + 1; }
    bool IsFull() const { return Next(mReadIndex) == mWriteIndex; }
    int FreeSlots() const { return (mWriteIndex - mReadIndex - 1 + kSlots) % kSlots; }
    bool IsStorable();
    bool WaitForSpace(std::unique_lock<std::mutex>& lock);
    bool FindSlot(std::unique_lock<std::mutex>& lock, int len);
    void WriteThread();
    void StoreSlot(int index);
    bool IsReadToBeWoken() const;
    void StoreFullSlots();

    LogFiles& mLogFiles;  // writer thread
    pthread_t mThread = {};
    bool mThreadRuns = false;      // to be joined; producer's thread
    bool mHasSlots = false;        // set by the constructor
    bool mSaidUnstorable = false;  // producer only

    // The slot being filled belongs to the producer alone, full slots to the writer alone until it
    // moves mWriteIndex past them.
    char* mBuffer[kSlots];         // null where there was no memory; such slots are passed over
    int32_t mLength[kSlots] = {};  // bytes filled

    std::mutex mIndexMutex;
    int32_t mReadIndex = 0;              // slot being filled; mIndexMutex
    int32_t mWriteIndex = 0;             // slot stored next; mIndexMutex
    int32_t mExit = 0;                   // 1 once exit was requested; mIndexMutex
    Clock::time_point mReadWaitsSince;   // the clock's beginning: it does not; mIndexMutex
    std::condition_variable mDataCond;   // a full slot or an exit request; with mIndexMutex
    std::condition_variable mSpaceCond;  // a slot emptied or an exit request; with mIndexMutex
};
