// How the ring's writes wait for a peer that takes nothing.
#pragma once

#include <fcntl.h>
#include <poll.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <thread>

#include "base/limits.h"
#include "platform/tagged_log.h"

// Returns whether fd became writable, or failed, until then.
inline bool WaitWritable(int fd, std::chrono::steady_clock::time_point until) {
    using Clock = std::chrono::steady_clock;
    const auto left = std::max<Clock::duration>(until - Clock::now(), Clock::duration(0));
    const auto seconds = std::chrono::floor<std::chrono::seconds>(left);
    const timespec limit = {seconds.count(), std::chrono::nanoseconds(left - seconds).count()};
    pollfd entry = {fd, POLLOUT, 0};
    return ppoll(&entry, 1, &limit, nullptr) > 0;
}

// The pauses of one Write on a descriptor that takes nothing. Each ends at its time, however late
// the one before ended, so that all of them last 2 seconds on a busy machine, too.
class RetryPauses {
  public:
    // Whether a write may wait by itself, as far as the descriptor allows.
    static constexpr bool kMayWait = true;

    // isEnding: not 0 once the connection ends; then they last no longer than those of a flush.
    RetryPauses(const Limits& limits, const std::atomic<int>& isEnding)
        : mLimits(limits), mIsEnding(isEnding) {}

    // Pauses before the next try; false when the tries are used up.
    bool Pause(int fd) {
        LIB_LOGE("write error, try again,retry_count: %d", mRetries);
        if (mRetries + mShortWrites >= mLimits.writeRetries) return false;
        // Ready, but took nothing all the same: its readiness is no reason to try sooner.
        if (mWasReady) mTrustsReadiness = false;
        if (mIsMoving) mNextTry = mStalledSince = Clock::now();
        mIsMoving = false;
        if (mIsEnding != 0 && Clock::now() - mStalledSince >= mLimits.stallAtEnd) return false;
        mNextTry += mLimits.retryPause;
        mWasReady = mTrustsReadiness && WaitWritable(fd, mNextTry);
        if (!mTrustsReadiness) std::this_thread::sleep_until(mNextTry);
        if (mWasReady) mIsMoving = true;
        ++mRetries;
        return true;
    }

    // fd took bytes. When it did not take all, it is full: the next try would be in vain so soon.
    void NoteProgress(int fd, bool tookAll) {
        mIsMoving = true;
        mTrustsReadiness = true;
        mWasReady = false;
        if (tookAll || mRetries + mShortWrites >= mLimits.writeRetries) return;
        ++mShortWrites;
        mWasReady = WaitWritable(fd, Clock::now() + mLimits.retryPause);
    }

  private:
    using Clock = std::chrono::steady_clock;

    const Limits& mLimits;
    int mRetries = 0;
    int mShortWrites = 0;  // waited for like a retry, in sum no longer
    const std::atomic<int>& mIsEnding;
    Clock::time_point mStalledSince;  // valid, as is the next, while fd takes nothing
    Clock::time_point mNextTry;
    bool mIsMoving = true;  // fd has just taken bytes, or may take some
    bool mWasReady = false;
    bool mTrustsReadiness = true;
};

// The waits of one Flush; the clock starts again with each progress.
class FlushWaits {
    using Clock = std::chrono::steady_clock;

  public:
    static constexpr bool kMayWait = false;

    // refusedSince: as the ring's RefusedSince.
    FlushWaits(const Limits& limits, Clock::time_point refusedSince) : mLimits(limits) {
        if (refusedSince != Clock::time_point()) mLastProgress = refusedSince;
    }

    bool Pause(int fd) {
        const Clock::time_point now = Clock::now();
        const Clock::time_point end = mLastProgress + mLimits.stallAtEnd;
        if (now >= end) return false;
        const bool isReady = WaitWritable(fd, std::min(end, now + mLimits.flushTryInterval));
        // Ready, but took nothing all the same.
        if (isReady && mWasReady) std::this_thread::sleep_for(mLimits.retryPause);
        mWasReady = isReady;
        return true;
    }

    void NoteProgress(int /*fd*/, bool /*tookAll*/) {
        mWasReady = false;
        mLastProgress = Clock::now();
    }

  private:
    const Limits& mLimits;
    Clock::time_point mLastProgress = Clock::now();
    bool mWasReady = false;
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
