// Log masks at the modem: which requests arrive, when, and what happens when nobody answers.
#include <gtest/gtest.h>

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "capture_handset.h"

namespace e2e {
namespace {

namespace fs = std::filesystem;

const std::string kToolRequest = Frame("\x0C tool");
const std::string kFirst = Frame("\x0C first");
const std::string kSecond = Frame("\x0C second");

std::string AnswerAll(const std::string&) {
    return Frame("\x0C answer");
}

class LogMasks : public CaptureHandset {
  protected:
    // The tool's request arrives behind everything else, and its answer is all that the tool gets.
    void ExpectRelays(Tool& tool, AnsweringModem& answering, const std::string& before) {
        ASSERT_TRUE(tool.Send(kToolRequest));
        EXPECT_TRUE(answering.TakeReceived(before + kToolRequest));
        EXPECT_TRUE(Same(AnswerAll(""), tool.ReceiveExactly(AnswerAll("").size())));
    }
};

// ---- Which file ----

struct ChoiceCase {
    const char* name;
    std::optional<std::string> property;
    std::vector<std::string> files;
    std::string chosen;
};

class MaskFileChoice : public LogMasks, public testing::WithParamInterface<ChoiceCase> {};

TEST_P(MaskFileChoice, ArrivesAtTheModem) {
    const ChoiceCase& row = GetParam();
    fs::create_directory(kMaskDirectory + "sub");
    for (const std::string& file : row.files)
        Store(kMaskDirectory + file, Frame("\x0C" + file));
    if (row.property) SetProperty(kMaskProperty, *row.property);
    Switch(true);
    AnsweringModem answering(modem, AnswerAll);
    Tool tool;
    daemon.Start();
    ASSERT_TRUE(Serve(tool));
    ExpectRelays(tool, answering, Frame("\x0C" + row.chosen));
}

INSTANTIATE_TEST_SUITE_P(
    Rows, MaskFileChoice,
    testing::Values(
        ChoiceCase{"Unset", std::nullopt, {"DIAG.cfg", "diag.cfg", ".cfg"}, "DIAG.cfg"},
        ChoiceCase{"Empty", "", {"DIAG.cfg", "diag.cfg", ".cfg"}, "DIAG.cfg"},
        ChoiceCase{"Set", "lte", {"DIAG.cfg", "lte.cfg"}, "lte.cfg"},
        ChoiceCase{"UpperCase",
                   "LTE_Basic",
                   {"DIAG.cfg", "LTE_Basic.cfg", "lte_basic.cfg"},
                   "lte_basic.cfg"},
        ChoiceCase{"DefaultNameByProperty", "DIAG", {"DIAG.cfg", "diag.cfg"}, "diag.cfg"},
        ChoiceCase{"Missing", "lte", {"DIAG.cfg", "wcdma.cfg"}, "DIAG.cfg"},
        ChoiceCase{"InASubdirectory", "sub/lte", {"DIAG.cfg", "sub/lte.cfg"}, "DIAG.cfg"},
        ChoiceCase{"OutOfTheDirectory", "../cfg/lte", {"DIAG.cfg", "lte.cfg"}, "DIAG.cfg"}),
    NameOf<ChoiceCase>);

// ---- Damaged files ----

struct DamageCase {
    const char* name;
    std::string file;
    std::string arrives;
    std::string logged;
    bool isReadable = true;
};

class DamagedMaskFile : public LogMasks, public testing::WithParamInterface<DamageCase> {};

TEST_P(DamagedMaskFile, SendsWhatIsWholeAndRelays) {
    const DamageCase& row = GetParam();
    Store(kMaskDirectory + "DIAG.cfg", row.file);
    if (!row.isReadable) fs::permissions(kMaskDirectory + "DIAG.cfg", fs::perms::none);
    Switch(true);
    AnsweringModem answering(modem, AnswerAll);
    Tool tool;
    daemon.Start();
    ASSERT_TRUE(Serve(tool));
    ExpectRelays(tool, answering, row.arrives);
    EXPECT_NE(std::string::npos, daemon.Log().find(row.logged)) << daemon.Log();
}

DamageCase AllArrive(const char* name, const std::string& file, const std::string& logged) {
    return {name, file, file, logged};
}

const std::string kNoLogConfigurations =
    "E libquillod: This log mask command don't contain any log configurations";

INSTANTIATE_TEST_SUITE_P(
    Rows, DamagedMaskFile,
    testing::Values(
        DamageCase{"Empty", "", "", "log mask file = /vendor/etc/quillod/cfg/DIAG.cfg"},
        DamageCase{"Unreadable", kFirst, "",
                   "E libquillod: Open log mask file:/vendor/etc/quillod/cfg/DIAG.cfg fail, please "
                   "check the device,errno:13",
                   false},
        DamageCase{"NoClosingFlag", kFirst + kSecond.substr(0, kSecond.size() - 1), kFirst, ""},
        AllArrive("LoneFlags", "\x7E" + kFirst + "\x7E\x7E" + kSecond, ""),
        AllArrive("UnknownEquipment", SetMask(14, "\xFF") + kSecond,
                  "E libquillod: LogPacketslabel, invalid parameters"),
        AllArrive("NoMask", Frame(Bytes("\x73\0\0\0\3\0\0\0\1")) + kSecond, kNoLogConfigurations),
        AllArrive("HardlyACommand", Bytes("\x73\0\0\0\3\x7E") + kSecond, kNoLogConfigurations),
        AllArrive("LongestFrame", std::string(16383, 'x') + "\x7E" + kSecond, ""),
        DamageCase{"EndlessFrame", kFirst + std::string(16384, 'x') + "\x7E" + kSecond, kFirst,
                   ""}),
    NameOf<DamageCase>);

// ---- The switch ----

TEST_F(LogMasks, FollowTheSwitchInASilentConnection) {
    Store(kMaskDirectory + "DIAG.cfg", kFirst + SetMask(1, "\x01"));
    AnsweringModem silent(modem, [](const std::string&) { return ""; });
    Tool tool;
    daemon.Start();
    ASSERT_TRUE(Serve(tool));
    ASSERT_TRUE(SwitchAndWait(true));
    EXPECT_TRUE(silent.TakeReceived(kFirst + SetMask(1, "\x01")));
    ASSERT_TRUE(SwitchAndWait(false));
    ASSERT_TRUE(tool.Send(kToolRequest));
    EXPECT_TRUE(silent.TakeReceived(kDisableRequests + kToolRequest));
    EXPECT_EQ(1, daemon.LogCount("end, and status:1"));
    EXPECT_EQ("", tool.ReceiveAvailable());
}

TEST_F(LogMasks, AreDisabledAtTheEndAndOnceMoreWhenSwitchedOffBetween) {
    Store(kMaskDirectory + "DIAG.cfg", kFirst);
    Switch(true);
    AnsweringModem answering(modem, AnswerAll);
    Tool tool;
    daemon.Start();
    ASSERT_TRUE(Serve(tool));
    ExpectRelays(tool, answering, kFirst);
    ASSERT_TRUE(Finish(tool));
    EXPECT_TRUE(answering.TakeReceived(kDisableRequests));

    Switch(false);
    ASSERT_TRUE(daemon.WaitForLog("prop change false =0"));
    ASSERT_TRUE(Attach(tool));
    ExpectRelays(tool, answering, kDisableRequests);
    ASSERT_TRUE(Finish(tool));
    ASSERT_TRUE(Attach(tool));
    ExpectRelays(tool, answering, "");
    EXPECT_EQ(1, daemon.LogCount("D libquillod: gLogEnablePrev:1, force disable log again"));
}

// ---- Half a frame of the tool's under way ----

struct HalfFrameCase {
    const char* name;
    bool startsOn;
    void (*happens)(CaptureHandset& test, Daemon& daemon, Tool& tool);
    std::string arrives;
};

class HalfFrame : public LogMasks, public testing::WithParamInterface<HalfFrameCase> {
  public:
    using CaptureHandset::Finish;
    using CaptureHandset::Switch;
    using CaptureHandset::SwitchAndWait;
};

TEST_P(HalfFrame, IsEndedBeforeTheDaemonsRequests) {
    const HalfFrameCase& row = GetParam();
    const std::string half = kToolRequest.substr(0, 3);
    Store(kMaskDirectory + "DIAG.cfg", kFirst);
    Switch(row.startsOn);
    AnsweringModem answering(modem, AnswerAll);
    Tool tool;
    daemon.Start();
    ASSERT_TRUE(Serve(tool));
    if (row.startsOn) {
        ASSERT_TRUE(answering.TakeReceived(kFirst));
    }
    ASSERT_TRUE(tool.Send(half));
    ASSERT_TRUE(answering.TakeReceived(half));
    row.happens(*this, daemon, tool);
    EXPECT_TRUE(answering.TakeReceived(row.arrives));
}

HalfFrame& Of(CaptureHandset& test) {
    return static_cast<HalfFrame&>(test);
}

INSTANTIATE_TEST_SUITE_P(
    Rows, HalfFrame,
    testing::Values(HalfFrameCase{"SwitchedOn", false,
                                  [](CaptureHandset& test, Daemon&, Tool&) {
                                      ASSERT_TRUE(Of(test).SwitchAndWait(true));
                                  },
                                  "\x7E" + kFirst},
                    HalfFrameCase{"SwitchedOff", true,
                                  [](CaptureHandset& test, Daemon&, Tool&) {
                                      ASSERT_TRUE(Of(test).SwitchAndWait(false));
                                  },
                                  "\x7E" + kDisableRequests},
                    HalfFrameCase{"ConnectionEnds", true,
                                  [](CaptureHandset& test, Daemon&, Tool& tool) {
                                      ASSERT_TRUE(Of(test).Finish(tool));
                                  },
                                  "\x7E" + kDisableRequests},
                    HalfFrameCase{"NextConnectionStarts", false,
                                  [](CaptureHandset& test, Daemon& daemon, Tool& tool) {
                                      ASSERT_TRUE(Of(test).Finish(tool));
                                      Of(test).Switch(true);
                                      ASSERT_TRUE(daemon.WaitForLog("prop change true =1"));
                                      ASSERT_TRUE(Of(test).Attach(tool));
                                  },
                                  "\x7E" + kFirst}),
    NameOf<HalfFrameCase>);

// ---- Modems that do not play along ----

struct ModemCase {
    const char* name;
    bool takes;
    bool sends;
};

class UnwillingModem : public LogMasks, public testing::WithParamInterface<ModemCase> {};

TEST_P(UnwillingModem, HoldsNeitherStartNorEnd) {
    const ModemCase& row = GetParam();
    const std::string file = kFirst + kSecond + SetMask(1, "\x01");
    const std::string report = Frame("\x79" + Pattern(900, 1));
    Store(kMaskDirectory + "DIAG.cfg", file);
    Switch(true);
    std::atomic<bool> stops{false};
    std::thread sender([&] {
        while (row.sends && !stops)
            modem.SendSome(report.data(), report.size());
    });
    std::string taken;
    std::thread taker([&] {
        while (row.takes && !stops)
            taken += modem.ReceiveExactly(1, milliseconds(20));
    });
    if (!row.takes) modem.FillLine();
    Tool tool;
    daemon.Start();
    EXPECT_TRUE(Serve(tool));
    EXPECT_TRUE(Finish(tool));
    EXPECT_TRUE(Attach(tool));
    EXPECT_TRUE(Finish(tool));
    stops = true;
    sender.join();
    taker.join();
    if (row.takes) {
        const std::string once = file + kDisableRequests;
        EXPECT_TRUE(Same(once + once, taken + modem.ReceiveAvailable()));
    }
}

INSTANTIATE_TEST_SUITE_P(Rows, UnwillingModem,
                         testing::Values(ModemCase{"Mute", true, false},
                                         ModemCase{"NeverStopsSending", true, true},
                                         ModemCase{"TakesNothing", false, false}),
                         NameOf<ModemCase>);

// ---- Replies ----

TEST_F(LogMasks, DisablingTracesBothEndsOfALongReply) {
    std::string reply;
    std::string rows[5];
    for (int byte = 0; byte < 300; ++byte) {
        char text[4];
        snprintf(text, sizeof(text), "%02X", byte & 0xFF);
        reply += static_cast<char>(byte);
        const int row = byte < 60 ? byte / 20 : (byte - 260) / 20 + 3;
        if (byte < 60 || byte >= 260)
            rows[row] += (rows[row].empty() ? "" : " ") + std::string(text);
    }
    Switch(true);
    AnsweringModem answering(modem, [&](const std::string& frame) {
        return frame[0] == '\x73' ? reply : AnswerAll("");
    });
    Tool tool;
    daemon.Start();
    ASSERT_TRUE(Serve(tool));
    ASSERT_TRUE(Finish(tool));
    std::string trace = "D libquillod:  Suessfully read data from FTM port,and bytes=300\n";
    ASSERT_NE(std::string::npos, daemon.Log().find(trace)) << daemon.Log();
    std::string after = daemon.Log().substr(daemon.Log().find(trace) + trace.size());
    for (const std::string& row : rows) {
        const std::string line = after.substr(0, after.find('\n'));
        EXPECT_NE(std::string::npos, line.find("D libquillod: " + row)) << line;
        after.erase(0, line.size() + 1);
    }
    EXPECT_NE(std::string::npos,
              after.substr(0, after.find('\n')).find("DisableExtMSGMask ret: 1"));
}

TEST_F(LogMasks, TimeStampReplyComesFirstInEveryLaterCapture) {
    const std::string stamp = Frame("\x1D stamp");
    const std::string report = Frame("\x60 report");
    Store(kMaskDirectory + "DIAG.cfg", kFirst + Frame("\x1D") + kSecond);
    Switch(true);
    AnsweringModem answering(modem, [&](const std::string& frame) {
        if (frame[0] == '\x1D') return stamp;
        return frame == kToolRequest ? report + AnswerAll("") : AnswerAll("");
    });
    Tool tool;
    daemon.Start();
    ASSERT_TRUE(Serve(tool));
    ExpectRelays(tool, answering, kFirst + Frame("\x1D") + kSecond);
    ASSERT_TRUE(Finish(tool));
    EXPECT_TRUE(Same(stamp + report, Captured()));

    Store(kMaskDirectory + "DIAG.cfg", kFirst);
    ASSERT_TRUE(Attach(tool));
    ASSERT_TRUE(tool.Send(kToolRequest));
    ASSERT_EQ(AnswerAll("").size(), tool.ReceiveExactly(AnswerAll("").size()).size());
    ASSERT_TRUE(Finish(tool));
    ASSERT_EQ(2U, CaptureFiles().size());
    EXPECT_TRUE(Same(stamp + report, Contents(CaptureFiles()[1])));
}

}  // namespace
}  // namespace e2e
