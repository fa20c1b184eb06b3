// Connections between socket pairs, whose far ends are the tool's and the modem's.
#include "relay/transfer_bidirectional.h"

#include <utility>

#include "relay/port_drain.h"
#include "tests/unit/support/descriptors.h"
#include "tests/unit/support/log_lines.h"
#include "tests/unit/support/temp_dir.h"

namespace {

TEST(Relay, GivesUpAToolWhoseModemTakesNothing) {
    const LogLines log;
    const TempDir dir;
    LogFiles files((dir / "").c_str(), 1 << 20);
    ToolLogRequests requests;
    LogMask mask(dir.Path().c_str());
    Limits limits;
    limits.refusal = limits.tool = limits.stallAtEnd = limits.end = std::chrono::milliseconds(1);
    limits.writeRetries = 1;
    SocketPair tool;
    SocketPair modem;
    FillUntilFull(modem.near);
    WriteAll(tool.far, std::string(60000, '~'));
    // The relay closes the near ends.
    EXPECT_EQ(0, transfer_bidirectional_and_close(
                     std::exchange(tool.near, -1), std::exchange(modem.near, -1), -1, 16384,
                     nullptr, nullptr, nullptr, {limits, requests, files, mask}));
    EXPECT_EQ(1, log.Count(" has waited long enough"));
}

// A socket, too, tells of what its peer has not read.
TEST(Relay, WaitsForWhatThePortHolds) {
    const LogLines log;
    SocketPair port;
    EXPECT_TRUE(DrainPort(port.near, Deadline::In({})));
    WriteAll(port.near, "held");
    EXPECT_FALSE(DrainPort(port.near, Deadline::In(std::chrono::milliseconds(1))));
    EXPECT_EQ(1, log.Count("the modem took nothing of the last "));
    auto drained = Waiting([&] { return DrainPort(port.near, {}); });
    ReadExactly(port.far, 4);
    EXPECT_TRUE(drained.get());
}

}  // namespace
