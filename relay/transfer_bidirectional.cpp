#include "relay/transfer_bidirectional.h"

#include <sys/select.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>

#include "buffer/circular_buffer_ext.h"
#include "daemon/link_monitor.h"
#include "daemon/relay_wakeup.h"
#include "daemon/set_blocking.h"
#include "platform/tagged_log.h"
#include "relay/transfer_buffer.h"

namespace {

constexpr useconds_t kStartPauseUs = 4000;

// One connection. Relay thread only.
class Connection {
  public:
    Connection(int apFd, int bpFd, int netlinkFd, unsigned long bufferSize)
        : mApFd(apFd),
          mBpFd(bpFd),
          mNetlinkFd(netlinkFd),
          mToModemStorage(new char[bufferSize]),
          mToToolStorage(new char[bufferSize]),
          mToModem(mToModemStorage.get(), bufferSize, "AP --> BP", mApFd, mBpFd),
          mToTool(mToToolStorage.get(), bufferSize, "AP <-- BP", mBpFd, mApFd) {}

    void Relay(const timeval* timeout, void (*timeoutCallback)(void*), void* callbackArg);
    int TearDown();

  private:
    bool HandleReady();
    bool IsLinkRemoved();

    int mApFd;  // tool's socket, -1 when there is none or it has been closed
    int mBpFd;  // modem port, likewise
    const int mNetlinkFd;
    const std::unique_ptr<char[]> mToModemStorage;
    const std::unique_ptr<char[]> mToToolStorage;
    CircularBufferExt mToModem;
    CircularBufferExt mToTool;
    TransferBuffer mToModemEndpoint{mToModem, mApFd, mBpFd};
    TransferBuffer mToToolEndpoint{mToTool, mBpFd, mApFd};

    // Select leaves what is ready, the endpoints take out what they served: never cleared
    // otherwise.
    fd_set mReadSet = {};
    fd_set mWriteSet = {};
    fd_set mExceptSet = {};
};

void Connection::Relay(const timeval* timeout, void (*timeoutCallback)(void*), void* callbackArg) {
    if (mApFd == -1 || mBpFd == -1) return;
    const int wakeupFd = RelayWakeupFd();
    const int maxFd = std::max({mApFd, mBpFd, mNetlinkFd, wakeupFd});
    timeval interval = timeout != nullptr ? *timeout : timeval{};
    for (;;) {
        if (mNetlinkFd != -1) FD_SET(mNetlinkFd, &mReadSet);
        if (wakeupFd != -1) FD_SET(wakeupFd, &mReadSet);
        mToModemEndpoint.SetSelectBits(mReadSet, mWriteSet, mExceptSet);
        mToToolEndpoint.SetSelectBits(mReadSet, mWriteSet, mExceptSet);

        const int n = select(maxFd + 1, &mReadSet, &mWriteSet, &mExceptSet,
                             timeout != nullptr ? &interval : nullptr);
        if (n == -1) {
            LIB_LOGE("select returned error code %d: %s", errno, strerror(errno));
            return;
        }
        if (n > 0) {
            if (wakeupFd != -1 && FD_ISSET(wakeupFd, &mReadSet)) ClearRelayWakeup();
            if (!HandleReady()) return;
        } else if (timeout != nullptr) {
            interval = *timeout;  // select may have reduced it
            if (timeoutCallback != nullptr) timeoutCallback(callbackArg);
        }
    }
}

// Serves what select reported. False when the connection ends.
bool Connection::HandleReady() {
    if (!mToModemEndpoint.HandleSelect(mReadSet, mWriteSet, mExceptSet)) return false;
    if (!mToToolEndpoint.HandleSelect(mReadSet, mWriteSet, mExceptSet)) return false;
    return !IsLinkRemoved();
}

bool Connection::IsLinkRemoved() {
    if (mNetlinkFd == -1 || !FD_ISSET(mNetlinkFd, &mReadSet)) return false;
    if (handle_netlink_socket_event(mNetlinkFd) != NETLINK_UTIL_SOCKET_UPDATE_USBLAN_REMOVED) {
        return false;
    }
    LIB_LOGE("NETLINK_UTIL_SOCKET_UPDATE_USBLAN_REMOVED exit, error code %d: %s", errno,
             strerror(errno));
    return true;
}

// Flushes both directions and closes both descriptors. Returns the result of closing the tool's
// socket, or -1 when there is none.
int Connection::TearDown() {
    if (mBpFd != -1) {
        set_blocking(mBpFd, true);
        mToModem.Flush(mBpFd);
        set_blocking(mBpFd, false);
        close(mBpFd);
        mBpFd = -1;
    }
    if (mApFd == -1) return -1;
    set_blocking(mApFd, true);
    mToTool.Flush(mApFd);
    const int result = close(mApFd);
    mApFd = -1;
    return result;
}

}  // namespace

int transfer_bidirectional_and_close(int ap_fd, int bp_fd, int netlink_fd,
                                     unsigned long buffer_size, const timeval* timeout,
                                     void (*timeout_callback)(void*), void* callback_arg) {
    Connection connection(ap_fd, bp_fd, netlink_fd, buffer_size);
    usleep(kStartPauseUs);
    connection.Relay(timeout, timeout_callback, callback_arg);
    return connection.TearDown();
}
