#include "relay/transfer_bidirectional.h"

#include <sys/ioctl.h>
#include <sys/select.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <memory>

#include "base/link_monitor.h"
#include "base/log_switch.h"
#include "base/relay_wakeup.h"
#include "base/set_blocking.h"
#include "base/waiting.h"
#include "platform/tagged_log.h"
#include "relay/port_drain.h"
#include "relay/tool_watch.h"
#include "relay/transfer_buffer.h"

LogMask* gLogMaskInstance = LogMask::GetInstance();

namespace {

constexpr useconds_t kStartPauseUs = 4000;
constexpr useconds_t kReconfigurePauseUs = 20000;

// Brings the modem's logging in line with the switch at the start of a connection. Returns the
// switch as acted on.
int32_t AlignModemLogging(int& bpFd, const Limits& limits) {
    gLogMaskInstance->SetDiagFd(bpFd);
    gLogMaskInstance->StartWaits(Deadline::In(limits.start), limits);
    const int32_t logEnable = gLogEnable;
    if (logEnable == 0 && gLogEnablePrev == 0) return logEnable;
    if (logEnable == 0) {
        LIB_LOGD("gLogEnablePrev:%d, force disable log again", gLogEnablePrev.load());
    }
    set_blocking(bpFd, true);
    if (logEnable != 0) {
        gLogMaskInstance->DiagMask(bpFd, 1);
    } else {
        gLogMaskInstance->DisableLog(1);
    }
    set_blocking(bpFd, false);
    if (logEnable == 0) gLogEnablePrev = 0;
    return logEnable;
}

// One connection. Relay thread only.
class Connection {
  public:
    // logEnable: the logging switch as last acted on.
    Connection(int apFd, int bpFd, int netlinkFd, unsigned long bufferSize, int32_t logEnable,
               const Surroundings& surroundings)
        : mApFd(apFd),
          mBpFd(bpFd),
          mLastLogEnable(logEnable),
          mNetlinkFd(netlinkFd),
          mLimits(surroundings.limits),
          mToModemStorage(new char[bufferSize]),
          mToToolStorage(new char[bufferSize]),
          mToModem(mToModemStorage.get(), bufferSize, "AP --> BP", mApFd, mBpFd, surroundings),
          mToTool(mToToolStorage.get(), bufferSize, "AP <-- BP", mBpFd, mApFd, surroundings) {}

    void Relay(const timeval* timeout, void (*timeoutCallback)(void*), void* callbackArg);
    int TearDown();

  private:
    int32_t FollowSwitch();
    void CompleteToolFrame();
    bool HasBufferFailed() const;
    bool HandleReady();
    bool IsToolGivenUp();
    bool IsOverAt(Deadline::Clock::time_point moment);
    bool IsLinkRemoved();
    bool FlushToModem();

    int mApFd;  // tool's socket, -1 when there is none or it has been closed
    int mBpFd;  // modem port, likewise
    int32_t mLastLogEnable;
    const int mNetlinkFd;
    const Limits mLimits;
    const std::unique_ptr<char[]> mToModemStorage;
    const std::unique_ptr<char[]> mToToolStorage;
    CircularBufferExt mToModem;
    CircularBufferExt mToTool;
    TransferBuffer mToModemEndpoint{mToModem, mApFd, mBpFd};
    TransferBuffer mToToolEndpoint{mToTool, mBpFd, mApFd};
    ToolWatch mToolWatch{mApFd};

