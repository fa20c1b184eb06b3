// What the steps of a soak have in common: the daemon, its modem and tool, and what must hold.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <utility>

#include "tests/soak/traffic.h"

namespace e2e {

inline constexpr milliseconds kListenBound{
    5000};  // from the end of a connection until it listens again
inline constexpr long kResidentMarginKb = 512;  // over the most in the first round

inline const std::string kFileMask = SetMask(4, "\x03");

inline bool HasFailed() {
    return testing::UnitTest::GetInstance()->Failed();
}

inline size_t Entries(const std::string& directory) {
    return static_cast<size_t>(std::distance(std::filesystem::directory_iterator(directory), {}));
}

inline std::string WithoutOwnRequests(std::string atModem) {
    for (const std::string& own : {kFileMask, kDisableRequests}) {
        for (size_t at = atModem.find(own); at != std::string::npos; at = atModem.find(own, at))
            atModem.erase(at, own.size());
    }
    return atModem;
}

class SoakRig {
  public:
    // The daemon listens; what it holds now it must hold after each step.
    void Start() {
        SetProperty("log.tag", "I");
        Store(kMaskDirectory + "DIAG.cfg", kFileMask);
        mDaemon.Start();
        ASSERT_TRUE(mDaemon.WaitForLog(kListens));
        ASSERT_TRUE(LinkEventsArrive()) << "not root";
        mDescriptors = Entries(mDaemon.Proc("fd"));
        mThreads = Entries(mDaemon.Proc("task"));
    }

    void EndFirstRound() { mWarmResident = mResident; }

    void Report() {
        if (HasFailed()) {
            const std::string& log = mDaemon.Log();
            puts(log.substr(log.size() - std::min<size_t>(log.size(), 4000)).c_str());
        }
        printf("%d steps; listens after at most %d ms (%s); %zu descriptors, %zu threads, %ld kB\n",
               mSteps, static_cast<int>(mSlowest.count()), mSlowestStep, mDescriptors, mThreads,
               mResident);
    }

  protected:
    void Prepare(const char* step, bool captures, unsigned seed) {
        mStep = step;
        mRandom.seed(seed);
        for (const auto& entry : std::filesystem::directory_iterator(kCaptureDirectory))
            std::filesystem::remove(entry.path());
        mModem.reset();
        mLine.reset();
        mLine.emplace();
        mAnswersOwn = true;
        mIsMute = false;
        mAnswerTool = nullptr;
        Answer();
        ASSERT_TRUE(Switch(captures));
    }

    void CheckHoldings() {
        // The property is read through a descriptor, a hundred times a second.
        EXPECT_TRUE(WaitUntil([&] { return Entries(mDaemon.Proc("fd")) == mDescriptors; }))
            << Entries(mDaemon.Proc("fd")) << " descriptors instead of " << mDescriptors;
        EXPECT_EQ(mThreads, Entries(mDaemon.Proc("task")));
        const std::string status = Contents(mDaemon.Proc("status"));
        const long resident = std::stol(status.substr(status.find("VmRSS:") + 6));
        mResident = std::max(mResident, resident);
        EXPECT_LE(resident, mWarmResident + kResidentMarginKb) << "kB of memory";
        EXPECT_EQ(0, mDaemon.LogCount("Data number is not equal"));
        ++mSteps;
    }

    AssertionResult Switch(bool captures) {
        if (std::exchange(mCaptures, captures) == captures) return testing::AssertionSuccess();
        SetProperty(kLogSwitch, captures ? "true" : "false");
        return mDaemon.WaitForLog("ListenerThread prop change");
    }

    // A link that comes and goes may leave several lines of listening behind: only those after this
    // connection tell of its end.
    AssertionResult Connect(Tool& tool) {
        const int error = tool.Connect();
        if (error != 0) return testing::AssertionFailure() << "not connected: " << strerror(error);
        return mDaemon.WaitForLog("Accepted FD");
    }

    AssertionResult Attach(Tool& tool) {
        const auto connected = Connect(tool);
        return connected ? Greet(tool) : connected;
    }

    // Until the tool's first request came to the modem; before it, only the daemon's own may have.
    AssertionResult Greet(Tool& tool) {
        tool.Send(kToolMask);
        size_t at = std::string::npos;
        WaitUntil([&] {
            at = mModem->Received().find(kToolMask);
            return at != std::string::npos;
        });
        std::string before = mModem->Received();
        mModem->TakeReceived(before);
        if (at == std::string::npos)
            return testing::AssertionFailure() << "no request at the modem";
        before = WithoutOwnRequests(before.erase(at));
        before.erase(std::remove(before.begin(), before.end(), '\x7E'), before.end());
        return Same("", before);
    }

    AssertionResult ListensAgain(Clock::time_point since, milliseconds bound = kListenBound) {
        if (const auto listens = mDaemon.WaitForLog(kListens); !listens) return listens;
        const auto took = std::chrono::duration_cast<milliseconds>(Clock::now() - since);
        if (took > mSlowest) {
            mSlowest = took;
            mSlowestStep = mStep;
        }
        if (took <= bound) return testing::AssertionSuccess();
        return testing::AssertionFailure() << "listens after " << took.count() << " ms";
    }

    AssertionResult Leave(Tool& tool) {
        const auto since = Clock::now();
        tool.Close();
        return ListensAgain(since);
    }

    // The modem answers what the daemon sends at the end.
    AssertionResult Finish(Tool& tool) {
        mAnswersOwn = true;
        return Leave(tool);
    }

    void Answer() {
        mModem.emplace(*mLine, [this](const std::string& frame) {
            if (frame == kToolMask) mAnswersOwn = false;
            if (mAnswerTool && frame[0] == '\x0C') return mAnswerTool();
            return mAnswersOwn && !mIsMute && frame.size() > 1 ? Frame("\x0C answer") : "";
        });
    }

    // What came is the beginning of what was sent, and nothing is missing on flash before it.
    void CheckBegun(const Mix& mix, const std::string& atTool) {
        const std::string flash = Captured();
        EXPECT_TRUE(IsBegun(mix.forTool, atTool)) << "at the tool";
        EXPECT_TRUE(IsBegun(mix.own, flash)) << "on flash";
        EXPECT_GE(flash.size(), mix.OwnBefore(atTool.size())) << "on flash";
    }

    size_t UpTo(size_t limit) { return 1 + mRandom() % limit; }

    Daemon mDaemon;
    std::optional<Modem> mLine;  // a new one for each step
    std::optional<AnsweringModem> mModem;
    std::atomic<bool> mAnswersOwn{true};  // the daemon's requests; not while the tool is served
    std::atomic<bool> mIsMute{false};
    std::function<std::string()> mAnswerTool;  // to a request of the tool's, none when empty
    Tool mTool;
    bool mCaptures = false;
    Random mRandom;

    int mSteps = 0;
    const char* mStep = "";
    milliseconds mSlowest{0};
    const char* mSlowestStep = "";
    size_t mDescriptors = 0;
    size_t mThreads = 0;
    long mResident = 0;            // kB, the most so far
    long mWarmResident = 1 << 20;  // kB, the most in the first round, once it is over
};

}  // namespace e2e
