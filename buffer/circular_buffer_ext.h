// The byte store of one relay direction for one connection.
#pragma once

#include <pthread.h>
#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>

#include "diag/hdlc.h"
#include "logmask/log_mask.h"

class PoolBuffer;

// "AP --> BP" carries the tool's bytes to the modem, "AP <-- BP" the modem's to the tool. The relay
// thread fills a buffer with Read and drains it with Write. While capture is on, the "AP <-- BP"
// object hands the modem's bytes to its processing thread, which splits them between the tool and
// the capture pool and writes the tool's share itself.
//
// Declared here, defined by subject: buffer/ring, buffer/block_queue, buffer/processing_thread,
// buffer/stream_splitter, and in diag/ tool_log_request, log_config_response, log_packet_selection.
//
// Locks: mIndexMutex (block queue), mRingMutex (ring) and msRequestMutex (the tool's requests) are
// never held together. NumBytes, IsEmpty and IsFull take no lock and may be slightly behind.
class CircularBufferExt {
    using Clock = std::chrono::steady_clock;

  public:
    // buffer: ring storage of size bytes, owned by the caller, which outlives the object, as do the
    // name and the two descriptor variables (-1 once the relay has closed one). A name containing
    // "AP <-- BP" makes it the modem-to-tool direction: that starts its processing thread and its
    // pool, so CloseProcess must be called before it goes away.
    CircularBufferExt(char* buffer, unsigned long size, const char* name, int& readFd,
                      int& writeFd);
    CircularBufferExt(const CircularBufferExt&) = delete;
    CircularBufferExt& operator=(const CircularBufferExt&) = delete;

    // Bytes held. One byte of the storage always stays free: at most size - 1.
    unsigned long NumBytes() const { return mNumBytes; }
    bool IsEmpty() const { return NumBytes() == 0; }
    bool IsFull() const { return NumBytes() >= MaxBytes(); }

    // Whether the processing thread writes this direction, so that the relay must not.
    bool IsDataFromBPAndLogEnable() const;

    // Reads from fd, which must not block, until it has no more or there is no more room. Returns
    // the bytes taken, -EAGAIN when fd was drained (bytes may have been taken), 0 at the end of the
    // stream, or minus errno. Relay thread.
    int Read(int fd);

    // Writes all the ring holds to fd, which must not block. Returns the bytes written, 0 when
    // there was nothing to write, -EAGAIN when fd took nothing for 1000 tries 2 ms apart, or minus
    // errno; a negative result is left in mThreadExitCode. Takes mRingMutex, but not while it waits
    // for fd.
    int Write(int fd);

    // Write for the end of a connection: waits for a descriptor that takes nothing, whatever its
    // blocking mode, but gives up after 700 ms without progress and then returns -EAGAIN.
    int Flush(int fd);

    // Writes to fd, which must not block, what the ring holds up to its last 0x7E; waits for fd
    // until the deadline. Returns EndsOnFrame. Relay thread; takes mRingMutex, but not while it
    // waits.
    bool WriteWholeFrames(int fd, Clock::time_point deadline);

    // Puts one 0x7E before all that the ring holds, if there is room.
    void PutFrameEndFirst();

    // Whether the last byte written was a 0x7E, or none was written yet.
    bool EndsOnFrame() const { return mEndsOnFrame; }

    // Says what the last byte at the modem was when it was not written by this buffer.
    void SetEndsOnFrame(bool endsOnFrame) { mEndsOnFrame = endsOnFrame; }

    // Appends len bytes to the ring or, when they do not fit, drops them all with an error line.
    // Any thread; takes mRingMutex.
    void CopyDataToBuffer(const char* src, int len);

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

    // Ends the processing thread and the pool, once all that is queued has reached tool and flash,
    // drains the modem port, and releases everything. Returns 1. Relay thread, once, at the end.
    int CloseProcess();

    // Routes the relayed bytes [begin, end), at least one, while capture is on; alters them in
    // place. Returns 1. "AP --> BP": relay thread; "AP <-- BP": processing thread.
    int ParseReadData(char* begin, char* end);

  private:
    friend class CircularBufferExtPeer;  // tests and benchmarks

    static constexpr int kBlocks = 400;
    static constexpr int kBlockSize = 4096;        // bytes allocated; one less is used
    static constexpr int kToolLogIds = 4095;       // codes listed per equipment id
    static constexpr int kLogItems = 4096;         // items per equipment id
    static constexpr int kLogPacketHeadSize = 16;  // seven bytes, each escaped, and half an escape

