// The bytes of one direction. Knows memory alone: what reads and writes is handed in.
#pragma once

#include <sys/types.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <mutex>

// A ring over storage of the caller's, which outlives it. One byte of the storage always stays
// free.
//
// Any thread; mRingMutex guards the content and the changes of mHead and mTail and is held during
// the calls handed in, which must not wait where two threads share the ring. NumBytes, IsEmpty and
// IsFull take no lock and may be slightly behind.
class Ring {
  public:
    Ring(char* buffer, unsigned long size) : mBuffer(buffer), mBufferSize(size) {}
    Ring(const Ring&) = delete;
    Ring& operator=(const Ring&) = delete;

    unsigned long NumBytes() const { return mNumBytes; }
    unsigned long MaxBytes() const { return mBufferSize - 1; }
    bool IsEmpty() const { return NumBytes() == 0; }
    bool IsFull() const { return NumBytes() >= MaxBytes(); }

    // Has read(char* at, unsigned long room) put bytes into the free span. Returns what read
    // returned, the bytes put there or what else it likes below 1; errno stays.
    template <typename ReadCall>
    ssize_t ReadSpan(ReadCall read) {
        const std::lock_guard<std::mutex> lock(mRingMutex);
        const ssize_t n = read(mBuffer + mTail, FreeSpanAtTail());
        if (n <= 0) return n;
        mTail = (mTail + static_cast<unsigned long>(n)) % mBufferSize;
        mNumBytes += static_cast<unsigned long>(n);
        return n;
    }

    // Has write(const char* at, unsigned long len) take bytes out of the oldest span, at most limit
    // of them. Returns false when the ring is empty; otherwise written is what write returned, and
    // errno stays.
    template <typename WriteCall>
    bool WriteSpan(ssize_t& written, unsigned long limit, WriteCall write) {
        const std::lock_guard<std::mutex> lock(mRingMutex);
        if (mNumBytes == 0) return false;
        const unsigned long span = std::min(limit, (mTail > mHead ? mTail : mBufferSize) - mHead);
        written = write(mBuffer + mHead, span);
        if (written <= 0) return true;
        mHead += static_cast<unsigned long>(written);
        mNumBytes -= static_cast<unsigned long>(written);
        if (mHead == mBufferSize) {
            mHead = 0;
        } else if (mHead == mTail) {
            mHead = mTail = 0;  // a drained ring starts again at the beginning of its storage
        }
        return true;
    }

    // Appends src[0, len), or nothing when it does not fit: false.
    bool Append(const char* src, unsigned long len);

    // Bytes held up to and including the last that is byte, 0 when none is.
    unsigned long NumBytesUpTo(unsigned char byte) const;

  private:
    unsigned long FreeSpanAtTail() const {
        if (mTail < mHead) return mHead - 1 - mTail;
        return mBufferSize - mTail - (mHead == 0 ? 1 : 0);
    }

    mutable std::mutex mRingMutex;
    char* const mBuffer;                      // content; mRingMutex
    const unsigned long mBufferSize;          // bytes
    unsigned long mHead = 0;                  // oldest byte not yet written out; mRingMutex
    unsigned long mTail = 0;                  // where the next byte goes; mRingMutex
    std::atomic<unsigned long> mNumBytes{0};  // from mHead to mTail; changed under mRingMutex
};
