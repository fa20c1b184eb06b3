// The processing thread of the modem-to-tool direction, and the shutdown of either.
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>

#include "buffer/circular_buffer_ext.h"
#include "capture/pool_buffer.h"
#include "daemon/log_switch.h"
#include "daemon/relay_wakeup.h"
#include "platform/tagged_log.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kTimeStampSize = 256;
constexpr useconds_t kExitPollUs = 1000;
constexpr useconds_t kLastLogsPauseUs = 350000;
// A modem that never stops sending must not hold the end of a connection.
constexpr auto kDrainLimit = std::chrono::milliseconds(500);

}  // namespace

// Every capture begins with the modem's last time-stamp reply.
void CircularBufferExt::StartPool() {
    char timeStamp[kTimeStampSize];
    const int len = mLogMask->GetTimeStamp(timeStamp, sizeof(timeStamp));
    mPoolBuffer = new PoolBuffer;
    if (len >= 1) mPoolBuffer->Read(timeStamp, len);
}

void CircularBufferExt::StartProcessing() {
    for (int i = 0; i < kBlocks; ++i) {
        mBlocks[i] = static_cast<char*>(malloc(kBlockSize));
        if (mBlocks[i] == nullptr) LIB_LOGE("CircularBufferExt init i=%d fail", i);
    }
    const int res = pthread_create(&mProcessThread, nullptr, ThreadProcessReadDataStart, this);
    if (res != 0) {
        LIB_LOGE("Create ThreadProcessReadDataStart fails, res: %d, errno: %d", res, errno);
        // The relay works on while capture is off and ends the connection once it is on.
        mThreadExitCode = -res;
        mIsProcessReadThreadExit = 1;
        return;
    }
    mIsProcessThreadJoinable = true;
}

void* CircularBufferExt::ThreadProcessReadDataStart(void* self) {
    static_cast<CircularBufferExt*>(self)->ProcessReadDataThread();
    return nullptr;
}

CircularBufferExt::Work CircularBufferExt::WaitForWork() {
    std::unique_lock<std::mutex> lock(mIndexMutex);
    mDataCond.wait(lock,
                   [this] { return mReadIndex != mWriteIndex || mStop != 0 || mIsWriteRequested; });
    if (mIsWriteRequested) {
        mIsWriteRequested = false;
        return Work::kWrite;
    }
    return mReadIndex != mWriteIndex ? Work::kBlock : Work::kStop;
}

void CircularBufferExt::ProcessReadDataThread() {
    LIB_LOGD("%s, CircularBufferExt: create ProcessReadDataThread", mName);
    for (;;) {
        const Work work = WaitForWork();
        if (work == Work::kStop) break;
        // Only this thread moves mWriteIndex.
        if (work == Work::kBlock) ProcessBlock(mWriteIndex);
        if (!IsEmpty()) Write(mWriteFd);
        const int exitCode = mThreadExitCode;
        if (exitCode <= 0) {
            LIB_LOGE("CircularBufferExt: Exit ProcessReadDataThread");
            LIB_LOGE("%s, CircularBufferExt: ProcessReadDataThread mThreadExitCode =%d  \n", mName,
                     exitCode);
            EndProcessing();
            mThreadExitCode = exitCode;  // the relay may have forgotten a stall meanwhile
            WakeRelay();
            return;
        }
        if (work == Work::kBlock) FreeBlock();
    }
    LIB_LOGE("Exit CircularBufferExt: ProcessReadDataThread");
    LIB_LOGE("%s, CircularBufferExt: ProcessReadDataThread: exit, mStop: %d", mName, mStop.load());
    EndProcessing();
}

// Routes one block between tool and flash.
void CircularBufferExt::ProcessBlock(int index) {
    const int len = mBlockSizes[index];
    LIB_LOGD("%s, process mWriteIndex: %d, size: %d", mName, index, len);
    mTotalLengthForReadDataFromBP += static_cast<uint64_t>(len);
    if (gLogEnable != 0) {
        ParseReadData(mBlocks[index], mBlocks[index] + len);
    } else {
        PassRaw(mBlocks[index], len);
    }
    if (!IsCountBalanced()) {
        LIB_LOGE("Data number is not equal, please check the code");
        LogCounts(ANDROID_LOG_ERROR);
    }
    mBlockSizes[index] = 0;
}

