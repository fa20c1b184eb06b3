#include "capture/pool_buffer.h"

#include <chrono>
#include <cstdlib>
#include <cstring>

#include "platform/tagged_log.h"

namespace {

// A producer that waits is woken for many slots at once, as waking it costs more than storing one;
// but not so late that the tool, whose bytes pass through the same hands, notices. The limit is
// looked at after each store.
constexpr int kSlotsPerWakeup = 40;
constexpr auto kWakeupLimit = std::chrono::milliseconds(2);

}  // namespace

PoolBuffer::PoolBuffer(LogFiles& logFiles) : mLogFiles(logFiles) {
    LIB_LOGD("PoolBuffer init start");
    for (int i = 0; i < kSlots; ++i) {
        mBuffer[i] = static_cast<char*>(malloc(kSlotSize));
        if (mBuffer[i] == nullptr) {
            LIB_LOGE("PoolBuffer init i=%d fail", i);
        } else {
            mHasSlots = true;
        }
    }
    mThreadRuns = pthread_create(&mThread, nullptr, ThreadStart, this) == 0;
}

PoolBuffer::~PoolBuffer() {
    LIB_LOGD("PoolBuffer deinit start");
    Exit();
    Join();
    for (char* slot : mBuffer)
        free(slot);
}

// Whether there is anywhere to put data; says so once when there is not.
bool PoolBuffer::IsStorable() {
    if (mThreadRuns && mHasSlots) return true;
    if (!mSaidUnstorable) LIB_LOGE("PoolBuffer: no writer thread or no memory, nothing is stored");
    mSaidUnstorable = true;
    return false;
}

// Waits until the pool is not full. False when exit was requested.
bool PoolBuffer::WaitForSpace(std::unique_lock<std::mutex>& lock) {
    if (mExit == 1) return false;
    if (!IsFull()) return true;
    lock.unlock();  // the writer must not wait for a log line
    LIB_LOGE("PoolBuffer: Read wait cond");
    lock.lock();
    mReadWaitsSince = Clock::now();
    mSpaceCond.wait(lock, [this] { return !IsFull() || mExit == 1; });
    mReadWaitsSince = {};
    return mExit == 0;
}

// Makes mReadIndex name a slot with room for len bytes. False when exit was requested.
bool PoolBuffer::FindSlot(std::unique_lock<std::mutex>& lock, int len) {
    while (mBuffer[mReadIndex] == nullptr || mLength[mReadIndex] + len > kSlotSize) {
        if (IsFull() && !WaitForSpace(lock)) return false;
        mReadIndex = Next(mReadIndex);
        mDataCond.notify_one();
    }
    return true;
}

int PoolBuffer::Read(const char* data, int len) {
    if (!IsStorable()) return 0;
    std::unique_lock<std::mutex> lock(mIndexMutex);
    if (!WaitForSpace(lock)) return 0;
    if (len > kSlotSize) {
        LIB_LOGE("PoolBuffer: Read too long, length =%d", len);
        len = kSlotSize;
    }
    if (!FindSlot(lock, len)) return 0;
    const int slot = mReadIndex;  // only this thread moves it
    lock.unlock();
    memcpy(mBuffer[slot] + mLength[slot], data, static_cast<size_t>(len));
    mLength[slot] += len;
    return len;
}

bool PoolBuffer::HasSpace() {
    const std::lock_guard<std::mutex> lock(mIndexMutex);
    return !IsFull();
}

int PoolBuffer::Exit() {
    LIB_LOGD("PoolBuffer Exit");
    const std::lock_guard<std::mutex> lock(mIndexMutex);
    mExit = 1;
    mDataCond.notify_one();
    mSpaceCond.notify_one();
    return 0;
}

void PoolBuffer::Join() {
    if (!mThreadRuns) return;
    pthread_join(mThread, nullptr);
    mThreadRuns = false;
}

void PoolBuffer::LogToDevice(const char* data, int len) {
    mLogFiles.Store(data, len);
}

void* PoolBuffer::ThreadStart(void* pool) {
    static_cast<PoolBuffer*>(pool)->WriteThread();
    return nullptr;
}

void PoolBuffer::StoreSlot(int index) {
    if (mLength[index] == 0) return;
    LogToDevice(mBuffer[index], mLength[index]);
    mLength[index] = 0;
}

// Whether Read waits and enough slots, or enough time, have passed.
bool PoolBuffer::IsReadToBeWoken() const {
    if (mReadWaitsSince == Clock::time_point()) return false;
    return FreeSlots() >= kSlotsPerWakeup || Clock::now() - mReadWaitsSince >= kWakeupLimit;
}

// Stores full slots as they come, until exit was requested and none is left.
void PoolBuffer::StoreFullSlots() {
    std::unique_lock<std::mutex> lock(mIndexMutex);
    for (;;) {
        mDataCond.wait(lock, [this] { return mReadIndex != mWriteIndex || mExit == 1; });
        if (mReadIndex == mWriteIndex) return;
        lock.unlock();
        StoreSlot(mWriteIndex);  // only this thread moves mWriteIndex
        lock.lock();
        mWriteIndex = Next(mWriteIndex);
        if (!IsReadToBeWoken()) continue;
        lock.unlock();  // who is woken needs it
        mSpaceCond.notify_one();
        lock.lock();
    }
}

void PoolBuffer::WriteThread() {
    mLogFiles.OpenRecordFile();
    StoreFullSlots();
    LIB_LOGD("PoolBuffer: thread stop");
    StoreSlot(mReadIndex);
    LIB_LOGD("PoolBuffer: exit write file=%s,size=%d", mLogFiles.Path(),
             static_cast<int>(mLogFiles.Size()));
    for (char*& slot : mBuffer) {
        free(slot);
        slot = nullptr;
    }
    mLogFiles.Close();
}
