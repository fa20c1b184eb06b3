// The split of the modem's stream between tool and flash, with the built daemon.
#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <optional>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "capture_handset.h"
#include "tools/sim_modem.h"

namespace e2e {
namespace {

constexpr char kUnbalanced[] = "Data number is not equal";

// The log codes that the tool asks for are 0x1000 and 0x117E, whose code bytes need an escape.
const std::string kToolMask = SetMask(1, "\x01" + std::string(46, '\0') + "\x40");
// Capture's own masks leave that equipment id alone.
const std::string kFileMask = SetMask(4, "\x03");

std::string LogPacket(uint16_t code, const std::string& payload) {
    return Frame(SimModem::MakeLogPacket(code, payload, 0x0123457D7E89ABCD));
}

// Some frames of the modem's, and what becomes of them.
struct Traffic {
    std::string sent;
    std::string own;   // what flash gets
    std::string tool;  // and the tool

    void Add(const std::string& frame, bool isOwn, bool isForTool) {
        sent += frame;
        if (isOwn) own += frame;
        if (isForTool) tool += frame;
    }
    void AddAnswer(const std::string& packet) { Add(Frame(packet), false, true); }
    void AddReport(const std::string& packet) { Add(Frame(packet), true, false); }
    void AddLog(uint16_t code, const std::string& payload) {
        Add(LogPacket(code, payload), true, code == 0x1000 || code == 0x117E);
    }
};

Traffic MixedTraffic(int frames) {
    static constexpr char kReports[] = {'\x60', '\x79', '\x92', '\x98', '\x99'};
    static constexpr uint16_t kCodes[] = {0x1000, 0x1001, 0x117E, 0x117C, 0x4000, 0x7E7D, 0xE000};
    static const std::string kAnswers[] = {Bytes("\x00"), "\x1D", "\x4B\x0B", "\x13",
                                           Bytes("\x73\0\0\0\1\0\0\0")};
    std::minstd_rand random(7);
    Traffic traffic;
    for (int i = 0; i < frames; ++i) {
        const std::string payload = std::to_string(i) + "\x7D\x7E" +
                                    Pattern(random() % (i % 9 == 0 ? 6000 : 200), random());
        switch (random() % 4) {
            case 0:
                traffic.AddReport(kReports[random() % 5] + payload);
                break;
            case 1:
                traffic.AddAnswer(kAnswers[random() % 5] + payload);
                break;
            default:
                traffic.AddLog(kCodes[random() % 7], payload);
        }
    }
    traffic.AddAnswer("\x1D last");
    return traffic;
}

class Split : public CaptureHandset {
  protected:
    // Capture is on, the modem programmed, and the tool has asked for its log codes. The modem
    // answers the first request only, which is not relayed.
    AssertionResult ServeCapturing(Tool& tool) {
        mModemSide.emplace(modem, [isFirst = true](const std::string&) mutable {
            return std::exchange(isFirst, false) ? Frame("\x0C answer") : "";
        });
        Store(kMaskDirectory + "DIAG.cfg", kFileMask);
        Switch(true);
        daemon.Start();
        if (const auto served = Serve(tool); !served) return served;
        tool.Send(kToolMask);
        return mModemSide->TakeReceived(kFileMask + kToolMask);
    }

    // The number behind name in the connection's last report line.
    uint64_t Reported(const std::string& name) {
        const std::string& log = daemon.Log();
        const size_t line = log.rfind("ReadDataFromBP:");
        const size_t at = line == std::string::npos ? line : log.find(name + ":", line);
        return at == std::string::npos ? 0 : std::stoull(log.substr(at + name.size() + 1));
    }

    void ExpectReport(uint64_t fromModem, uint64_t toFlash, uint64_t toTool) {
        EXPECT_EQ(fromModem, Reported("ReadDataFromBP"));
        EXPECT_EQ(toFlash, Reported("SavedToFlash"));
        EXPECT_EQ(toTool, Reported("WriteToAP"));
        EXPECT_EQ(0, daemon.LogCount(kUnbalanced));
    }

