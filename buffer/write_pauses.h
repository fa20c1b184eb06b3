// How the ring's writes wait for a peer that takes nothing.
#pragma once

#include <fcntl.h>
#include <poll.h>

#include <atomic>
#include <thread>

#include "base/limits.h"
#include "base/waiting.h"
#include "platform/tagged_log.h"

// The pauses of one Write or Flush. One of Write, on a busy machine too, ends 2 ms behind the one
// before, so that all of them last 2 seconds. Once the connection ends, and in a Flush, they last
// no longer than some time without progress, nor than the end's deadline.
class WritePauses {
  public:
    enum class Kind { kWrite, kFlush };

    // end: the deadline of the connection's end, never before it ends.
    WritePauses(Kind kind, const Limits& limits, const std::atomic<Deadline>& end)
        : mIsFlush(kind == Kind::kFlush), mLimits(limits), mEnd(end) {}

    // Pauses before the next try on fd, which took nothing; false when there is none.
    bool Pause(int fd) {
        const auto retries = static_cast<int>(mWaited / mLimits.retryPause);
        if (!mIsFlush) LIB_LOGE("write error, try again,retry_count: %d", retries);
        if (!mIsFlush && retries >= mLimits.writeRetries) return false;
        // Ready, but took nothing all the same: its readiness is no reason to try sooner.
        if (mWasReady) mTrustsReadiness = false;
        const auto now = Deadline::Clock::now();
        if (mIsMoving) mNextTry = mStalledSince = now;
        mIsMoving = false;
        const Deadline end = EndOfTries();
        if (end.HasPassed()) return false;
        mNextTry += mIsFlush ? mLimits.flushTryInterval : mLimits.retryPause;
        const Deadline nextTry(std::min(mNextTry, end.At()));
        mWasReady = mTrustsReadiness && WaitFor(fd, POLLOUT, nextTry);
        if (!mTrustsReadiness) std::this_thread::sleep_until(nextTry.At());
        // One that ended early counts for as long as it lasted.
        const Deadline::Clock::duration whole = mLimits.retryPause;
        mWaited += mWasReady ? std::min(Deadline::Clock::now() - now, whole) : whole;
        return true;
    }

    // fd took bytes.
    void NoteProgress() {
        mIsMoving = true;
        mTrustsReadiness = true;
        mWasReady = false;
    }

  private:
    Deadline EndOfTries() const {
        const Deadline end = mEnd;
        if (!mIsFlush && end.IsNever()) return end;
        return Deadline(std::min(end.At(), mStalledSince + mLimits.stallAtEnd));
    }

    const bool mIsFlush;
    const Limits& mLimits;
    const std::atomic<Deadline>& mEnd;
    Deadline::Clock::duration mWaited{0};       // in all pauses
    Deadline::Clock::time_point mStalledSince;  // valid, as is the next, while fd takes nothing
    Deadline::Clock::time_point mNextTry;
    bool mIsMoving = true;  // fd has just taken bytes
    bool mWasReady = false;
    bool mTrustsReadiness = true;
};

// Makes a descriptor non-blocking for its scope, without a line in the log.
class ScopedNonBlocking {
  public:
    explicit ScopedNonBlocking(int fd) : mFd(fd), mFlags(fcntl(fd, F_GETFL, 0)) {
        if (mFlags >= 0) fcntl(mFd, F_SETFL, mFlags | O_NONBLOCK);
    }
    ScopedNonBlocking(const ScopedNonBlocking&) = delete;
    ScopedNonBlocking& operator=(const ScopedNonBlocking&) = delete;
    ~ScopedNonBlocking() {
        if (mFlags >= 0) fcntl(mFd, F_SETFL, mFlags);
    }

  private:
    const int mFd;
    const int mFlags;
};
