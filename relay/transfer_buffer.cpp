#include "relay/transfer_buffer.h"

#include <cerrno>
#include <chrono>
#include <cstring>

#include "platform/tagged_log.h"

namespace {

// Whether a count from Read or Write lets the direction go on; otherwise the reason is logged.
bool MayGoOn(int count, int fd) {
    if (count > 0 || count == -EAGAIN) return true;
    if (count < 0) {
        LIB_LOGE("error detected on fd %d : %s", fd, strerror(-count));
    } else {
        LIB_LOGI("fd %d was closed by the remote end", fd);
    }
    return false;
}

}  // namespace

void TransferBuffer::SetSelectBits(fd_set& readSet, fd_set& writeSet, fd_set& /*except*/) const {
    if (!mCircularBuffer.IsFull()) FD_SET(mReadFd, &readSet);
    if (!mCircularBuffer.IsEmpty()) FD_SET(mWriteFd, &writeSet);
}

bool TransferBuffer::HandleSelect(fd_set& readSet, fd_set& writeSet, fd_set& /*except*/) {
    bool result = true;
    const unsigned long heldBefore = mCircularBuffer.NumBytes();
    if (FD_ISSET(mReadFd, &readSet)) {
        result = HandleRead();
        FD_CLR(mReadFd, &readSet);
    }
    const bool writable = FD_ISSET(mWriteFd, &writeSet);
    FD_CLR(mWriteFd, &writeSet);
    // A peer that takes nothing must not slow the other direction, nor the news of the link: only
    // new bytes, or the end of their source, are tried on a descriptor that is not ready, and these
    // only until it has refused some.
    const bool tookBytes = mCircularBuffer.NumBytes() > heldBefore;
    const bool refuses = mCircularBuffer.RefusedSince() != std::chrono::steady_clock::time_point();
    if (!writable && (refuses || (!tookBytes && result))) return result;
    return HandleWrite() && result;
}

bool TransferBuffer::HandleRead() {
    return MayGoOn(mCircularBuffer.Read(mReadFd), mReadFd);
}

bool TransferBuffer::HandleWrite() {
    if (mCircularBuffer.IsEmpty()) return true;
    if (mCircularBuffer.IsDataFromBPAndLogEnable()) {
        // The processing thread writes this direction itself; the bytes may be older than capture.
        mCircularBuffer.RequestWrite();
        return true;
    }
    const int count = mCircularBuffer.Write(mWriteFd);
    // It may have emptied the ring in between: nothing left to write is no end.
    if (count == 0 && mCircularBuffer.IsEmpty()) return true;
    return MayGoOn(count, mWriteFd);
}
