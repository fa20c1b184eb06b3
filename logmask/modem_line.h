// What the modem has got on its line: known by what the port took, nothing else.
#pragma once

#include <sys/types.h>
#include <unistd.h>

#include "diag/hdlc.h"

// Two send on the line, the tool and the daemon itself, and none may get into a frame of the
// other's. The line outlives connections: the modem still has half a frame of the last one. Relay
// thread only.
class ModemLine {
  public:
    // Whether the last byte was none that ends a frame.
    bool IsWithinFrame() const { return mWithin != Sender::kNobody; }

    // Writes bytes of the tool, as write does; behind a cut request of the daemon's, a 0x7E first.
    ssize_t WriteTool(int fd, const char* data, size_t len) {
        if (mWithin == Sender::kDaemon) {
            const ssize_t n = Write(fd, &kFlag, 1, Sender::kDaemon);
            if (n != 1) return n;
        }
        return Write(fd, data, len, Sender::kTool);
    }

    // Writes a part of a request of the daemon's, as write does. Who begins one ends what the line
    // is within before.
    ssize_t WriteRequest(int fd, const char* data, size_t len) {
        return Write(fd, data, len, Sender::kDaemon);
    }

    // Bytes that the port had taken were discarded: whatever is sent next, a 0x7E comes first.
    void NoteLoss() { mWithin = Sender::kDaemon; }

  private:
    enum class Sender { kNobody, kTool, kDaemon };
    static constexpr char kFlag = static_cast<char>(kHdlcFlag);

    ssize_t Write(int fd, const char* data, size_t len, Sender sender) {
        const ssize_t n = write(fd, data, len);
        if (n > 0) mWithin = data[n - 1] == kFlag ? Sender::kNobody : sender;
        return n;
    }

    Sender mWithin = Sender::kNobody;  // whose frame is not at its end
};
