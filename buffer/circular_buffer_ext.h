// The byte store of one relay direction for one connection.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <mutex>

// "AP --> BP" carries the tool's bytes to the modem, "AP <-- BP" the modem's to the tool. The relay
// thread fills a buffer with Read and drains it with Write.
//
// NumBytes, IsEmpty and IsFull take no lock and may be slightly behind another thread's change.
class CircularBufferExt {
  public:
    // buffer: ring storage of size bytes, owned by the caller, which outlives the object, as do the
    // name and the two descriptor variables (-1 once the relay has closed one). A name containing
    // "AP <-- BP" makes it the modem-to-tool direction.
    CircularBufferExt(char* buffer, unsigned long size, const char* name, int& readFd,
                      int& writeFd);
    CircularBufferExt(const CircularBufferExt&) = delete;
    CircularBufferExt& operator=(const CircularBufferExt&) = delete;

    // Bytes held. One byte of the storage always stays free: at most size - 1.
    unsigned long NumBytes() const;
    bool IsEmpty() const { return NumBytes() == 0; }
    bool IsFull() const { return NumBytes() >= MaxBytes(); }

    // Whether this buffer's own thread writes the tool's share, so that the relay must not.
    bool IsDataFromBPAndLogEnable() const;

    // Reads from fd, which must not block, until it has no more or the ring is full. Returns the
    // bytes taken when the ring is full, -EAGAIN when fd was drained (bytes may have been taken),
    // 0 at the end of the stream, or minus errno. Relay thread; takes mRingMutex.
    int Read(int fd);

    // Writes all the ring holds to fd, which must not block. Returns the bytes written, 0 when
    // there was nothing to write, -EAGAIN when fd took nothing for 1000 tries 2 ms apart, or minus
    // errno; a negative result is left in mThreadExitCode. Takes mRingMutex, but not while it waits
    // for fd.
    int Write(int fd);

    // Write for the end of a connection: waits for a descriptor that takes nothing, whatever its
    // blocking mode, but gives up after 700 ms without progress and then returns -EAGAIN.
    int Flush(int fd);

    // Appends len bytes to the ring or, when they do not fit, drops them all with an error line.
    // Any thread; takes mRingMutex.
    void CopyDataToBuffer(const char* src, int len);

    // Health of the direction: 1, or negative after a failed write. Any thread reads it.
    int ThreadExitCode() const { return mThreadExitCode; }

  private:
    unsigned long MaxBytes() const { return mBufferSize - 1; }
    unsigned long FreeSpanAtTail() const;
    ssize_t ReadSpan(int fd);
    bool WriteSpan(int fd, ssize_t& written);
    template <typename WaitForRoom>
    int WriteAll(int fd, WaitForRoom waitForRoom);

    // Written by Write (relay or processing thread), polled by the relay.
    std::atomic<int> mThreadExitCode;
    // A -EAGAIN in mThreadExitCode that arose with capture off: the next write clears it.
    std::atomic<bool> mIsStalledWhileLogOff;

    // Guards the ring's content and the changes of mHead and mTail; held during a read or write of
    // a descriptor that does not block, never while one is waited for.
    std::mutex mRingMutex;
    char* const mBuffer;              // content; mRingMutex
    const unsigned long mBufferSize;  // bytes
    const char* const mName;
    std::atomic<unsigned long> mHead;  // oldest byte not yet written out; changed under mRingMutex
    std::atomic<unsigned long> mTail;  // where the next byte goes; changed under mRingMutex
    const bool mIsDataFromBP;
    // Capture's thread for the modem's bytes does not exist yet, so the relay writes them itself.
    const bool mHasProcessThread = false;
    int& mReadFd;
    int& mWriteFd;

    uint64_t mTotalLengthForReadDataWriteToAP;  // bytes appended by CopyDataToBuffer; mRingMutex
};
