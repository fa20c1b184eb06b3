// The processing thread of the modem-to-tool direction, and the shutdown of either.
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <thread>

#include "base/log_switch.h"
#include "base/relay_wakeup.h"
#include "buffer/circular_buffer_ext.h"
#include "platform/tagged_log.h"

namespace {

constexpr useconds_t kExitPollUs = 1000;

}  // namespace

void CircularBufferExt::StartProcessing() {
    mModem->queue.Allocate();
    const int res = pthread_create(&mModem->thread, nullptr, ThreadProcessReadDataStart, this);
    if (res != 0) {
        LIB_LOGE("Create ThreadProcessReadDataStart fails, res: %d, errno: %d", res, errno);
        // The relay works on while capture is off and ends the connection once it is on.
        mThreadExitCode = -res;
        mModem->queue.EndConsuming();
        return;
    }
    mModem->isThreadJoinable = true;
}

void* CircularBufferExt::ThreadProcessReadDataStart(void* self) {
    static_cast<CircularBufferExt*>(self)->ProcessReadDataThread();
    return nullptr;
}

void CircularBufferExt::ProcessReadDataThread() {
    LIB_LOGD("%s, CircularBufferExt: create ProcessReadDataThread", mName);
    BlockQueue& queue = mModem->queue;
    for (;;) {
        const BlockQueue::Work work = queue.WaitForWork();
        if (work == BlockQueue::Work::kStop) break;
        if (work == BlockQueue::Work::kBlock) ProcessOldest();
        if (work == BlockQueue::Work::kWrite) WriteToTool();
        // The relay may have forgotten a stall meanwhile, but not the share that was lost by it.
        int exitCode = mModem->toolLoss;
        if (exitCode == 0) exitCode = mThreadExitCode;
        if (exitCode <= 0) {
            LIB_LOGE("CircularBufferExt: Exit ProcessReadDataThread");
            LIB_LOGE("%s, CircularBufferExt: ProcessReadDataThread mThreadExitCode =%d  \n", mName,
                     exitCode);
            queue.EndConsuming();
            mThreadExitCode = exitCode;
            WakeRelay();
            return;
        }
    }
    LIB_LOGE("Exit CircularBufferExt: ProcessReadDataThread");
    LIB_LOGE("%s, CircularBufferExt: ProcessReadDataThread: exit, mStop: %d", mName, mStop.load());
    queue.EndConsuming();
}

// Routes the oldest block between tool and flash.
void CircularBufferExt::ProcessBlock() {
    char* const block = mModem->queue.Oldest();
    const int len = mModem->queue.OldestSize();
    LIB_LOGD("%s, process mWriteIndex: %d, size: %d", mName, mModem->queue.OldestIndex(), len);
    if (gLogEnable != 0) {
        ParseReadData(block, block + len);
    } else {
        mModem->splitter.PassRaw(block, len);
    }
    if (!mModem->splitter.Counts().IsBalanced()) {
        LIB_LOGE("Data number is not equal, please check the code");
        LogCounts(ANDROID_LOG_ERROR);
    }
}

void CircularBufferExt::ProcessOldest() {
    ProcessBlock();
    WriteToTool();
    mModem->queue.FreeOldest();
}

void CircularBufferExt::LogCounts(int priority) const {
    const ByteCounts& counts = mModem->splitter.Counts();
    __android_log_print(priority, kLibTag,
                        "ReadDataFromBP:%u, SavedToFlash:%u, WriteToAP:%u, "
                        "mTotalLengthForLogDataWriteToAp: %d",
                        static_cast<uint32_t>(counts.mTotalLengthForReadDataFromBP),
                        static_cast<uint32_t>(counts.mTotalLengthForSavedToFlash),
                        static_cast<uint32_t>(counts.mTotalLengthForReadDataWriteToAP),
                        static_cast<int32_t>(counts.mTotalLengthForLogDataWriteToAp));
}

// Waits until the processing thread has ended.
int CircularBufferExt::IsThreadExit() {
    BlockQueue& queue = mModem->queue;
    LIB_LOGD("mIsReadThreadExit: %d", 1);
    for (int poll = 0; queue.IsProcessReadThreadExit() == 0; ++poll) {
        if (poll == 40 || poll == 50) queue.WakeConsumer();
        usleep(kExitPollUs);
    }
    LIB_LOGD("mIsProcessReadThreadExit: %d", queue.IsProcessReadThreadExit());
    return 1;
}

// Takes what the modem still sends, so that it is not relayed.
void CircularBufferExt::DrainModem() {
    const Deadline deadline = mEnd.load().Within(mLimits.drain);
    while (mLogMask->DiagDataRead() > 0 && !deadline.HasPassed()) {
    }
}

// The modem-to-tool part of CloseProcess that the switch must not change under.
void CircularBufferExt::StopCapture() {
    IsThreadExit();
    if (mModem->isThreadJoinable) pthread_join(mModem->thread, nullptr);
    mModem->isThreadJoinable = false;
    // What a thread that ended for an error has left belongs to flash all the same.
    while (mModem->queue.WaitUntilEmpty(std::chrono::milliseconds(0)) != BlockQueue::Wait::kReady)
        ProcessOldest();
    if (mLogEnableAtStart != 0) {
        std::this_thread::sleep_until(mEnd.load().Within(mLimits.lastLogsPause).At());
        DrainModem();
        mModem->pool->Exit();
    } else {
        mModem->pool->Exit();
        DrainModem();
    }
}

int CircularBufferExt::CloseProcess() {
    LIB_LOGD("%s, CloseProcess Enter", mName);
    if (mEnd.load().IsNever()) EndBy(Deadline::In(mLimits.end));
    mStop = 1;
    if (mIsDataFromBP) mModem->queue.Stop();
    pthread_mutex_lock(&gLogEnableMutex);
    if (mIsDataFromBP) StopCapture();
    pthread_mutex_unlock(&gLogEnableMutex);
    if (mIsDataFromBP) {
        // The capture is complete on flash before the next connection begins its own.
        mModem->pool->Join();
        mModem->pool.reset();
        if (!mModem->splitter.Counts().IsBalanced()) {
            LIB_LOGE("Data number is not equal, please check the code");
        }
        LogCounts(ANDROID_LOG_DEBUG);
        LIB_LOGD("CircularBufferExt: free buffer \n");
        mModem->queue.Free();
    }
    LIB_LOGD("%s, CloseProcess Exit", mName);
    return 1;
}