    std::optional<AnsweringModem> mModemSide;
};

TEST_F(Split, DividesAStreamFrameForFrame) {
    const Traffic traffic = MixedTraffic(4000);
    Tool tool;
    ASSERT_TRUE(ServeCapturing(tool));
    std::thread sender([&] { modem.Send(traffic.sent); });
    EXPECT_TRUE(Same(traffic.tool, tool.ReceiveExactly(traffic.tool.size())));
    sender.join();
    ASSERT_TRUE(Finish(tool));
    EXPECT_TRUE(Same(traffic.own, Captured()));
    ExpectReport(traffic.sent.size(), traffic.own.size(), traffic.tool.size());
}

// ---- The tool's own masks ----

TEST_F(Split, MergesTheToolsMaskAndShowsItItsOwn) {
    const std::string merged = Bytes("\x73\0\0\0\3\0\0\0\1\0\0\0\x10\0\0\0\x01\x80\x93\x8A\x7E");
    const std::string setDone =
        Bytes("\x73\0\0\0\3\0\0\0\0\0\0\0\1\0\0\0\x10\0\0\0\x01\0\xC3\x1D\x7E");
    const std::string getAnswer =
        Bytes("\x73\0\0\0\4\0\0\0\0\0\0\0\1\0\0\0\x10\0\0\0\x01\x80\x5C\x63\x7E");
    const std::string getShown =
        Bytes("\x73\0\0\0\4\0\0\0\0\0\0\0\1\0\0\0\x10\0\0\0\x01\0\x54\xE7\x7E");
    const std::string othersAnswer = Bytes("\x73\0\0\0\4\0\0\0\0\0\0\0\4\0\0\0\x08\0\0\0");
    const std::string fileMask = SetMask(1, Bytes("\0\x80"));
    Store(kMaskDirectory + "DIAG.cfg", fileMask);
    Switch(true);
    Tool tool;
    daemon.Start();
    ASSERT_TRUE(Serve(tool));
    ASSERT_TRUE(Same(fileMask, modem.ReceiveExactly(fileMask.size())));
    ASSERT_TRUE(tool.Send(Bytes("\x73\0\0\0\3\0\0\0\1\0\0\0\x10\0\0\0\x01\0\x9B\x0E\x7E")));
    EXPECT_TRUE(Same(merged, modem.ReceiveExactly(merged.size())));

    // Refused or not, in one piece or two: the tool sees its own mask set.
    ASSERT_TRUE(modem.Send(Frame(Bytes("\x73\0\0\0\3\0\0\0\2\0\0\0\1\0\0\0\x10\0\0\0\x01\x80"))));
    EXPECT_TRUE(Same(setDone, tool.ReceiveExactly(setDone.size())));
    EXPECT_TRUE(daemon.WaitForLog("E libquillod: status is 2, please check the code"));
    ASSERT_TRUE(modem.Send(getAnswer.substr(0, 9)));
    ASSERT_TRUE(daemon.WaitForLog("m73CmdResponseBufferCurrentLength: 9,"));
    ASSERT_TRUE(modem.Send(getAnswer.substr(9)));
    EXPECT_TRUE(Same(getShown, tool.ReceiveExactly(getShown.size())));
    ASSERT_TRUE(modem.Send(Frame(othersAnswer + "\x03")));
    const std::string othersShown = Frame(othersAnswer + Bytes("\0"));
    EXPECT_TRUE(Same(othersShown, tool.ReceiveExactly(othersShown.size())));
    ASSERT_TRUE(Finish(tool));
    EXPECT_TRUE(CaptureFiles().empty()) << "answers on flash";
    EXPECT_EQ(0, daemon.LogCount(kUnbalanced));
}

// ---- The switch moves within a frame ----

struct CutCase {
    const char* name;
    std::string frame;
    size_t cut;
    bool switchesOff;   // otherwise on
    size_t toFlash;     // bytes of the frame, from its beginning
    size_t toToolFrom;  // offset in the frame from which on the tool gets it
};

const std::string kReport = Frame("\x79 report of the modem");
const std::string kWantedLog = LogPacket(0x117E, "wanted by the tool");
const std::string kOtherLog = LogPacket(0x117C, "wanted by nobody but capture");
const std::string kAnswer = Frame("\x1D answer");
const std::string kMaskAnswer = Frame(Bytes("\x73\0\0\0\4\0\0\0\0\0\0\0\4\0\0\0\x08\0\0\0\x03"));

class SwitchWithinAFrame : public Split, public testing::WithParamInterface<CutCase> {};

TEST_P(SwitchWithinAFrame, LosesNothing) {
    const CutCase& row = GetParam();
    const std::string next = Frame("\x1D next");
    const std::string head = row.frame.substr(0, row.cut);
    Tool tool;
    ASSERT_TRUE(ServeCapturing(tool));
    std::string toTool;
    if (!row.switchesOff) {
        ASSERT_TRUE(SwitchAndWait(false));
    }
    ASSERT_TRUE(modem.Send(head));
    if (row.switchesOff) {
        ASSERT_TRUE(daemon.WaitForLog("size: " + std::to_string(head.size()) + "\n"));
    } else {
        toTool = tool.ReceiveExactly(head.size());
    }
    ASSERT_TRUE(SwitchAndWait(!row.switchesOff));
    ASSERT_TRUE(modem.Send(row.frame.substr(row.cut) + next));
    const std::string expected = row.frame.substr(row.toToolFrom) + next;
    toTool += tool.ReceiveExactly(expected.size() - toTool.size());
    EXPECT_TRUE(Same(expected, toTool));
    ASSERT_TRUE(Finish(tool));
    EXPECT_TRUE(Same(row.frame.substr(0, row.toFlash), Captured()));
    EXPECT_EQ(0, daemon.LogCount(kUnbalanced));
}

CutCase OnToOff(const char* name, const std::string& frame, size_t cut, bool isOwn,
                bool isForTool) {
    return {name, frame, cut, true, isOwn ? cut : 0, isForTool ? 0 : cut};
}

CutCase OffToOn(const char* name, const std::string& frame, size_t cut) {
    return {name, frame, cut, false, 0, 0};
}

INSTANTIATE_TEST_SUITE_P(
    Rows, SwitchWithinAFrame,
    testing::Values(OnToOff("OffInAReport", kReport, 9, true, false),
                    OnToOff("OffInAWantedLog", kWantedLog, 20, true, true),
                    OnToOff("OffInAWantedLogsEscapedCode", kWantedLog, 7, true, true),
                    OnToOff("OffInAnotherLog", kOtherLog, 20, true, false),
                    OnToOff("OffInAnAnswer", kAnswer, 4, false, true),
                    OnToOff("OffInAMaskAnswer", kMaskAnswer, 12, false, true),
                    OffToOn("OnInAReport", kReport, 9), OffToOn("OnInAWantedLog", kWantedLog, 20),
                    OffToOn("OnInAnotherLog", kOtherLog, 4), OffToOn("OnInAnAnswer", kAnswer, 4),
                    OffToOn("OnInAMaskAnswer", kMaskAnswer, 12)),
    NameOf<CutCase>);

// ---- The switch moves again and again ----

// Round trips of a tool with a modem that sends reports behind each of its answers.
class ToggledSplit : public Split {
  protected:
    static constexpr int kReportsPerRound = 40;