    // buffer/ring
    unsigned long MaxBytes() const { return mBufferSize - 1; }
    unsigned long FreeSpanAtTail() const;
    int ReadDirect(int fd);
    ssize_t ReadSpan(int fd);
    int ReadExt(int fd);
    bool WriteSpan(int fd, ssize_t& written, unsigned long limit, bool mayWait);
    template <typename WaitForRoom>
    int WriteAll(int fd, WaitForRoom waitForRoom);
    void ForgetStall();
    unsigned long BytesOfWholeFrames();

    // buffer/block_queue
    static int NextBlock(int index) { return index == kBlocks - 1 ? 0 : index + 1; }
    int ReadVersionForThread();
    enum class FreeBlockWait { kFree, kNotYet, kNever };
    FreeBlockWait WaitForFreeBlock();
    void QueueBlock(int len);
    int FailRead(int error);
    int WaitForEmptyQueue();

    // buffer/processing_thread
    void StartPool();
    void StartProcessing();
    static void* ThreadProcessReadDataStart(void* self);
    void ProcessReadDataThread();
    enum class Work { kBlock, kWrite, kStop };
    Work WaitForWork();
    void ProcessBlock(int index);
    void FreeBlock();
    void EndProcessing();
    void StopCapture();
    int IsThreadExit();
    void DrainModem();
    bool IsCountBalanced() const;
    void LogCounts(int priority) const;

    // buffer/stream_splitter
    void SplitToolBytes(char* begin, char* end);
    void SplitModemBytes(char* begin, char* end);
    void BeginFrame(const char* start);
    void RoutePiece(char* start, char* end, char* last);
    void ForwardLogPiece(const char* start, int len);
    void FlushRun(const char* end);
    bool FitsResponseBuffer(int len);
    void CollectResponse(const char* start, int len);
    void EndResponse();
    void ReleaseResponse();
    void CopyToTool(const char* src, int len);
    void PassRaw(const char* data, int len);
    void ReleaseHeld();
    void NoteRawBytes(char last);

    // diag/tool_log_request
    int ParseAPSetLogMask(char* start, char* end);
    static bool NoteToolCodes(const char* request, int len, int equipmentId);
    static void EmptyToolCodes(int equipmentId);
    static void RecordToolRequest(const char* request, int len, int count, int equipmentId);

    // diag/log_config_response
    int Parse73CmdResponse(char* start, char* end);
    int ParseAPSetLogMaskResponse(char* start, char* end);
    int ParseAPGetLogMaskResponse(char* start, char* end);
    int AnswerTool(const char* packet, int len, int readLen, char (&framed)[kDiagAreaSize]);
    void ReplaceMask(char* response, int req_length, int equipmentId);

    // diag/log_packet_selection
    int ParseReadDataLog117C(char* start, char* end, char* last);
    void ReadLogHeader(const char* start, const char* end, const char* last);
    void FinishLogPiece(const char* start, const char* end);
    static bool IsToolCode(uint32_t code);
    void ResetLogPacket();

    // The tool's log requests, for the life of the process. Changed on the relay thread alone.
    static std::atomic<bool> msIsFTMLogEnable;                  // any code wanted at all
    static std::atomic<bool> isAPLogPacketNeed[kEquipmentIds];  // last request had a bit set
    static uint32_t numToolNeededLogId[kEquipmentIds];          // entries of the list; relay thread
    static uint32_t toolNeededLogId[kEquipmentIds][kToolLogIds];  // in the order seen; relay thread
    static std::atomic<uint32_t> msToolNeededLogBits[kEquipmentIds][kLogItems / 32];
    static std::mutex msRequestMutex;
    static char data_for_ap_set_log_mask[kEquipmentIds][kDiagAreaSize];  // raw; msRequestMutex
    static int32_t data_length_for_ap_set_log_mask[kEquipmentIds];       // bytes; msRequestMutex
    static uint32_t msCurrentEquipmentId;  // of the last request; msRequestMutex

    // Written by Write and the processing thread, polled by the relay.
    std::atomic<int> mThreadExitCode;
    std::atomic<Clock::rep> mRefusedSince;  // ticks, see RefusedSince
    // A -EAGAIN in mThreadExitCode that arose with capture off: the next write clears it.
    std::atomic<bool> mIsStalledWhileLogOff;

