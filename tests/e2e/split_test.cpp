// The split of the modem's stream between tool and flash, with the built daemon.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include <atomic>
#include <filesystem>
#include <optional>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include "handset.h"
#include "tools/modem/sim_modem.h"

namespace e2e {
namespace {

// The log codes that the tool asks for are 0x1000 and 0x117E, whose code bytes need an escape.
const std::string kToolMask = SetMask(1, "\x01" + std::string(46, '\0') + "\x40");
// Capture's own masks leave that equipment id alone.
const std::string kFileMask = SetMask(4, "\x03");

std::string LogPacket(uint16_t code, const std::string& payload) {
    return Frame(SimModem::MakeLogPacket(code, payload, 0x0123457D7E89ABCD));
}

class Split : public HandsetTest {
  protected:
    void TearDown() override { EXPECT_EQ(0, daemon.LogCount("Data number is not equal")); }

    // Capture is on, the modem programmed, and the tool has asked for its log codes. The modem
    // answers the first request only, which is not relayed.
    AssertionResult ServeCapturing(Tool& tool) {
        mModemSide.emplace(modem, [isFirst = true](const std::string&) mutable {
            return std::exchange(isFirst, false) ? Frame("\x0C answer") : "";
        });
        Store(kMaskDirectory + "DIAG.cfg", kFileMask);
        Switch(true);
        if (const auto served = Serve(tool); !served) return served;
        tool.Send(kToolMask);
        return mModemSide->TakeReceived(kFileMask + kToolMask);
    }

    // The number behind name in the connection's report line.
    uint64_t Reported(const std::string& name) {
        const size_t line = daemon.Log().rfind("ReadDataFromBP:");
        const size_t at = daemon.Log().find(name + ":", line);
        return at == std::string::npos ? 0 : std::stoull(daemon.Log().substr(at + name.size() + 1));
    }