    // Called by the modem; keeps all that it sends.
    std::string AnswerRequest(const std::string& frame) {
        if (frame[0] != '\x0C') return "";
        const std::lock_guard<std::mutex> lock(mMutex);
        const std::string number = std::to_string(++mRound);
        mSent.push_back(Frame("\x0C" + number));
        std::string all = mSent.back();
        for (int i = 0; i < kReportsPerRound; ++i) {
            mSent.push_back(Frame("\x79" + number + "." + std::to_string(i) + Pattern(97, i)));
            all += mSent.back();
        }
        return all;
    }

    // Sends the next request and waits for the end of its answer.
    AssertionResult RoundTrip(Tool& tool) {
        const std::string number = std::to_string(++mRequests);
        tool.Send(Frame("\x0C request " + number));
        mRequested += Frame("\x0C request " + number);
        const std::string answer = Frame("\x0C" + number);
        const size_t from = mAtTool.size();
        const bool came = WaitUntil([&] {
            mAtTool += tool.ReceiveAvailable();
            return mAtTool.find(answer, from) != std::string::npos;
        });
        return came ? testing::AssertionSuccess()
                    : testing::AssertionFailure() << "no answer to request " << number;
    }

    // Whether what the modem sent in the round before stands between the last two answers.
    AssertionResult LastRoundIsWhole() {
        const std::string before = Frame("\x0C" + std::to_string(mRequests - 1));
        const std::string last = Frame("\x0C" + std::to_string(mRequests));
        std::string expected;
        const size_t perRound = kReportsPerRound + 1;
        const size_t first = (static_cast<size_t>(mRequests) - 2) * perRound;
        const std::vector<std::string> sent = Sent();
        for (size_t i = first; i < first + perRound; ++i)
            expected += sent[i];
        const size_t begin = mAtTool.find(before);
        return Same(expected, mAtTool.substr(begin, mAtTool.find(last) - begin));
    }

