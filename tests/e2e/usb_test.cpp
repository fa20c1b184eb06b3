// What only USB does, in the virtual handset.
#include "tests/e2e/steps.h"

namespace e2e {
namespace {

// For scripts/test-virtual, behind PowerIsCutInACapture; first, as the others remove files.
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

// The interface stays, up and without carrier, which is no end: the connection outlives it, until
// the system takes the interface down.
TEST_F(Usb, LinkPulledUnderLoadAndPluggedAgainLosesNothing) {
    const Mix mix(random, 2'000'000, true);
    Start(true);
    modem.Send(mix.all);
    Until("some of it", [&] { return tool.in.size() > 10'000; });
    Plug("link off");
    Plug("link on");
    EXPECT_TRUE(Gets(tool, mix.forTool));
    EXPECT_TRUE(Exchange());
    EXPECT_EQ(std::string::npos, Log().find("USBLAN Removed"));
    Plug("link off");
    SetLink(false);
    UntilLogged("USBLAN Removed");
    Plug("link on");
    UntilListening();
    EXPECT_TRUE(Same(mix.own, Captured()));
    Attach();
    EXPECT_TRUE(Exchange());
}

// For scripts/test-virtual, with /data on a disk: never returns, and the next boot looks there.
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
}

}  // namespace
}  // namespace e2e
