// The daemon as a process: what it keeps, what it watches, what it costs.
#include <gtest/gtest.h>

#include <csignal>
#include <string>

#include "handset.h"

namespace e2e {
namespace {

class Process : public HandsetTest {};

TEST_F(Process, KeepsOneCapabilityAndNothingOfItsStarter) {
    daemon.Start();
    ASSERT_TRUE(daemon.WaitForLog(kListens));
    EXPECT_EQ("0000000000002000", daemon.StatusField("CapEff"));
    EXPECT_EQ("0000000000002000", daemon.StatusField("CapPrm"));
    EXPECT_EQ("0000000000000000", daemon.StatusField("CapInh"));
    EXPECT_EQ("0000", daemon.StatusField("Umask"));
    EXPECT_EQ("/", daemon.LinkTarget("cwd"));
}

TEST_F(Process, UsesTheStandardDescriptorsAsItsOwn) {
    Tool tool;
    daemon.Start();
    ASSERT_TRUE(Serve(tool));
    int sockets = 0;
    int lines = 0;
    for (const char* fd : {"fd/0", "fd/1", "fd/2"}) {
        const std::string target = daemon.LinkTarget(fd);
        sockets += target.rfind("socket:", 0) == 0 ? 1 : 0;
        lines += target.rfind("/dev/pts/", 0) == 0 ? 1 : 0;
    }
    EXPECT_EQ(2, sockets) << "link monitor and tool";
    EXPECT_EQ(1, lines) << "modem";
    EXPECT_TRUE(Exchange(tool));
    EXPECT_TRUE(daemon.WaitForLog("AP <-- BP: wrote"));
}

// ---- The logging switch ----

struct SwitchCase {
    const char* name;
    std::string value;
    bool isOn;
};

class LogSwitch : public HandsetTest, public testing::WithParamInterface<SwitchCase> {};

// At start, and after a change to "true" and back.
TEST_P(LogSwitch, IsFollowed) {
    const auto& [name, value, isOn] = GetParam();
    const std::string change = "E quillod: ListenerThread prop change ";
    SetProperty(kLogSwitch, value);
    daemon.Start();
    ASSERT_TRUE(daemon.WaitForLog("D quillod: fac_diag_debug_prop = " + value +
                                  ", gLogEnable:" + (isOn ? "1\n" : "0\n")));
    SetProperty(kLogSwitch, "true");
    ASSERT_TRUE(isOn || daemon.WaitForLog(change + "true =1\n"));
    SetProperty(kLogSwitch, value);
    ASSERT_TRUE(isOn || daemon.WaitForLog(change + value + " =0\n"));
    ASSERT_TRUE(WaitForPropertyReads(kLogSwitch, 2));
    EXPECT_EQ(isOn ? 0 : 2, daemon.LogCount(change));
}

INSTANTIATE_TEST_SUITE_P(Rows, LogSwitch,
                         testing::Values(SwitchCase{"On", "true", true},
                                         SwitchCase{"UpperCase", "TRUE", false},
                                         SwitchCase{"TrailingBlank", "true ", false},
                                         SwitchCase{"Digit", "1", false},
                                         SwitchCase{"Empty", "", false}),
                         NameOf<SwitchCase>);

// ---- Waiting costs nothing ----

struct QuietCase {
    const char* name;
    void (*prepare)(HandsetTest& test, Tool& tool);
    bool needsLinkEvents = false;
};

class QuietDaemon : public HandsetTest, public testing::WithParamInterface<QuietCase> {};

TEST_P(QuietDaemon, Rests) {
    if (GetParam().needsLinkEvents && !LinkEventsArrive()) GTEST_SKIP() << "no link events here";
    Tool tool(4096);
    SetProperty(kLogSwitch, "");
    daemon.Start();
    ASSERT_TRUE(daemon.WaitForLog(kListens));
    GetParam().prepare(*this, tool);

    const auto cpuBefore = daemon.CpuTime();
    const auto start = Clock::now();
    ASSERT_TRUE(WaitForPropertyReads(kLogSwitch, 60));  // 10 ms apart
    EXPECT_LT(daemon.CpuTime() - cpuBefore, (Clock::now() - start) / 5);
}

// Sends until the daemon has given up one write to the other side.
void Overfill(HandsetTest& test, Stream& from) {
    const std::string chunk = Pattern(4096, 1);
    ASSERT_TRUE(WaitUntil([&] {
        from.SendSome(chunk.data(), chunk.size());
        return test.daemon.LogCount("retry_count: 1000") > 0;
    }));
}

INSTANTIATE_TEST_SUITE_P(
    Rows, QuietDaemon,
    testing::Values(QuietCase{"WithoutLink",
                              [](HandsetTest& h, Tool&) {
                                  SetLink(false);
                                  ASSERT_TRUE(h.daemon.WaitForLog("USBLAN Removed"));
                              },
                              true},
                    QuietCase{"AfterASignal",
                              [](HandsetTest& h, Tool&) { h.daemon.Signal(SIGHUP); }},
                    QuietCase{"ServingAfterASwitchChange",
                              [](HandsetTest& h, Tool& tool) {
                                  ASSERT_TRUE(h.Attach(tool));
                                  SetProperty(kLogSwitch, "true");
                                  ASSERT_TRUE(h.daemon.WaitForLog("prop change true =1"));
                                  SetProperty(kLogSwitch, "");
                                  ASSERT_TRUE(h.daemon.WaitForLog("prop change  =0"));
                                  EXPECT_TRUE(h.Exchange(tool));
                              }},
                    QuietCase{"ServingAStalledTool",
                              [](HandsetTest& h, Tool& tool) {
                                  ASSERT_TRUE(h.Attach(tool));
                                  Overfill(h, h.modem);
                              }},
                    QuietCase{"ServingAStalledModem",
                              [](HandsetTest& h, Tool& tool) {
                                  ASSERT_TRUE(h.Attach(tool));
                                  Overfill(h, tool);
                              }}),
    NameOf<QuietCase>);

}  // namespace
}  // namespace e2e