    // Guards the ring's content and the changes of mHead and mTail; held during a read or write of
    // a descriptor that does not block, never while one is waited for.
    std::mutex mRingMutex;
    char* const mBuffer;              // content; mRingMutex
    const unsigned long mBufferSize;  // bytes
    const char* const mName;
    unsigned long mHead;                   // oldest byte not yet written out; mRingMutex
    unsigned long mTail;                   // where the next byte goes; mRingMutex
    std::atomic<unsigned long> mNumBytes;  // from mHead to mTail; changed under mRingMutex
    std::atomic<bool> mEndsOnFrame;        // last byte written was 0x7E, or none was
    const bool mIsDataFromBP;
    int& mReadFd;
    int& mWriteFd;
    const bool mIsWriteFdTty;  // one whose output can be resumed; of "AP --> BP" only

    // The splitter's state. It belongs to the processing thread while blocks are queued, otherwise
    // to the relay thread; mIndexMutex hands it over.
    bool mIsWholePakcetRead;          // the last chunk ended with 0x7E: the next begins a frame
    bool mIsPrevWholePacketRead;      // the same as it stood before the chunk being handled
    int mCurrentCmdCode;              // first byte of the frame being routed, -1 before any
    const char* mRunStart;            // flash run of this chunk, null when none is pending
    bool mIsToolLogPiece;             // msIsFTMLogEnable as sampled for this piece
    uint32_t mLogPacketParsedLength;  // un-escaped header bytes of the current log packet
    bool mIsLogEscapePending;         // the last header byte was an escape
    uint32_t mCurrentFTMLogCode;      // of the current log packet
    bool mIsLogCodeKnown;             // it has been looked up, or will not be
    bool mIsToolNeedCurrentLog;       // the tool wants the current log packet
    char mLogPacketBuffer[kLogPacketHeadSize];  // its head, as received, until the code is known
    uint8_t mLogPacketBufferCurrentLength;      // bytes held in it
    bool mIsResponseIntercepted;                // the current 0x73 response is not just relayed
    char m73CmdResponseBuffer[kDiagAreaSize];   // a 0x73 response cut by the chunk's end
    int m73CmdResponseBufferCurrentLength;      // bytes held in it
    bool mIsCurrentLogMaskCmdResponseNotCopyAgain;  // the response was taken over

    PoolBuffer* mPoolBuffer;  // owned, from construction to CloseProcess; "AP <-- BP" only
    LogMask* const mLogMask;

    // Bytes: WriteToAP + SavedToFlash - LogDataWriteToAp = ReadDataFromBP after every block. Owned
    // like the splitter's state.
    uint64_t mTotalLengthForReadDataFromBP;     // read, adjusted where a frame is rewritten
    uint64_t mTotalLengthForSavedToFlash;       // taken by the pool
    uint64_t mTotalLengthForReadDataWriteToAP;  // appended to the ring
    uint64_t mTotalLengthForLogDataWriteToAp;   // both to the tool and to flash

    int mIsCurrentConfigLogMask;  // nonzero while the modem's masks change; relay thread only
    const int mLogEnableAtStart;  // gLogEnable at construction: chooses the order of shutdown
    pthread_t mProcessThread;
    bool mIsProcessThreadJoinable;              // relay thread only
    std::atomic<int> mIsReadThreadExit;         // the reading side has finished
    std::atomic<int> mIsProcessReadThreadExit;  // the processing thread has finished

    // The block queue. Blocks from mWriteIndex up to mReadIndex belong to the processing thread,
    // the one at mReadIndex to the relay thread. mIndexMutex guards the indices and mStop; both
    // conditions are tested and waited for under it.
    std::mutex mIndexMutex;
    char* mBlocks[kBlocks];              // null where there was no memory
    int mBlockSizes[kBlocks];            // bytes held, 0 when free
    int mReadIndex;                      // block filled next; mIndexMutex
    int mWriteIndex;                     // block handled next; mIndexMutex
    std::atomic<int> mStop;              // stop request; written under mIndexMutex
    bool mIsQueueFull;                   // still, since the last wait; relay thread only
    bool mIsWriteRequested;              // the ring is to be written without a block; mIndexMutex
    std::condition_variable mDataCond;   // a block, a write request or a stop; with mIndexMutex
    std::condition_variable mSpaceCond;  // a block handled, or the thread ended; with mIndexMutex
};
