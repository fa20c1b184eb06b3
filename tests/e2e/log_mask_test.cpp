// The daemon's own requests to the modem: which, when, and whole among the tool's.
#include <sstream>
#include <string>

#include "tests/e2e/handset.h"

namespace e2e {
namespace {

using LogMasks = HandsetTest;

TEST_F(LogMasks, AreDisabledAtTheEndAndOnceMoreWhenSwitchedOffBetween) {
    Start(true);
    Finish();
    EXPECT_TRUE(Gets(modem, kDisableRequests));
    Switch(false);
    for (const std::string& expected : {kDisableRequests, std::string()}) {
        AttachAgain();
        EXPECT_TRUE(Same(expected, begun));
        EXPECT_TRUE(Exchange()) << "replies relayed";
        Finish();
        EXPECT_EQ("", modem.in);
    }
}

TEST_F(LogMasks, ComeBehindTheEndOfHalfAFrame) {
    const auto sendHalf = [&] {
        tool.Send("\x0C ha");
        EXPECT_TRUE(Gets(modem, "\x0C ha"));
    };
    SetProperty(kLogSwitch, "truth");  // is not exactly "true"
    Start(false);
    EXPECT_EQ("", begun);
    sendHalf();
    Switch(true);
    EXPECT_TRUE(Gets(modem, "\x7E" + kFileMask));
    Switch(false);
    EXPECT_TRUE(Gets(modem, kDisableRequests)) << "ended twice";
    EXPECT_TRUE(Exchange());
    sendHalf();
    Finish();
    EXPECT_EQ("", modem.in);
    Switch(true);
    AttachAgain();
    EXPECT_TRUE(Same("\x7E" + kFileMask, begun));
    sendHalf();
    Switch(false);
    EXPECT_TRUE(Gets(modem, "\x7E" + kDisableRequests));
    Switch(true);
    EXPECT_TRUE(Gets(modem, kFileMask));
    sendHalf();
    Finish();
    EXPECT_TRUE(Gets(modem, "\x7E" + kDisableRequests));
}

// The tool sees nothing of it, and what is captured is whole.
TEST_F(LogMasks, AreAnsweredAmongLogs) {
    std::string logs;
    for (int i = 0; i < 1000; ++i)
        logs += LogFrame(0x117C, Hex("7E 01 02 03 04"));
    Store(kMaskFile, HexFrame("1D") + kFileMask);
    answer = [&](const std::string& frame) { return isServing ? "" : logs + frame + logs; };
    Start(true);
    EXPECT_EQ(std::string::npos, Log().find("Failed to read")) << "waited in vain";
    EXPECT_TRUE(Exchange());
    Finish();
    const std::string captured = Captured();
    EXPECT_EQ(0U, captured.find(HexFrame("1D")));
    for (const std::string& packet : Packets(captured))
        ASSERT_NE("?", packet);
    AttachAgain();
    Finish();
    EXPECT_EQ(2U, CaptureFiles().size()) << "one for each connection";
}

// It ends all the same, and what the modem's last bytes tell of the time is kept.
TEST_F(LogMasks, AreDisabledAtAModemThatNeverStopsSending) {
    std::string flood;
    while (flood.size() < 1'000'000)
        flood += std::string(60, '\x1D') + "\x7E";
    Start(true);
    isServing = false;
    answer = [&](const std::string& frame) {
        if (kDisableRequests.rfind(frame, 0) == 0) modem.Flood(flood);
        return "";
    };
    Finish();
    EXPECT_TRUE(Same(kDisableRequests, modem.in));
    EXPECT_EQ("", tool.in) << "relayed after the end";
    modem.end = 0;
    answer = [](const std::string& frame) { return frame; };
    AttachAgain();
    Finish();
    EXPECT_EQ('\x1D', Captured()[0]) << "not drained";
}

}  // namespace
}  // namespace e2e
