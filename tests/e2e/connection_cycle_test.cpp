// The cycle of connections: who is served when, what ends a connection, and what comes after it.
#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <string>
#include <vector>

#include "handset.h"

namespace e2e {
namespace {

constexpr char kPeerClosed[] = "was closed by the remote end";
constexpr char kSelectInterrupted[] = "select returned error code 4";

class ConnectionCycle : public HandsetTest {};

TEST_F(ConnectionCycle, RefusesASecondToolUntilTheFirstIsGone) {
    Tool first;
    Tool second;
    daemon.Start();
    ASSERT_TRUE(Serve(first));
    EXPECT_EQ(ECONNREFUSED, second.Connect());
    EXPECT_TRUE(Exchange(first)) << "disturbed by the second";
    first.Close();
    ASSERT_TRUE(Serve(second));
    EXPECT_TRUE(Exchange(second));
}

TEST_F(ConnectionCycle, ListensOnTheUsbLinkOnly) {
    daemon.Start();
    ASSERT_TRUE(daemon.WaitForLog(kListens));
    Tool local(0, Tool::Side::kHandset);
    EXPECT_EQ(ECONNREFUSED, local.Connect("127.0.0.1"));
    Tool tool;
    ASSERT_TRUE(Attach(tool));
    EXPECT_TRUE(Exchange(tool));
}

// ---- What happens to a waiting daemon ----

struct WaitCase {
    const char* name;
    void (*happens)(HandsetTest& test);
    int signals;
    bool needsLinkEvents = false;
};

// Once the daemon sleeps, in select: before that the signal would interrupt nothing.
void SignalAsleep(HandsetTest& test, int signal) {
    ASSERT_TRUE(WaitUntil([&] { return test.daemon.StatusField("State") == "S (sleeping)"; }));
    test.daemon.Signal(signal);
}

void TakeLinkDown(HandsetTest& test) {
    SetLink(false);
    ASSERT_TRUE(test.daemon.WaitForLog("USBLAN Removed"));
    ASSERT_TRUE(WaitUntil([] { return !IsPortListening(); }));
}

void BringLinkUp(HandsetTest& test) {
    SetLink(true);
    ASSERT_TRUE(test.daemon.WaitForLog("USBLAN Available"));
    ASSERT_TRUE(test.daemon.WaitForLog(kListens));
}

class WaitingDaemon : public HandsetTest, public testing::WithParamInterface<WaitCase> {};

TEST_P(WaitingDaemon, ServesTheNextTool) {
    if (GetParam().needsLinkEvents && !LinkEventsArrive()) GTEST_SKIP() << "no link events here";
    daemon.Start();
    ASSERT_TRUE(daemon.WaitForLog(kListens));
    ASSERT_TRUE(IsPortListening());
    GetParam().happens(*this);
    Tool tool;
    ASSERT_TRUE(Attach(tool));
    EXPECT_TRUE(Exchange(tool));
    EXPECT_EQ(GetParam().signals, daemon.LogCount("caught and ignored"));
}

INSTANTIATE_TEST_SUITE_P(
    Rows, WaitingDaemon,
    testing::Values(
        WaitCase{"AfterHangUpSignal", [](HandsetTest& h) { SignalAsleep(h, SIGHUP); }, 1},
        WaitCase{"AfterPipeSignal", [](HandsetTest& h) { SignalAsleep(h, SIGPIPE); }, 1},
        WaitCase{"AfterLinkDownAndUp",
                 [](HandsetTest& h) {
                     TakeLinkDown(h);
                     BringLinkUp(h);
                 },
                 0, true},
        WaitCase{"AfterSignalWhileTheLinkIsDown",
                 [](HandsetTest& h) {
                     TakeLinkDown(h);
                     SignalAsleep(h, SIGHUP);
                     BringLinkUp(h);
                 },
                 1, true}),
    NameOf<WaitCase>);

// ---- What ends a connection ----

struct EndCase {
    const char* name;
    void (*end)(HandsetTest& test, Tool& tool);
    std::vector<std::string> logged;
    bool needsLinkEvents = false;
};

class ConnectionEnd : public HandsetTest, public testing::WithParamInterface<EndCase> {};

TEST_P(ConnectionEnd, IsNoticedAndTheNextToolServed) {
    const EndCase& row = GetParam();
    if (row.needsLinkEvents && !LinkEventsArrive()) GTEST_SKIP() << "no link events here";
    Tool tool;
    daemon.Start();
    ASSERT_TRUE(Serve(tool));
    ASSERT_TRUE(Exchange(tool));
    ASSERT_TRUE(daemon.WaitForLog("AP <-- BP: wrote"));
    row.end(*this, tool);
    for (const std::string& line : row.logged)
        ASSERT_TRUE(daemon.WaitForLog(line));
    ASSERT_TRUE(daemon.WaitForLog(kListens));

    SetLink(true);
    if (tool.IsOpen()) {
        EXPECT_TRUE(tool.WaitForClose());
    }
    Tool next;
    ASSERT_TRUE(Attach(next));
    EXPECT_TRUE(Exchange(next));
}

INSTANTIATE_TEST_SUITE_P(
    Rows, ConnectionEnd,
    testing::Values(
        EndCase{"ToolCloses", [](HandsetTest&, Tool& tool) { tool.Close(); }, {kPeerClosed}},
        EndCase{"ToolResets",
                [](HandsetTest&, Tool& tool) { tool.Reset(); },
                {"error detected on fd", "Connection reset by peer"}},
        EndCase{"ModemHangsUp", [](HandsetTest& h, Tool&) { h.modem.Replace(); }, {kPeerClosed}},
        EndCase{"HangUpSignal",
                [](HandsetTest& h, Tool&) { SignalAsleep(h, SIGHUP); },
                {"Signal 1 caught and ignored", kSelectInterrupted}},
        EndCase{"PipeSignal",
                [](HandsetTest& h, Tool&) { SignalAsleep(h, SIGPIPE); },
                {"Signal 13 caught and ignored", kSelectInterrupted}},
        EndCase{"LinkGoes",
                [](HandsetTest&, Tool&) { SetLink(false); },
                {"USBLAN Removed", "NETLINK_UTIL_SOCKET_UPDATE_USBLAN_REMOVED exit, error code"},
                true}),
    NameOf<EndCase>);

// ---- Ends with bytes that nobody takes ----

constexpr milliseconds kEndLimit{15000};

class BoundedEnd : public HandsetTest {};

TEST_F(BoundedEnd, ModemTakesNothing) {
    Tool tool;
    daemon.Start();
    ASSERT_TRUE(Serve(tool));
    modem.FillLine();
    ASSERT_TRUE(tool.Send(Pattern(1000, 1)));
    ASSERT_TRUE(daemon.WaitForLog(kWriteStalls));
    tool.Close();
    EXPECT_TRUE(daemon.WaitForLog(kListens, kEndLimit));
}

TEST_F(BoundedEnd, ToolTakesNothingAndTheLinkGoes) {
    if (!LinkEventsArrive()) GTEST_SKIP() << "no link events here";
    const std::string chunk = Pattern(4096, 1);
    Tool tool(4096);
    daemon.Start();
    ASSERT_TRUE(Serve(tool));
    ASSERT_TRUE(WaitUntil([&] {
        modem.SendSome(chunk.data(), chunk.size());
        return daemon.LogCount(kWriteStalls) > 0;
    }));
    SetLink(false);
    EXPECT_TRUE(daemon.WaitForLog(kListens, kEndLimit));
}

}  // namespace
}  // namespace e2e
