#include "buffer/ring.h"

bool Ring::Append(const char* src, unsigned long len) {
    const std::lock_guard<std::mutex> lock(mRingMutex);
    if (mNumBytes + len > MaxBytes()) return false;
    const unsigned long untilEnd = std::min(len, mBufferSize - mTail);
    memcpy(mBuffer + mTail, src, untilEnd);
    memcpy(mBuffer, src + untilEnd, len - untilEnd);
    mTail = (mTail + len) % mBufferSize;
    mNumBytes += len;
    return true;
}

unsigned long Ring::NumBytesUpTo(unsigned char byte) const {
    const std::lock_guard<std::mutex> lock(mRingMutex);
    unsigned long count = mNumBytes;
    while (count > 0) {
        if (static_cast<unsigned char>(mBuffer[(mHead + count - 1) % mBufferSize]) == byte) break;
        --count;
    }
    return count;
}
