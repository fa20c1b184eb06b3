// One relay direction of one connection: puts ring, queue, splitter, pool and thread together.
#pragma once

#include <pthread.h>
#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <memory>

#include "base/limits.h"
#include "buffer/block_queue.h"
#include "buffer/ring.h"
#include "buffer/stream_splitter.h"
#include "buffer/write_pauses.h"
#include "capture/log_files.h"
#include "capture/pool_buffer.h"
#include "diag/tool_log_requests.h"
#include "logmask/log_mask.h"

// What a direction shares with the rest of the process; a test hands in its own.
struct Surroundings {
    Limits limits;
    ToolLogRequests& requests = ToolLogRequests::GetInstance();
    LogFiles& logFiles = LogFiles::GetInstance();
    LogMask& logMask = *LogMask::GetInstance();
};

// "AP --> BP" carries the tool's bytes to the modem, "AP <-- BP" the modem's to the tool. The relay
// thread fills a buffer with Read and drains it with Write. While capture is on, the "AP <-- BP"
// object hands the modem's bytes to its processing thread, which splits them between the tool and
// the capture pool and writes the tool's share itself.
//
// No two locks of its parts are ever held together.
class CircularBufferExt {
    using Clock = std::chrono::steady_clock;

  public:
    // buffer: ring storage of size bytes, owned by the caller, which outlives the object, as do the
    // name and the two descriptor variables (-1 once the relay has closed one). A name containing
    // "AP <-- BP" makes it the modem-to-tool direction: that starts its processing thread and its
    // pool, so CloseProcess must be called before it goes away.
    CircularBufferExt(char* buffer, unsigned long size, const char* name, int& readFd, int& writeFd,
                      const Surroundings& surroundings = {});
    CircularBufferExt(const CircularBufferExt&) = delete;
    CircularBufferExt& operator=(const CircularBufferExt&) = delete;

    // Bytes held. One byte of the storage always stays free: at most size - 1.
    unsigned long NumBytes() const { return mRing.NumBytes(); }
    bool IsEmpty() const { return mRing.IsEmpty(); }
    bool IsFull() const { return mRing.IsFull(); }

    // Whether the processing thread writes this direction, so that the relay must not.
    bool IsDataFromBPAndLogEnable() const;

    // Reads from fd, which must not block, until it has no more or there is no more room. Returns
    // the bytes taken, -EAGAIN when fd was drained (bytes may have been taken), 0 at the end of the
    // stream, or minus errno. Relay thread.
    int Read(int fd);

    // Writes all the ring holds to fd, which must not block. Returns the bytes written, 0 when
    // there was nothing to write, -EAGAIN when fd took nothing for 1000 tries 2 ms apart, or minus
    // errno; a negative result is left in ThreadExitCode. Does not hold the ring's lock while it
    // waits for fd.
    int Write(int fd);

    // The connection ends: from now on all waits of this direction end at the deadline, and those
    // for a peer after 700 ms without progress. Any thread.
    void EndBy(const Deadline& deadline) { mEnd = deadline; }

    // Write for the end of a connection: waits for a descriptor that takes nothing, whatever its
    // blocking mode, as EndBy allows. -EAGAIN when it gave up, with one line that tells how many
    // bytes were not taken.
    int Flush(int fd);

    // "AP --> BP" only. Writes to fd, which must not block, what the ring holds up to its last
    // 0x7E; waits for fd until the deadline. Returns whether the modem's line is between frames.
    // Relay thread.
    bool WriteWholeFrames(int fd, const Deadline& deadline);

    // Appends len bytes to the ring or, when they do not fit, drops them all with an error line.
    // Returns whether they fitted. Any thread.
    bool CopyDataToBuffer(const char* src, int len);

    // When the write descriptor first refused bytes since it last took some; the clock's beginning
    // while it takes them. Any thread.
    Clock::time_point RefusedSince() const {
        return Clock::time_point(Clock::duration(mRefusedSince));
    }
    // For bytes that stay because they were not even tried: as if they had just been refused.
    void NoteRefusal();

    // Asks the processing thread to write what the ring holds, without waiting for the modem.
    void RequestWrite();

    // Health of the direction: 1, or negative after a failed write or a failed read of the modem.
    // Any thread reads it.
    int ThreadExitCode() const { return mThreadExitCode; }

    // The relay sets it to 1 before it changes the modem's log masks and to 0 after. While it is 1,
    // what the modem sends is dropped. Returns 1.
    int SetConfigLogMaskStaus(int status);

    // Ends the processing thread and the pool, once all that is queued has reached flash, and the
    // tool as far as it takes it in time; drains the modem port, and releases everything. Returns
    // 1. Relay thread, once, at the end.
    int CloseProcess();

    // Routes the relayed bytes [begin, end), at least one, while capture is on; alters them in
    // place. Returns 1. "AP --> BP": relay thread; "AP <-- BP": processing thread.
    int ParseReadData(char* begin, char* end);

  private:
    friend class StreamSplitter<CircularBufferExt>;

    // What "AP <-- BP" has besides.
    struct ModemSide {
        explicit ModemSide(CircularBufferExt& direction, LogFiles& logFiles);

        BlockQueue queue;
        // Belongs to the processing thread while blocks are queued, otherwise to the relay thread;
        // the queue hands it over.
        StreamSplitter<CircularBufferExt> splitter;
        std::unique_ptr<PoolBuffer> pool;  // until CloseProcess
        pthread_t thread = {};
        bool isThreadJoinable = false;  // relay thread only
        bool isQueueFull = false;       // still, since the last wait; relay thread only
        // A write to the tool has failed with toolLoss, 0 before: the rest of its share is dropped.
        std::atomic<int> toolLoss{0};
        unsigned long droppedBytes = 0;  // belongs to the same as the splitter
    };

    // Reading.
    int ReadDirect(int fd);
    int ReadExt(int fd);
    int ReadVersionForThread();
    BlockQueue::Wait WaitForFreeBlock();
    int FailRead(int error);
    void ParseAPSetLogMask(char* start, char* end);

    // Writing.
    bool WriteSpan(int fd, ssize_t& written, unsigned long limit);
    int WriteAll(int fd, WritePauses pauses);
    void ForgetStall();

    // The splitter's sinks.
    int ToTool(const char* data, int len);
    int ToFlash(const char* data, int len);
    void WriteToTool();

    // The processing thread, and the end.
    void StartProcessing();
    static void* ThreadProcessReadDataStart(void* self);
    void ProcessReadDataThread();
    void ProcessBlock();
    void ProcessOldest();
    int IsThreadExit();
    void StopCapture();
    void DrainModem();
    void LogCounts(int priority) const;

    Ring mRing;
    const char* const mName;
    const bool mIsDataFromBP;
    int& mReadFd;
    int& mWriteFd;
    const Limits mLimits;
    ToolLogRequests& mRequests;
    LogMask* const mLogMask;
    const int mLogEnableAtStart;  // gLogEnable at construction: chooses the order of shutdown

    // Written by Write and the processing thread, polled by the relay.
    std::atomic<int> mThreadExitCode{1};
    std::atomic<Clock::rep> mRefusedSince{0};  // ticks, see RefusedSince
    // A -EAGAIN in mThreadExitCode that arose with capture off: the next write clears it.
    std::atomic<bool> mIsStalledWhileLogOff{false};
    std::atomic<int> mStop{0};  // the connection ends
    std::atomic<Deadline> mEnd{Deadline()};

    int mIsCurrentConfigLogMask = 0;    // nonzero while the modem's masks change; relay thread only
    std::unique_ptr<ModemSide> mModem;  // "AP <-- BP" only
};
