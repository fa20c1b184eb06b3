// What only USB does, in the virtual handset.
#include "tests/e2e/steps.h"

namespace e2e {
namespace {

// The boot before ended in Usb.PowerIsCutInACapture. First of all: the others remove files.
TEST(UsbAfterThePowerCut, DISABLED_WhatWasStoredIsThere) {
    std::minstd_rand random;
    const Mix mix(random, 100'000, true);
    const std::string onDisk = Captured();
    EXPECT_GE(onDisk.size(), Contents("/out/stored").size());
    std::string captured;
    while (captured.size() < onDisk.size())
        captured += mix.own;
    EXPECT_TRUE(Same(captured.substr(0, onDisk.size()), onDisk));
}

struct Usb : HandsetTest {
    Usb() { SetProperty("log.tag", "I"); }
    static void Plug(const char* cable) {
        EXPECT_EQ(0, system((std::string("usb ") + cable).c_str()));
    }
};

TEST_F(Usb, FloodComesWhole) {
    const Mix mix(random, 6'000'000, true);
    Start(true);
    modem.Send(mix.all);
    EXPECT_TRUE(Gets(tool, mix.forTool));
    Finish();
    EXPECT_TRUE(Same(mix.own, Captured()));
}

// The interface stays, up and without carrier, which is no end: the connection outlives it.
TEST_F(Usb, LinkPulledUnderLoadAndPluggedAgainLosesNothing) {
    const Mix mix(random, 2'000'000, true);
    Start(true);
    modem.Send(mix.all);
    Until("some of it", [&] { return tool.in.size() > 10'000; });
    Plug("link off");
    Plug("link on");
    EXPECT_TRUE(Gets(tool, mix.forTool));
    EXPECT_TRUE(Exchange());
    Finish();
    EXPECT_EQ(std::string::npos, Log().find("USBLAN Removed"));
    EXPECT_TRUE(Same(mix.own, Captured()));
}

TEST_F(Usb, PulledLinkThatTheSystemTakesDownEndsAndComesBack) {
    Start(false);
    Plug("link off");
    SetLink(false);
    UntilLogged("USBLAN Removed");
    Plug("link on");
    AttachAgain();
    EXPECT_TRUE(Exchange());
}

// With /data on a disk, where the next boot looks.
TEST_F(Usb, DISABLED_PowerIsCutInACapture) {
    const Mix mix(random, 100'000, true);
    Start(true);
    modem.Flood(mix.all);
    Until("stores", [] { return Captured().size() > 500'000; });
    Store("/out/stored", Captured());
    Store("/proc/sysrq-trigger", "b");
    Until("the cut", [] { return false; });
}

TEST_F(Usb, ModemPulledUnderAConnectionComesBack) {
    StartDaemon();
    for (const bool isOn : {false, true, false}) {
        Switch(isOn);
        AttachAgain();
        EXPECT_TRUE(Exchange());
        BreakLine();
        UntilListening();
        MakeLine();
    }
    AttachAgain();
    EXPECT_TRUE(Exchange());
}

}  // namespace
}  // namespace e2e
