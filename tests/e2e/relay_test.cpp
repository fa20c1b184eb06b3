// One connection from its first byte to its last, with the built daemon.
#include <gtest/gtest.h>

#include <future>
#include <string>
#include <thread>

#include "handset.h"

namespace e2e {
namespace {

constexpr size_t kMegabyte = 1000000;

std::future<bool> SendAside(Stream& stream, const std::string& bytes) {
    return std::async(std::launch::async, [&] { return stream.Send(bytes); });
}

class Relay : public HandsetTest {};

TEST_F(Relay, CarriesBulkBothWaysAtOnce) {
    const std::string toModem = Pattern(20 * kMegabyte, 1);
    const std::string toTool = Pattern(20 * kMegabyte, 2);
    Tool tool;
    daemon.Start();
    ASSERT_TRUE(Serve(tool));
    const auto toolSends = SendAside(tool, toModem);
    const auto modemSends = SendAside(modem, toTool);
    auto atModem =
        std::async(std::launch::async, [&] { return modem.ReceiveExactly(toModem.size()); });
    EXPECT_TRUE(Same(toTool, tool.ReceiveExactly(toTool.size())));
    EXPECT_TRUE(Same(toModem, atModem.get()));
}

// ---- Bytes that a line or the daemon might take for more than bytes ----

struct BytesCase {
    const char* name;
    std::string sent;
    std::string toModem;  // what arrives when the tool sends them
    std::string toTool;   // and when the modem does
};

std::string EveryByte() {
    std::string bytes;
    for (int byte = 0; byte < 256; ++byte)
        bytes += static_cast<char>(byte);
    return bytes;
}

BytesCase Unaltered(const char* name, const std::string& bytes) {
    return {name, bytes, bytes, bytes};
}

class RelayBytes : public HandsetTest, public testing::WithParamInterface<BytesCase> {};

TEST_P(RelayBytes, PassOverASpoiledLine) {
    const BytesCase& row = GetParam();
    Tool tool;
    modem.SpoilLine();
    daemon.Start();
    ASSERT_TRUE(Serve(tool));
    tool.Send(row.sent);
    EXPECT_TRUE(Same(row.toModem, modem.ReceiveExactly(row.toModem.size())));
    modem.Send(row.sent);
    EXPECT_TRUE(Same(row.toTool, tool.ReceiveExactly(row.toTool.size())));
    EXPECT_EQ("", modem.ReceiveAvailable()) << "echoed";
}

INSTANTIATE_TEST_SUITE_P(Rows, RelayBytes,
                         testing::Values(Unaltered("EveryValue", EveryByte()),
                                         Unaltered("LineEnds", "\x0D\x0A\x0D\x0D\x0A\x0A"),
                                         Unaltered("FlowControl", "\x13\x11\x13 stays stopped?"),
                                         Unaltered("SignalCharacters", "\x03\x1C\x1A\x04\x7E"),
                                         Unaltered("ParityMarks", "\xFF\xFF\x80\xFF\x7F"),
                                         BytesCase{"HdlcDisable",
                                                   "\x4B\x12\x18\x02\x01\x7E",
                                                   {"\x4B\x12\x18\x02\0\x7E", 6},
                                                   "\x13\x12\x18\x02\x01\x7E"}),
                         NameOf<BytesCase>);

// ---- One side takes nothing ----

struct StallCase {
    const char* name;
    bool isToolStalled;  // otherwise the modem
};

class RelayStall : public HandsetTest, public testing::WithParamInterface<StallCase> {};

TEST_P(RelayStall, LeavesTheOtherDirectionFlowing) {
    const std::string backlog = Pattern(8 * kMegabyte, 3);  // more than lies between both ends
    const std::string flow = Pattern(8 * kMegabyte, 4);
    Tool tool(4096);
    Stream& stalled = GetParam().isToolStalled ? static_cast<Stream&>(tool) : modem;
    Stream& other = GetParam().isToolStalled ? static_cast<Stream&>(modem) : tool;
    daemon.Start();
    ASSERT_TRUE(Serve(tool));
    auto backlogSent = SendAside(other, backlog);
    ASSERT_TRUE(daemon.WaitForLog(kWriteStalls));

    const auto flowSent = SendAside(stalled, flow);
    EXPECT_TRUE(Same(flow, other.ReceiveExactly(flow.size())));
    EXPECT_EQ(std::future_status::timeout, backlogSent.wait_for(milliseconds(0))) << "no stall";

    EXPECT_TRUE(Same(backlog, stalled.ReceiveExactly(backlog.size())));
    EXPECT_TRUE(backlogSent.get());
}

INSTANTIATE_TEST_SUITE_P(Rows, RelayStall,
                         testing::Values(StallCase{"ToolReadsNothing", true},
                                         StallCase{"ModemReadsNothing", false}),
                         NameOf<StallCase>);

// ---- The tool's last bytes ----

struct LastBytesCase {
    const char* name;
    size_t count;
    const char* slowUntil;  // the log says this
};

class RelayLastBytes : public HandsetTest, public testing::WithParamInterface<LastBytesCase> {};

TEST_P(RelayLastBytes, ReachAModemThatTakesThemLate) {
    constexpr size_t kSip = 100;
    constexpr milliseconds kSlow{100};
    const LastBytesCase& row = GetParam();
    const std::string bytes = Pattern(row.count, 5);
    Tool tool;
    daemon.Start();
    ASSERT_TRUE(Serve(tool));
    ASSERT_TRUE(tool.Send(bytes));
    ASSERT_TRUE(daemon.WaitForLog(kWriteStalls));
    tool.Close();

    std::string taken;
    while (daemon.LogCount(row.slowUntil) == 0 && taken.size() < bytes.size()) {
        taken += modem.ReceiveExactly(kSip);
        std::this_thread::sleep_for(kSlow);
    }
    ASSERT_LT(taken.size(), bytes.size());
    EXPECT_TRUE(Same(bytes, taken + modem.ReceiveExactly(bytes.size() - taken.size())));
    ASSERT_TRUE(daemon.WaitForLog(kListens));
    EXPECT_EQ("", modem.ReceiveAvailable());
}

INSTANTIATE_TEST_SUITE_P(
    Rows, RelayLastBytes,
    testing::Values(LastBytesCase{"PartlyStillInTheSocket", 200000, kWriteStalls},
                    // The retries of all writes are used up by then.
                    LastBytesCase{"HeldUntilTheFinalFlush", 28000, ", true ) : successful"}),
    NameOf<LastBytesCase>);

}  // namespace
}  // namespace e2e