    std::optional<AnsweringModem> mModemSide;
};

TEST_F(Split, DividesAStreamFrameForFrame) {
    static constexpr uint16_t kCodes[] = {0x1000, 0x1001, 0x117E, 0x117C, 0x4000, 0x7E7D, 0xE000};
    static const std::string kHeads[] = {
        "\x60", "\x79",     "\x92", "\x98",        "\x99",  // reports
        "\x1D", "\x4B\x0B", "\x13", Bytes("\x00"), Bytes("\x73\0\0\0\1\0\0\0")};
    std::minstd_rand random(7);
    std::string sent;
    std::string own;
    std::string forTool;
    for (int i = 0; i < 4000; ++i) {
        const std::string payload = std::to_string(i) + "\x7D\x7E" +
                                    Pattern(random() % (i % 9 == 0 ? 6000 : 200), random());
        const uint16_t code = kCodes[random() % 7];
        const size_t head = random() % 10;
        const bool isLog = random() % 2 == 0;
        const std::string frame = isLog ? LogPacket(code, payload) : Frame(kHeads[head] + payload);
        sent += frame;
        if (isLog || head < 5) own += frame;
        if (isLog ? code == 0x1000 || code == 0x117E : head >= 5) forTool += frame;
    }
    sent += Frame("\x1D last");
    forTool += Frame("\x1D last");

    ASSERT_TRUE(ServeCapturing(tool));
    std::thread sender([&] { modem.Send(sent); });
    EXPECT_TRUE(Same(forTool, tool.ReceiveExactly(forTool.size())));
    sender.join();
    ASSERT_TRUE(Finish(tool));
    EXPECT_TRUE(Same(own, Captured()));
    EXPECT_EQ(sent.size(), Reported("ReadDataFromBP"));
    EXPECT_EQ(own.size(), Reported("SavedToFlash"));
    EXPECT_EQ(forTool.size(), Reported("WriteToAP"));
}

TEST_F(Split, MergesTheToolsMaskAndShowsItItsOwn) {
    const std::string merged = Bytes("\x73\0\0\0\3\0\0\0\1\0\0\0\x10\0\0\0\x01\x80\x93\x8A\x7E");
    const std::string setDone =
        Bytes("\x73\0\0\0\3\0\0\0\0\0\0\0\1\0\0\0\x10\0\0\0\x01\0\xC3\x1D\x7E");
    const std::string getAnswer =
        Bytes("\x73\0\0\0\4\0\0\0\0\0\0\0\1\0\0\0\x10\0\0\0\x01\x80\x5C\x63\x7E");
    const std::string getShown =
        Bytes("\x73\0\0\0\4\0\0\0\0\0\0\0\1\0\0\0\x10\0\0\0\x01\0\x54\xE7\x7E");
    const std::string fileMask = SetMask(1, Bytes("\0\x80"));
    Store(kMaskDirectory + "DIAG.cfg", fileMask);
    Switch(true);
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
    ASSERT_TRUE(Finish(tool));
    EXPECT_TRUE(CaptureFiles().empty()) << "answers on flash";
}

struct CutCase {
    const char* name;
    std::string frame;
    size_t cut;
    bool isOwn;
    bool isForTool;
};

// Each frame with the switch going off and on.
class SwitchWithinAFrame : public Split,
                           public testing::WithParamInterface<std::tuple<CutCase, bool>> {};

TEST_P(SwitchWithinAFrame, LosesNothing) {
    const auto& [row, switchesOff] = GetParam();
    const std::string next = Frame("\x1D next");
    const std::string head = row.frame.substr(0, row.cut);
    const bool isHeadForTool = !switchesOff || row.isForTool;
    const std::string expected = row.frame.substr(isHeadForTool ? 0 : row.cut) + next;
    std::string toTool;
    ASSERT_TRUE(ServeCapturing(tool));
    if (switchesOff) {
        ASSERT_TRUE(modem.Send(head));
        ASSERT_TRUE(daemon.WaitForLog("size: " + std::to_string(head.size()) + "\n"));
    } else {
        ASSERT_TRUE(SwitchAndWait(false));
        ASSERT_TRUE(modem.Send(head));
        toTool = tool.ReceiveExactly(head.size());
    }
    ASSERT_TRUE(SwitchAndWait(!switchesOff));
    ASSERT_TRUE(modem.Send(row.frame.substr(row.cut) + next));
    toTool += tool.ReceiveExactly(expected.size() - toTool.size());
    EXPECT_TRUE(Same(expected, toTool));
    ASSERT_TRUE(Finish(tool));
    EXPECT_TRUE(Same(switchesOff && row.isOwn ? head : "", Captured()));
}

INSTANTIATE_TEST_SUITE_P(
    Rows, SwitchWithinAFrame,
    testing::Combine(
        testing::Values(
            CutCase{"Report", Frame("\x79 report of the modem"), 9, true, false},
            CutCase{"WantedLog", LogPacket(0x117E, "for the tool"), 7, true, true},
            CutCase{"OtherLog", LogPacket(0x117C, "for capture alone"), 20, true, false},
            CutCase{"Answer", Frame("\x1D answer"), 4, false, true},
            CutCase{"MaskAnswer", Frame(Bytes("\x73\0\0\0\4\0\0\0\0\0\0\0\4\0\0\0\x08\0\0\0\x03")),
                    12, false, true}),
        testing::Bool()),
    [](const auto& info) {
        return std::string(std::get<1>(info.param) ? "OffIn" : "OnIn") +
               std::get<0>(info.param).name;
    });

TEST_F(Split, LosesNothingWhileTheSwitchMovesUnderLoad) {
    constexpr int kReports = 40;  // behind each answer, with which they are a round
    constexpr int kToggles = 200;
    std::vector<std::string> rounds(1);  // touched by the modem alone until it has stopped
    Store(kMaskDirectory + "DIAG.cfg", kFileMask);
    std::optional<AnsweringModem> answering;
    answering.emplace(modem, [&](const std::string& request) {
        if (request[0] != '\x0C') return std::string();
        const std::string number = std::to_string(rounds.size());
        std::string& all = rounds.emplace_back(Frame("\x0C" + number));
        for (int i = 1; i <= kReports; ++i)
            all += Frame("\x79" + number + Pattern(97, i));
        return all;
    });
    size_t requests = 0;
    std::string requested;
    std::string atTool;
    const auto makeRoundTrip = [&] {
        const std::string number = std::to_string(++requests);
        const size_t from = atTool.size();
        requested += Frame("\x0C request " + number);
        tool.Send(Frame("\x0C request " + number));
        return WaitUntil([&] {
            atTool += tool.ReceiveAvailable();
            return atTool.find(Frame("\x0C" + number), from) != std::string::npos;
        });
    };
    ASSERT_TRUE(Serve(tool));
    std::set<size_t> wholeRounds;  // these came while the switch was off
    for (int toggle = 1; toggle <= kToggles; ++toggle) {
        Switch(toggle % 2 == 1);
        while (!daemon.TakeFromLog("E libquillod: end gLogEnable:"))
            ASSERT_TRUE(makeRoundTrip());
        ASSERT_TRUE(makeRoundTrip());
        if (toggle % 2 == 0) wholeRounds.insert(requests);
        ASSERT_TRUE(makeRoundTrip());
    }
    // The switch is off, so the last round's end comes to the tool.
    const std::string end = "\x79" + std::to_string(requests) + Pattern(97, kReports);
    ASSERT_TRUE(WaitUntil([&] {
        atTool += tool.ReceiveAvailable();
        return atTool.find(Frame(end)) != std::string::npos;
    }));
    ASSERT_TRUE(Finish(tool));
    std::string atModem = answering->Received();
    answering.reset();

    const std::string flash = Captured();
    size_t sent = 0;
    for (size_t round = 1; round < rounds.size(); ++round) {
        sent += rounds[round].size();
        const bool isWhole = atTool.find(rounds[round]) != std::string::npos;
        EXPECT_TRUE(isWhole || wholeRounds.count(round) == 0) << "while off, round " << round;
    }
    EXPECT_EQ(sent, atTool.size() + flash.size());
    EXPECT_GT(flash.size(), 0U);
    for (const std::string& own : {kFileMask, kDisableRequests}) {
        for (size_t at = atModem.find(own); at != std::string::npos; at = atModem.find(own, at))
            atModem.erase(at, own.size());
    }
    EXPECT_TRUE(Same(requested, atModem));
}

// count pairs of a report and an answer.
struct Pairs {
    explicit Pairs(int count) {
        for (int i = 0; i < count; ++i) {
            const std::string report = Frame("\x79" + Pattern(400, i));
            const std::string answer = Frame("\x1D" + Pattern(400, i + 1));
            all += report + answer;
            reports += report;
            answers += answer;
        }
    }
    std::string all;
    std::string reports;
    std::string answers;
};

TEST_F(Split, SlowFlashCostsTheToolNothingUntilThePoolIsFull) {
    // The writer thread begins with the record file: a full pipe in its place holds it.
    ASSERT_EQ(0, mkfifo(kRecordFile.c_str(), 0600));
    const int pipe = open(kRecordFile.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
    char page[4096] = {};
    while (write(pipe, page, sizeof(page)) > 0) {
    }
    const Pairs withinPool(1500);  // 0.6 MB of reports
    const Pairs beyond(6000);      // 2.4 MB of reports
    ASSERT_TRUE(ServeCapturing(tool));
    std::thread sender([&] {
        modem.Send(withinPool.all);
        modem.Send(beyond.all);
    });
    EXPECT_TRUE(Same(withinPool.answers, tool.ReceiveExactly(withinPool.answers.size())));
    EXPECT_TRUE(daemon.WaitForLog("PoolBuffer: Read wait cond"));
    EXPECT_TRUE(CaptureFiles().empty());
    while (read(pipe, page, sizeof(page)) > 0) {
    }
    EXPECT_TRUE(Same(beyond.answers, tool.ReceiveExactly(beyond.answers.size())));
    sender.join();
    ASSERT_TRUE(Finish(tool));
    close(pipe);
    EXPECT_TRUE(Same(withinPool.reports + beyond.reports, Captured()));
}

struct FlashFault {
    const char* name;
    void (*make)();
    const char* message;
};

// The captures lie on a flash of 16 pages.
class FaultyFlash : public Split, public testing::WithParamInterface<FlashFault> {
  protected:
    FaultyFlash() {
        EXPECT_EQ(0, mount("flash", "/data/misc", "tmpfs", 0, "size=64k"));
        std::filesystem::create_directory(kCaptureDirectory);
    }
    ~FaultyFlash() override { umount2("/data/misc", MNT_DETACH); }
};

TEST_P(FaultyFlash, CostsTheToolNothing) {
    const Pairs pairs(500);
    GetParam().make();
    ASSERT_TRUE(ServeCapturing(tool));
    std::thread sender([&] { modem.Send(pairs.all); });
    EXPECT_TRUE(Same(pairs.answers, tool.ReceiveExactly(pairs.answers.size())));
    sender.join();
    ASSERT_TRUE(Finish(tool));
    // At most once a store, of 12 and the last.
    EXPECT_GT(daemon.LogCount(GetParam().message), 0);
    EXPECT_LE(daemon.LogCount(GetParam().message), 14);
}

INSTANTIATE_TEST_SUITE_P(
    Rows, FaultyFlash,
    testing::Values(
        FlashFault{"Full", [] {}, "PoolBuffer: write error, ret="},
        FlashFault{"ReadOnly",
                   [] { mount(nullptr, "/data/misc", nullptr, MS_REMOUNT | MS_RDONLY, nullptr); },
                   "PoolBuffer: open file fail ptr length"},
        FlashFault{"NoDirectory", [] { std::filesystem::remove_all(kCaptureDirectory); },
                   "PoolBuffer: write error, ret=-1"}),
    NameOf<FlashFault>);

TEST_F(Split, ToolThatStopsReadingEndsTheConnectionAndTheCaptureIsWhole) {
    std::string all;
    std::vector<std::string> frames;
    for (int i = 0; i < 4000; ++i)
        all += frames.emplace_back(Frame((i % 2 == 0 ? "\x1D" : "\x79") + Pattern(1500, i)));
    Tool tool(4096);
    ASSERT_TRUE(ServeCapturing(tool));
    std::atomic<bool> stops{false};
    std::thread sender([&] {
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
}

}  // namespace
}  // namespace e2e