    // All the modem's frames.
    std::vector<std::string> Sent() {
        const std::lock_guard<std::mutex> lock(mMutex);
        return mSent;
    }

    std::mutex mMutex;
    int mRound = 0;                  // mMutex
    std::vector<std::string> mSent;  // mMutex
    int mRequests = 0;
    std::string mRequested;
    std::string mAtTool;
};

TEST_F(ToggledSplit, LosesNothingEitherWay) {
    constexpr int kToggles = 50;
    Store(kMaskDirectory + "DIAG.cfg", kFileMask);
    AnsweringModem answering(modem, [this](const std::string& f) { return AnswerRequest(f); });
    Tool tool;
    daemon.Start();
    ASSERT_TRUE(Serve(tool));
    for (int toggle = 1; toggle <= kToggles; ++toggle) {
        Switch(toggle % 2 == 1);
        while (daemon.LogCount("E libquillod: end gLogEnable:") < toggle)
            ASSERT_TRUE(RoundTrip(tool));
        ASSERT_TRUE(RoundTrip(tool));
        ASSERT_TRUE(RoundTrip(tool));
        if (toggle % 2 == 0) {
            ASSERT_TRUE(LastRoundIsWhole()) << "while off, after change " << toggle;
        }
    }
    const std::vector<std::string> sent = Sent();
    WaitUntil([&] {
        mAtTool += tool.ReceiveAvailable();
        return mAtTool.find(sent.back()) != std::string::npos;
    });
    ASSERT_TRUE(Finish(tool));

    // Each frame went to the tool, or to flash, or its head to flash and its tail to the tool.
    const std::string flash = Captured();
    size_t atTool = 0;
    size_t atFlash = 0;
    for (const std::string& frame : sent) {
        if (mAtTool.compare(atTool, frame.size(), frame) == 0) {
            atTool += frame.size();
            continue;
        }
        size_t head = 0;
        while (head < frame.size() && atFlash + head < flash.size() &&
               flash[atFlash + head] == frame[head])
            ++head;
        ASSERT_EQ(0, mAtTool.compare(atTool, frame.size() - head, frame, head)) << frame;
        ASSERT_TRUE(frame[0] == '\x79' || head == 0) << "an answer on flash: " << frame;
        atFlash += head;
        atTool += frame.size() - head;
    }
    EXPECT_EQ(mAtTool.size(), atTool);
    EXPECT_EQ(flash.size(), atFlash);
    EXPECT_GT(flash.size(), 0U);

    std::string atModem = answering.Received();
    for (const std::string& own : {kFileMask, kDisableRequests}) {
        for (size_t at = atModem.find(own); at != std::string::npos; at = atModem.find(own, at))
            atModem.erase(at, own.size());
    }
    EXPECT_TRUE(Same(mRequested, atModem));
    EXPECT_EQ(0, daemon.LogCount(kUnbalanced));
}

// ---- A tool that reads nothing ----

TEST_F(Split, ToolThatStopsReadingEndsTheConnectionAndTheCaptureIsWhole) {
    std::vector<std::string> frames;
    for (int i = 0; i < 4000; ++i)
        frames.push_back(
            Frame((i % 2 == 0 ? "\x1D" : "\x79") + std::to_string(i) + Pattern(1500, i)));
    Tool tool(4096);
    ASSERT_TRUE(ServeCapturing(tool));
    std::atomic<bool> stops{false};
    std::thread sender([&] {
        std::string all;
        for (const std::string& frame : frames)
            all += frame;
        for (size_t sent = 0; sent < all.size() && !stops;)
            sent += modem.SendSome(all.data() + sent, std::min<size_t>(4096, all.size() - sent));
    });
    EXPECT_TRUE(daemon.WaitForLog("E libquillod: Thread Read/Write Error, Exit"));
    EXPECT_TRUE(daemon.WaitForLog(kListens));
    stops = true;
    sender.join();
    uint64_t left = Reported("ReadDataFromBP");
    std::string own;
    for (const std::string& frame : frames) {
        const std::string taken = frame.substr(0, left);
        if (frame[0] == '\x79') own += taken;
        left -= taken.size();
    }
    EXPECT_EQ(0U, left);
    EXPECT_FALSE(own.empty());
    EXPECT_TRUE(Same(own, Captured()));
    EXPECT_EQ(0, daemon.LogCount(kUnbalanced));
}

}  // namespace
}  // namespace e2e
