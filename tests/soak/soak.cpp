// soak MINUTES [SEED]: one daemon, kept busy with all that tools, modems and links do to it, in
// random order. After each step it must listen in time and hold what it held before.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "tests/soak/soak_rig.h"

namespace e2e {
namespace {

constexpr milliseconds kWorstBound{7000};  // as kListenBound, with all troubles at once
constexpr char kTriesAgain[] = "write error, try again";
constexpr char kRelayFails[] = "Thread Read/Write Error, Exit";

class Soak : public SoakRig {
  public:
    struct Step {
        const char* name;
        void (Soak::*run)();
    };

    void Run(const Step& step, bool captures, unsigned seed) {
        Prepare(step.name, captures, seed);
        if (!HasFailed()) (this->*step.run)();
        if (!HasFailed()) CheckHoldings();
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
        std::optional<Flood> up(std::in_place, mTool, toModem, Flood::kOnce);
        EXPECT_TRUE(Same(mix.forTool, mTool.ReceiveExactly(mix.forTool.size())));
        EXPECT_TRUE(mModem->TakeReceived(toModem));
        up.reset();
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
        std::optional<Flood> up(std::in_place, mTool, toModem, Flood::kOnce);
        ASSERT_TRUE(mDaemon.WaitForLog(kTriesAgain));
        Answer();
        EXPECT_TRUE(mModem->TakeReceived(toModem));
        up.reset();
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
        std::mutex mutex;  // of the next two
        std::string sent;
        std::string lastSent;
        int answers = 0;
        mModem.reset();
        mAnswerTool = [&] {
            const std::lock_guard<std::mutex> lock(mutex);
            lastSent = Frame("\x79" + std::to_string(++answers) + " end");
            std::string all = Frame("\x0C" + std::to_string(answers));
            while (all.size() < 4000)
                all += Frame("\x79" + std::to_string(answers) + std::string(97, '}'));
            sent += all + lastSent;
            return all + lastSent;
        };
        Answer();
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
        mutex.lock();
        const std::string last = lastSent;
        mutex.unlock();
        ASSERT_TRUE(toolGets(last, 0));  // the switch is off
        ASSERT_TRUE(Finish(mTool));
        EXPECT_TRUE(Same(requested, WithoutOwnRequests(mModem->Received())));
        const std::lock_guard<std::mutex> lock(mutex);
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
