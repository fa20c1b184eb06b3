// Connections between socket pairs, whose far ends are the tool's and the modem's.
#include "relay/transfer_bidirectional.h"

#include <utility>

#include "tests/unit/support/descriptors.h"
#include "tests/unit/support/log_lines.h"
#include "tests/unit/support/temp_dir.h"

namespace {

using std::chrono::milliseconds;

struct Relay : testing::Test {
    // The relay closes the near ends.
    int Run(const Limits& limits = {}) {
        const TempDir dir;
        LogFiles files((dir / "").c_str(), 1 << 20);
        ToolLogRequests requests;
        LogMask mask(dir.Path().c_str());
        return transfer_bidirectional_and_close(std::exchange(tool.near, -1),
                                                std::exchange(modem.near, -1), -1, 16384, nullptr,
                                                nullptr, nullptr, {limits, requests, files, mask});
    }

    LogLines log;
    SocketPair tool;
    SocketPair modem;
};

TEST_F(Relay, GivesUpAToolWhoseModemTakesNothing) {
    Limits limits;
    limits.refusal = limits.tool = limits.stallAtEnd = milliseconds(1);
    FillUntilFull(modem.near);
    WriteAll(tool.far, std::string(60000, '~'));
    EXPECT_EQ(0, Run(limits));
    EXPECT_EQ(1, log.Count(" has waited long enough"));
}

}  // namespace
