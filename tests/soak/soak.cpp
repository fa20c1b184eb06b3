// soak MINUTES [SEED]: one daemon, kept busy with all that tools, modems and links do to it, in
// random order. After each step it must listen in time and hold what it held before.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "tests/soak/traffic.h"

namespace e2e {
namespace {

namespace fs = std::filesystem;
using testing::AssertionFailure;
using testing::AssertionSuccess;

constexpr milliseconds kListenBound{5000};  // from the end of a connection until it listens again
constexpr milliseconds kWorstBound{7000};   // the same with all troubles at once
constexpr long kResidentMarginKb = 512;     // over the most in the first round
constexpr char kTriesAgain[] = "write error, try again";
constexpr char kRelayFails[] = "Thread Read/Write Error, Exit";

const std::string kFileMask = SetMask(4, "\x03");

bool HasFailed() {
    return testing::UnitTest::GetInstance()->Failed();
}

size_t Entries(const std::string& directory) {
    return static_cast<size_t>(std::distance(fs::directory_iterator(directory), {}));
}

std::string WithoutOwnRequests(std::string atModem) {
    for (const std::string& own : {kFileMask, kDisableRequests}) {
        for (size_t at = atModem.find(own); at != std::string::npos; at = atModem.find(own, at))
            atModem.erase(at, own.size());
    }
    return atModem;
}

class Soak {
  public:
    struct Step {
        const char* name;
        void (Soak::*run)();
    };

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