// Lets the relay thread fill the block just handled again.
void CircularBufferExt::FreeBlock() {
    {
        const std::lock_guard<std::mutex> lock(mIndexMutex);
        mWriteIndex = NextBlock(mWriteIndex);
    }
    mSpaceCond.notify_one();  // who is woken needs the lock
}

// The last act of the processing thread; nobody may go on waiting for it.
void CircularBufferExt::EndProcessing() {
    const std::lock_guard<std::mutex> lock(mIndexMutex);
    mIsProcessReadThreadExit = 1;
    mSpaceCond.notify_one();
}

void CircularBufferExt::RequestWrite() {
    const std::lock_guard<std::mutex> lock(mIndexMutex);
    mIsWriteRequested = true;
    mDataCond.notify_one();
}

bool CircularBufferExt::IsDataFromBPAndLogEnable() const {
    return mIsDataFromBP && gLogEnable == 1;
}

int CircularBufferExt::SetConfigLogMaskStaus(int status) {
    mIsCurrentConfigLogMask = status;
    return 1;
}

bool CircularBufferExt::IsCountBalanced() const {
    return mTotalLengthForReadDataWriteToAP + mTotalLengthForSavedToFlash -
               mTotalLengthForLogDataWriteToAp ==
           mTotalLengthForReadDataFromBP;
}

void CircularBufferExt::LogCounts(int priority) const {
    __android_log_print(priority, kLibTag,
                        "ReadDataFromBP:%u, SavedToFlash:%u, WriteToAP:%u, "
                        "mTotalLengthForLogDataWriteToAp: %d",
                        static_cast<uint32_t>(mTotalLengthForReadDataFromBP),
                        static_cast<uint32_t>(mTotalLengthForSavedToFlash),
                        static_cast<uint32_t>(mTotalLengthForReadDataWriteToAP),
                        static_cast<int32_t>(mTotalLengthForLogDataWriteToAp));
}

// Waits until the processing thread has ended.
int CircularBufferExt::IsThreadExit() {
    mIsReadThreadExit = 1;
    LIB_LOGD("mIsReadThreadExit: %d", 1);
    for (int poll = 0; mIsProcessReadThreadExit == 0; ++poll) {
        if (poll == 40 || poll == 50) {
            const std::lock_guard<std::mutex> lock(mIndexMutex);
            mDataCond.notify_one();
        }
        usleep(kExitPollUs);
    }
    LIB_LOGD("mIsProcessReadThreadExit: %d", mIsProcessReadThreadExit.load());
    return 1;
}

// Takes what the modem still sends, so that it is not relayed.
void CircularBufferExt::DrainModem() {
    const auto deadline = Clock::now() + kDrainLimit;
    while (mLogMask->DiagDataRead() > 0 && Clock::now() < deadline) {
    }
}

// The modem-to-tool part of CloseProcess that the switch must not change under.
void CircularBufferExt::StopCapture() {
    IsThreadExit();
    if (mIsProcessThreadJoinable) pthread_join(mProcessThread, nullptr);
    mIsProcessThreadJoinable = false;
    if (mLogEnableAtStart != 0) {
        usleep(kLastLogsPauseUs);
        DrainModem();
        mPoolBuffer->Exit();
    } else {
        mPoolBuffer->Exit();
        DrainModem();
    }
}

int CircularBufferExt::CloseProcess() {
    LIB_LOGD("%s, CloseProcess Enter", mName);
    {
        const std::lock_guard<std::mutex> lock(mIndexMutex);
        mStop = 1;
        mDataCond.notify_one();
        mSpaceCond.notify_one();
    }
    pthread_mutex_lock(&gLogEnableMutex);
    if (mIsDataFromBP) StopCapture();
    pthread_mutex_unlock(&gLogEnableMutex);
    if (mIsDataFromBP) {
        // The capture is complete on flash before the next connection begins its own.
        mPoolBuffer->Join();
        delete mPoolBuffer;
        mPoolBuffer = nullptr;
        if (!IsCountBalanced()) LIB_LOGE("Data number is not equal, please check the code");
        LogCounts(ANDROID_LOG_DEBUG);
        LIB_LOGD("CircularBufferExt: free buffer \n");
        for (char*& block : mBlocks) {
            free(block);
            block = nullptr;
        }
    }
    LIB_LOGD("%s, CloseProcess Exit", mName);
    return 1;
}