    // Select leaves what is ready, the endpoints take out what they served: never cleared
    // otherwise.
    fd_set mReadSet = {};
    fd_set mWriteSet = {};
    fd_set mExceptSet = {};
    Deadline::Clock::time_point mLastPass = Deadline::Clock::now();  // as select returned
};

void Connection::Relay(const timeval* timeout, void (*timeoutCallback)(void*), void* callbackArg) {
    if (mApFd == -1 || mBpFd == -1) return;
    const int wakeupFd = RelayWakeupFd();
    const int maxFd = std::max({mApFd, mBpFd, mNetlinkFd, wakeupFd, mToolWatch.Fd()});
    timeval interval = timeout != nullptr ? *timeout : timeval{};
    for (;;) {
        if (mNetlinkFd != -1) FD_SET(mNetlinkFd, &mReadSet);
        if (wakeupFd != -1) FD_SET(wakeupFd, &mReadSet);
        if (mToolWatch.Fd() != -1) FD_SET(mToolWatch.Fd(), &mReadSet);
        mToModemEndpoint.SetSelectBits(mReadSet, mWriteSet, mExceptSet);
        mToToolEndpoint.SetSelectBits(mReadSet, mWriteSet, mExceptSet);

        if (FollowSwitch() != 0 && HasBufferFailed()) {
            LIB_LOGE("Thread Read/Write Error, Exit");
            return;
        }
        const int n = select(maxFd + 1, &mReadSet, &mWriteSet, &mExceptSet,
                             timeout != nullptr ? &interval : nullptr);
        mLastPass = Deadline::Clock::now();
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

// Gives the tool a moment to complete a frame that the modem has begun to get.
void Connection::CompleteToolFrame() {
    const Deadline deadline = Deadline::In(mLimits.frameEnd);
    while (!mToModem.WriteWholeFrames(mBpFd, deadline)) {
        if (mToModem.IsFull() || deadline.HasPassed()) break;
        if (!WaitFor(mApFd, POLLIN, deadline)) break;
        // What ends the stream shows again in the next pass.
        const int n = mToModem.Read(mApFd);
        if (n <= 0 && n != -EAGAIN) break;
    }
}

// Reprograms or disables the modem's logging when the switch moved since it was last acted on.
// Returns the latest reading of the switch.
int32_t Connection::FollowSwitch() {
    int32_t logEnable = gLogEnable;
    if (logEnable == mLastLogEnable) return logEnable;
    LIB_LOGE("begin gLogEnable:%d", logEnable);
    mToTool.SetConfigLogMaskStaus(1);
    mToModem.SetConfigLogMaskStaus(1);
    logEnable = gLogEnable;
    CompleteToolFrame();
    gLogMaskInstance->StartWaits(Deadline::In(mLimits.inVain), mLimits);
    if (logEnable != 0) {
        gLogMaskInstance->DiagMask(mBpFd, 0);
    } else {
        const int status = gLogMaskInstance->DisableLog(0);
        LIB_LOGE("end, and status:%d", status);
    }
    usleep(kReconfigurePauseUs);
    mToTool.SetConfigLogMaskStaus(0);
    mToModem.SetConfigLogMaskStaus(0);
    mLastLogEnable = logEnable;
    logEnable = gLogEnable;
    LIB_LOGE("end gLogEnable:%d", logEnable);
    return logEnable;
}

bool Connection::HasBufferFailed() const {
    return mToModem.ThreadExitCode() < 0 || mToTool.ThreadExitCode() < 0;
}

// Serves what select reported. False when the connection ends.
bool Connection::HandleReady() {
    if (!mToModemEndpoint.HandleSelect(mReadSet, mWriteSet, mExceptSet)) return false;
    if (!mToToolEndpoint.HandleSelect(mReadSet, mWriteSet, mExceptSet)) return false;
    return !IsToolGivenUp() && !IsLinkRemoved();
}

// Whether the tool is given up because the modem takes nothing of its bytes, and the tool has gone
// meanwhile or waited for long: the one reason to end that neither side, nor the link, nor a signal
// gives. A tool whose bytes move, or find room, is read up to its end.
bool Connection::IsToolGivenUp() {
    if (mToModem.IsFull()) mToModem.NoteRefusal();
    const auto since = mToModem.RefusedSince();
    const bool isRefused = since != decltype(since)();
    const bool isMarked = mToolWatch.Fd() != -1 && FD_ISSET(mToolWatch.Fd(), &mReadSet);
    if (isRefused || isMarked) mToolWatch.Update();
    if (!isRefused) return false;
    // While capture is on, that ends the connection by itself.
    if (gLogEnable != 0 && HasBufferFailed()) return false;
    if (!IsOverAt(since + mLimits.refusal)) return false;
    if (!mToolWatch.HasEnded()) {
        if (!mToModem.IsFull()) return false;
        mToolWatch.MakeRoom();
        if (!IsOverAt(since + mLimits.tool)) return false;
    }
    LIB_LOGE("the modem takes nothing, and fd %d %s", mApFd,
             mToolWatch.HasEnded() ? "was closed by the remote end" : "has waited long enough");
    return true;
}

// Whether the moment has come; if not, select will end then.
bool Connection::IsOverAt(Deadline::Clock::time_point moment) {
    if (Deadline::Clock::now() >= moment) return true;
    mToolWatch.WakeAt(moment);
    return false;
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

// The tool's last bytes, those included that a tool that is gone has left in its socket. Returns
// whether the modem took them.
bool Connection::FlushToModem() {
    mToolWatch.Update();
    while (mToModem.Flush(mBpFd) >= 0 && mToModem.IsEmpty()) {
        if (mToolWatch.HasEnded()) mToModem.Read(mApFd);
        if (mToModem.IsEmpty()) return true;
    }
    int unread = 0;
    if (ioctl(mApFd, FIONREAD, &unread) == 0 && unread > 0) {
        LIB_LOGE("fd %d: %d bytes of the tool were not read", mApFd, unread);
    }
    return false;
}

// Flushes both directions and closes both descriptors, by one deadline, which counts from the pass
// that ended the relay: that may have waited for a peer. Returns the result of closing the tool's
// socket, or -1 when there is none.
int Connection::TearDown() {
    const Deadline end(mLastPass + mLimits.end);
    mToModem.EndBy(end);
    mToTool.EndBy(end);
    if (mBpFd != -1) {
        set_blocking(mBpFd, true);
        const bool takesBytes = FlushToModem();
        if (gLogEnable != 0) {
            gLogMaskInstance->StartWaits(takesBytes ? end : Deadline::In({}), mLimits);
            gLogMaskInstance->DisableLog(1);
        }
        set_blocking(mBpFd, false);
    }
    mToTool.CloseProcess();
    if (mBpFd != -1) {
        if (!DrainPort(mBpFd, end)) gLogMaskInstance->Line().NoteLoss();
        ClosePort(mBpFd);
        mBpFd = -1;
    }
    int result = -1;
    if (mApFd != -1) {
        set_blocking(mApFd, true);
        mToTool.Flush(mApFd);
        mToModem.CloseProcess();
        result = close(mApFd);
        mApFd = -1;
    }
    return result;
}

}  // namespace

int transfer_bidirectional_and_close(int ap_fd, int bp_fd, int netlink_fd,
                                     unsigned long buffer_size, const timeval* timeout,
                                     void (*timeout_callback)(void*), void* callback_arg,
                                     const Surroundings& surroundings) {
    const int32_t logEnable = AlignModemLogging(bp_fd, surroundings.limits);
    Connection connection(ap_fd, bp_fd, netlink_fd, buffer_size, logEnable, surroundings);
    usleep(kStartPauseUs);
    connection.Relay(timeout, timeout_callback, callback_arg);
    return connection.TearDown();
}
