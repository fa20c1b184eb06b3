// One direction of the relay: a buffer with the descriptors it reads from and writes to.
#pragma once

#include <sys/select.h>

#include "buffer/circular_buffer_ext.h"

// Owns nothing: the relay owns buffer and descriptor variables, which outlive the endpoint. The
// descriptors are the relay's variables, so -1 shows here as soon as the relay has closed one.
// Relay thread only.
class TransferBuffer {
  public:
    TransferBuffer(CircularBufferExt& buffer, int& readFd, int& writeFd)
        : mCircularBuffer(buffer), mReadFd(readFd), mWriteFd(writeFd) {}

    // Adds to the sets what this direction waits for. Removes nothing.
    void SetSelectBits(fd_set& readSet, fd_set& writeSet, fd_set& exceptSet) const;

    // Reads and writes what the sets mark as ready, and takes this direction's marks out of them.
    // Bytes just read are written at once, marked or not. Returns whether the direction may go on;
    // otherwise the reason is logged.
    bool HandleSelect(fd_set& readSet, fd_set& writeSet, fd_set& exceptSet);

  private:
    bool HandleRead();
    bool HandleWrite();

    CircularBufferExt& mCircularBuffer;
    int& mReadFd;
    int& mWriteFd;
};
