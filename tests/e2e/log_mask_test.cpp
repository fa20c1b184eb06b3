// Log masks at the modem: which requests arrive, when, and what happens when nobody answers.
#include <gtest/gtest.h>

#include <atomic>
#include <numeric>
#include <optional>
#include <string>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include "handset.h"
#include "tools/common/frame_text.h"

namespace e2e {
namespace {

const std::string kToolRequest = Frame("\x0C tool");
const std::string kFirst = Frame("\x0C first");
const std::string kSecond = Frame("\x0C second");

std::string AnswerAll(const std::string&) {
    return Frame("\x0C answer");
}

class LogMasks : public HandsetTest {
  protected:
    // Serves a tool whose connection begins with these requests to the modem.
    void ExpectStart(AnsweringModem& answering, const std::string& requests) {
        ASSERT_TRUE(Serve(tool));
        ExpectRelays(answering, requests);
    }

    // The tool's request arrives behind everything else, and its answer is all that the tool gets.
    void ExpectRelays(AnsweringModem& answering, const std::string& before) {
        ASSERT_TRUE(tool.Send(kToolRequest));
        EXPECT_TRUE(answering.TakeReceived(before + kToolRequest));
        EXPECT_TRUE(Same(AnswerAll(""), tool.ReceiveExactly(AnswerAll("").size())));
    }
};

struct FileCase {
    const char* name;
    std::vector<std::pair<std::string, std::string>> files;
    std::string arrives;
    std::optional<std::string> property = std::nullopt;
    std::string logged = {};
};

class MaskFile : public LogMasks, public testing::WithParamInterface<FileCase> {};

TEST_P(MaskFile, ArrivesAsFarAsItIsWhole) {
    const FileCase& row = GetParam();
    for (const auto& [name, bytes] : row.files)
        Store(kMaskDirectory + name, bytes);
    if (row.property) SetProperty(kMaskProperty, *row.property);
    Switch(true);
    AnsweringModem answering(modem, AnswerAll);
    ExpectStart(answering, row.arrives);
    EXPECT_NE(std::string::npos, daemon.Log().find(row.logged)) << daemon.Log();
}

FileCase Default(const char* name, const std::string& bytes, const std::string& arrives,
                 const std::string& logged = "") {
    return {name, {{"DIAG.cfg", bytes}}, arrives, std::nullopt, logged};
}

const std::string kLoneFlags = "\x7E" + kFirst + "\x7E\x7E" + kSecond;
const std::string kUnknownId = SetMask(14, "\xFF") + kSecond;
const std::string kTooShort = Bytes("\x73\0\0\0\3\x7E") + kSecond;

INSTANTIATE_TEST_SUITE_P(
    Rows, MaskFile,
    testing::Values(
        FileCase{"Unset", {{"DIAG.cfg", kFirst}, {"diag.cfg", kSecond}, {".cfg", ""}}, kFirst},
        FileCase{"Empty", {{"DIAG.cfg", kFirst}, {".cfg", kSecond}}, kFirst, ""},
        FileCase{"UpperCase", {{"LTE.cfg", kFirst}, {"lte.cfg", kSecond}}, kSecond, "LTE"},
        FileCase{"Missing", {{"DIAG.cfg", kFirst}, {"gsm.cfg", kSecond}}, kFirst, "lte"},
        FileCase{"Path", {{"DIAG.cfg", kFirst}, {"lte.cfg", kSecond}}, kFirst, "../cfg/lte"},
        Default("NoClosingFlag", kFirst + kSecond.substr(0, kSecond.size() - 1), kFirst),
        Default("LoneFlags", kLoneFlags, kLoneFlags),
        Default("UnknownEquipment", kUnknownId, kUnknownId, "LogPacketslabel, invalid parameters"),
        Default("TooShort", kTooShort, kTooShort, "don't contain any log configurations"),
        Default("Endless", kFirst + std::string(16384, 'x') + "\x7E" + kSecond, kFirst)),
    NameOf<FileCase>);

TEST_F(LogMasks, FollowTheSwitchInASilentConnection) {
    Store(kMaskDirectory + "DIAG.cfg", kFirst + SetMask(1, "\x01"));
    AnsweringModem silent(modem, [](const std::string&) { return ""; });
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
    ExpectStart(answering, kFirst);
    ASSERT_TRUE(Finish(tool));
    EXPECT_TRUE(answering.TakeReceived(kDisableRequests));

    Switch(false);
    ASSERT_TRUE(daemon.WaitForLog("prop change false =0"));
    ASSERT_TRUE(Attach(tool));
    ExpectRelays(answering, kDisableRequests);
    ASSERT_TRUE(Finish(tool));
    ASSERT_TRUE(Attach(tool));
    ExpectRelays(answering, "");
    EXPECT_EQ(1, daemon.LogCount("D libquillod: gLogEnablePrev:1, force disable log again"));
}

// Whether the switch is on, and whether the connection ends; otherwise the switch moves.
class HalfFrame : public LogMasks, public testing::WithParamInterface<std::tuple<bool, bool>> {};

TEST_P(HalfFrame, IsEndedBeforeTheDaemonsRequests) {
    const auto [isOn, ends] = GetParam();
    const std::string half = kToolRequest.substr(0, 3);
    Store(kMaskDirectory + "DIAG.cfg", kFirst);
    Switch(isOn);
    AnsweringModem answering(modem, AnswerAll);
    ExpectStart(answering, isOn ? kFirst : "");
    ASSERT_TRUE(tool.Send(half));
    ASSERT_TRUE(answering.TakeReceived(half));
    if (ends) {
        ASSERT_TRUE(Finish(tool));
    } else {
        ASSERT_TRUE(SwitchAndWait(!isOn));
    }
    if (ends && !isOn) {  // the next connection's requests come first
        Switch(true);
        ASSERT_TRUE(daemon.WaitForLog("prop change true =1"));
        ASSERT_TRUE(Attach(tool));
    }
    EXPECT_TRUE(answering.TakeReceived("\x7E" + (isOn ? kDisableRequests : kFirst)));
}

INSTANTIATE_TEST_SUITE_P(Situations, HalfFrame, testing::Combine(testing::Bool(), testing::Bool()));

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
    std::optional<AnsweringModem> taker;
    if (row.takes) {
        taker.emplace(modem, [](const std::string&) { return ""; });
    } else {
        modem.FillLine();
    }
    EXPECT_TRUE(Serve(tool));
    EXPECT_TRUE(Finish(tool));
    stops = true;
    sender.join();
    EXPECT_TRUE(!taker || taker->TakeReceived(file + kDisableRequests));
}

INSTANTIATE_TEST_SUITE_P(Rows, UnwillingModem,
                         testing::Values(ModemCase{"Mute", true, false},
                                         ModemCase{"NeverStopsSending", true, true},
                                         ModemCase{"TakesNothing", false, false}),
                         NameOf<ModemCase>);

TEST_F(LogMasks, DisablingTracesBothEndsOfALongReply) {
    std::string reply(300, '\0');
    std::iota(reply.begin(), reply.end(), '\0');
    const auto row = [&](size_t from) {
        return "D libquillod: " + FormatHex(reply.substr(from, 20), 20);
    };
    Switch(true);
    AnsweringModem answering(modem, [&](const std::string& frame) {
        return frame[0] == '\x73' ? reply : AnswerAll("");
    });
    ASSERT_TRUE(Serve(tool));
    tool.Close();
    ASSERT_TRUE(daemon.WaitForLog("data from FTM port,and bytes=300\n"));
    for (const size_t from : {0, 20, 40, 260, 280})
        EXPECT_TRUE(daemon.WaitForLog(row(from))) << from;
    EXPECT_EQ(0, daemon.LogCount(row(60)));
    EXPECT_TRUE(daemon.WaitForLog("DisableExtMSGMask ret: 1"));
}

TEST_F(LogMasks, TimeStampReplyComesFirstInEveryLaterCapture) {
    std::string stamp = Frame("\x1D stamp");
    const std::string report = Frame("\x60 report");
    Store(kMaskDirectory + "DIAG.cfg", kFirst + Frame("\x1D") + kSecond);
    Switch(true);
    AnsweringModem answering(modem, [&](const std::string& frame) {
        if (frame[0] == '\x1D') return stamp;
        return frame == kToolRequest ? report + AnswerAll("") : AnswerAll("");
    });
    ExpectStart(answering, kFirst + Frame("\x1D") + kSecond);
    ASSERT_TRUE(Finish(tool));
    EXPECT_TRUE(Same(stamp + report, Captured()));

    Store(kMaskDirectory + "DIAG.cfg", kFirst);
    ASSERT_TRUE(Attach(tool));
    ExpectRelays(answering, kDisableRequests + kFirst);
    ASSERT_TRUE(Finish(tool));
    ASSERT_EQ(2U, CaptureFiles().size());
    EXPECT_TRUE(Same(stamp + report, Contents(CaptureFiles()[1])));
}

}  // namespace
}  // namespace e2e