    void Run(const Step& step, bool captures, unsigned seed) {
        mRandom.seed(seed);
        mStep = step.name;
        Prepare(captures);
        if (!HasFailed()) (this->*step.run)();
        if (!HasFailed()) CheckHoldings();
        ++mSteps;
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

    // A tool that is gone before it is served.
    void Knock() {
        ASSERT_TRUE(Connect(mTool));
        ASSERT_TRUE(Leave(mTool));
    }

    void Transfer() {
        const Mix mix(mRandom, UpTo(4'000'000), mCaptures);
        const std::string toModem = Mix(mRandom, UpTo(500'000), false).all;
        ASSERT_TRUE(Attach(mTool));
        const Flood down(*mLine, mix.all, Flood::kOnce);
        const Flood up(mTool, toModem, Flood::kOnce);
        EXPECT_TRUE(Same(mix.forTool, mTool.ReceiveExactly(mix.forTool.size())));
        EXPECT_TRUE(mModem->TakeReceived(toModem));
        ASSERT_TRUE(Finish(mTool));
        EXPECT_TRUE(Same(mix.own, Captured()));
    }

    void LeaveInAFlood() {
        const Mix mix(mRandom, 1'000'000, mCaptures);
        ASSERT_TRUE(Attach(mTool));
        const Flood flood(*mLine, mix.all, Flood::kEndless);
        const std::string atTool = mTool.ReceiveExactly(UpTo(4'000'000));
        ASSERT_TRUE(Leave(mTool));
        CheckBegun(mix, atTool);
    }

    void FlapTheLink() {
        for (size_t flaps = UpTo(3); flaps > 0; --flaps) {
            SetLink(false);
            ASSERT_TRUE(mDaemon.WaitForLog("USBLAN Removed"));
            SetLink(true);
            ASSERT_TRUE(ListensAgain(Clock::now()));
        }
    }

    void PullTheLink() {
        const Mix mix(mRandom, 1'000'000, mCaptures);
        Tool tool(4096);
        ASSERT_TRUE(Attach(tool));
        const Flood flood(*mLine, mix.all, Flood::kEndless);
        std::string atTool = tool.ReceiveExactly(UpTo(1'000'000));
        if (mRandom() % 2 == 0) {
            ASSERT_TRUE(mDaemon.WaitForLog(kTriesAgain));
        }
        const auto since = Clock::now();
        SetLink(false);
        std::this_thread::sleep_for(std::chrono::seconds(1));  // for so long it is away
        SetLink(true);
        ASSERT_TRUE(ListensAgain(since));
        atTool += tool.ReceiveAvailable();
        CheckBegun(mix, atTool);
    }

    // The link goes while the tool takes nothing and the modem floods, takes and answers nothing.
    void FailEverything() {
        const Mix mix(mRandom, 1'000'000, mCaptures);
        const std::string toModem = Mix(mRandom, 60'000, false).all;
        Tool tool(4096);
        ASSERT_TRUE(Attach(tool));
        mModem.reset();
        mLine->FillLine();
        const Flood down(*mLine, mix.all, Flood::kEndless);
        ASSERT_TRUE(tool.Send(toModem.substr(0, UpTo(toModem.size()))));
        ASSERT_TRUE(mDaemon.WaitForLog(kTriesAgain));
        const auto since = Clock::now();
        SetLink(false);
        std::this_thread::sleep_for(std::chrono::seconds(1));  // for so long it is away
        SetLink(true);
        ASSERT_TRUE(ListensAgain(since, kWorstBound));
        CheckBegun(mix, tool.ReceiveAvailable());
    }

    // Back-pressure; with capture on, for some time only.
    void StallTheTool() {
        const Mix mix(mRandom, 1'000'000 + UpTo(1'000'000), mCaptures);
        Tool tool(4096);
        ASSERT_TRUE(Attach(tool));
        const Flood flood(*mLine, mix.all, mCaptures ? Flood::kEndless : Flood::kOnce);
        ASSERT_TRUE(mDaemon.WaitForLog(mCaptures ? kRelayFails : kTriesAgain));
        if (mCaptures) {
            ASSERT_TRUE(ListensAgain(Clock::now()));
            CheckBegun(mix, tool.ReceiveAvailable());
        } else {
            EXPECT_TRUE(Same(mix.forTool, tool.ReceiveExactly(mix.forTool.size())));
            ASSERT_TRUE(Finish(tool));
        }
    }

    void LeaveStalled() {
        const Mix mix(mRandom, 1'000'000, mCaptures);
        Tool tool(4096);
        ASSERT_TRUE(Attach(tool));
        const Flood flood(*mLine, mix.all, Flood::kEndless);
        ASSERT_TRUE(mDaemon.WaitForLog(kTriesAgain));
        ASSERT_TRUE(Leave(tool));
        CheckBegun(mix, "");
    }

    void StallTheModem() {
        const std::string toModem = Mix(mRandom, 300'000, false).all;
        ASSERT_TRUE(Attach(mTool));
        mModem.reset();
        const Flood up(mTool, toModem, Flood::kOnce);
        ASSERT_TRUE(mDaemon.WaitForLog(kTriesAgain));
        Answer();
        EXPECT_TRUE(mModem->TakeReceived(toModem));
        ASSERT_TRUE(Finish(mTool));
    }

    void LeaveAFullLine() { LeaveBehind(1); }
    // The tool is not read any more, so that its end cannot be read either.
    void LeaveAFullRing() { LeaveBehind(60'000); }
    // Nor does the news of its end come: it stands behind bytes that find no room in the socket.
    void LeaveAFullSocket() { LeaveBehind(150'000); }

    // It takes all and sends its own frames, but answers nothing.
    void MuteTheModem() {
        mIsMute = true;
        Transfer();
    }

    void HangUpThePort() {
        const Mix mix(mRandom, 1'000'000, mCaptures);
        std::string atTool;
        ASSERT_TRUE(Attach(mTool));
        {
            const Flood flood(*mLine, mix.all, Flood::kEndless);
            atTool = mTool.ReceiveExactly(UpTo(1'000'000));
        }
        mModem.reset();
        mLine.reset();
        const auto since = Clock::now();
        atTool += mTool.ReceiveExactly(SIZE_MAX);  // until the daemon closes
        ASSERT_TRUE(ListensAgain(since));
        CheckBegun(mix, atTool);
    }

    void HideThePort() {
        const size_t misses = UpTo(10);
        mLine->Disappear();
        ASSERT_TRUE(Connect(mTool));
        for (size_t i = 0; i < misses; ++i)
            ASSERT_TRUE(mDaemon.WaitForLog("Can't open /dev/ttydiag0 on try " + std::to_string(i)));
        if (misses == 10) {
            ASSERT_TRUE(ListensAgain(Clock::now()));
            return;
        }
        mLine->Appear();
        ASSERT_TRUE(Greet(mTool));
        ASSERT_TRUE(Finish(mTool));
    }

    // The tool makes requests all the time; each answer has own frames of the modem behind it.
    void MoveTheSwitch() {
        std::string sent;
        std::string lastSent;
        int answers = 0;
        mAnswerTool = [&] {
            lastSent = Frame("\x79" + std::to_string(++answers) + " end");
            std::string all = Frame("\x0C" + std::to_string(answers));
            while (all.size() < 4000)
                all += Frame("\x79" + std::to_string(answers) + std::string(97, '}'));
            sent += all + lastSent;
            return all + lastSent;
        };
        int requests = 0;
        std::string requested;
        std::string atTool;
        const auto toolGets = [&](const std::string& frame, size_t from) {
            return WaitUntil([&] {
                atTool += mTool.ReceiveAvailable();
                return atTool.find(frame, from) != std::string::npos;
            });
        };
        const auto makeRoundTrip = [&] {
            const size_t from = atTool.size();
            requested += Frame("\x0C request " + std::to_string(++requests));
            mTool.Send(Frame("\x0C request " + std::to_string(requests)));
            return toolGets(Frame("\x0C" + std::to_string(requests)), from);
        };
        ASSERT_TRUE(Attach(mTool));
        for (size_t moves = 2 * UpTo(8) + (mCaptures ? 1 : 0); moves > 0; --moves) {
            ASSERT_TRUE(Switch(!mCaptures));
            for (size_t trips = UpTo(20); trips > 0; --trips)
                ASSERT_TRUE(makeRoundTrip());
        }
        ASSERT_TRUE(mDaemon.WaitForLog("end gLogEnable:0"));
        ASSERT_TRUE(makeRoundTrip());
        ASSERT_TRUE(toolGets(lastSent, 0));  // the switch is off
        ASSERT_TRUE(Finish(mTool));
        EXPECT_TRUE(Same(requested, WithoutOwnRequests(mModem->Received())));
        EXPECT_EQ(sent.size(), atTool.size() + Captured().size());
    }

  private:
    // The tool goes while about so many of its bytes find no room on the line.
    void LeaveBehind(size_t count) {
        const std::string last = Mix(mRandom, count, false).all;
        ASSERT_TRUE(Attach(mTool));
        mModem.reset();
        mLine->FillLine();
        ASSERT_TRUE(mTool.Send(last));
        ASSERT_TRUE(mDaemon.WaitForLog(kTriesAgain));
        ASSERT_TRUE(Leave(mTool));
    }

    void Prepare(bool captures) {
        for (const auto& entry : fs::directory_iterator(kCaptureDirectory))
            fs::remove(entry.path());
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
    }

    AssertionResult Switch(bool captures) {
        if (std::exchange(mCaptures, captures) == captures) return AssertionSuccess();
        SetProperty(kLogSwitch, captures ? "true" : "false");
        return mDaemon.WaitForLog("ListenerThread prop change");
    }

    // A link that comes and goes may leave several lines of listening behind: only those after this
    // connection tell of its end.
    AssertionResult Connect(Tool& tool) {
        const int error = tool.Connect();
        if (error != 0) return AssertionFailure() << "not connected: " << strerror(error);
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
        if (at == std::string::npos) return AssertionFailure() << "no request at the modem";
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
        if (took <= bound) return AssertionSuccess();
        return AssertionFailure() << "listens after " << took.count() << " ms";
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

constexpr Soak::Step kSteps[] = {
    {"a tool that is gone at once", &Soak::Knock},
    {"bytes both ways", &Soak::Transfer},
    {"a tool that leaves in a flood", &Soak::LeaveInAFlood},
    {"link flaps", &Soak::FlapTheLink},
    {"the link pulled", &Soak::PullTheLink},
    {"everything at once", &Soak::FailEverything},
    {"a tool that does not read", &Soak::StallTheTool},
    {"a tool that does not read and leaves", &Soak::LeaveStalled},
    {"a modem that takes nothing for a while", &Soak::StallTheModem},
    {"a tool that leaves a full line", &Soak::LeaveAFullLine},
    {"a tool that leaves a full ring", &Soak::LeaveAFullRing},
    {"a tool that leaves a full socket", &Soak::LeaveAFullSocket},
    {"a mute modem", &Soak::MuteTheModem},
    {"a port that hangs up", &Soak::HangUpThePort},
    {"a port that comes late", &Soak::HideThePort},
    {"switch changes", &Soak::MoveTheSwitch},
};

// Rounds of all steps, each with capture off and on, in random order, until the time is over.
int Run(std::chrono::seconds duration, unsigned seed) {
    const auto end = Clock::now() + duration;
    Random random(seed);
    std::vector<std::pair<const Soak::Step*, bool>> round;
    for (const auto& step : kSteps) {
        round.emplace_back(&step, false);
        round.emplace_back(&step, true);
    }
    Soak soak;
    soak.Start();
    for (size_t turn = 0; !HasFailed() && Clock::now() < end; ++turn) {
        const size_t at = turn % round.size();
        if (at == 0) std::shuffle(round.begin(), round.end(), random);
        if (turn == round.size()) soak.EndFirstRound();
        const auto& [step, captures] = round[at];
        soak.Run(*step, captures, static_cast<unsigned>(random()));
        if (HasFailed()) {
            printf("FAILED: seed %u, step %zu: %s, capture %s\n", seed, turn + 1, step->name,
                   captures ? "on" : "off");
        }
    }
    soak.Report();
    return HasFailed() ? 1 : 0;
}

}  // namespace
}  // namespace e2e

int main(int argc, char** argv) {
    const double minutes = argc == 2 || argc == 3 ? strtod(argv[1], nullptr) : 0;
    if (minutes <= 0) {
        fprintf(stderr, "usage: soak MINUTES [SEED]\n");
        return 2;
    }
    const auto seed =
        static_cast<unsigned>(argc == 3 ? strtoul(argv[2], nullptr, 10) : time(nullptr));
    setvbuf(stdout, nullptr, _IOLBF, 0);
    printf("soak: %s minutes, seed %u\n", argv[1], seed);
    return e2e::Run(std::chrono::seconds(static_cast<int64_t>(60 * minutes)), seed);
}
