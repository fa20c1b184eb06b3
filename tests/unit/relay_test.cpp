// Connections between socket pairs, whose far ends are the tool's and the modem's.
#include "relay/transfer_bidirectional.h"

#include <csignal>
#include <utility>

#include "base/log_switch.h"
#include "tests/support/bytes.h"
#include "tests/unit/support/descriptors.h"
#include "tests/unit/support/log_lines.h"
#include "tests/unit/support/temp_dir.h"

namespace {

using std::chrono::milliseconds;

class Relay : public testing::Test {
  protected:
    Relay() {
        signal(SIGPIPE, SIG_IGN);
        dir.HoldProperties();
        gLogMaskInstance = &mask;
        limits.writeRetries = 2;
        limits.retryPause = limits.stallAtEnd = limits.lastLogsPause = milliseconds(1);
        limits.refusal = limits.tool = limits.frameEnd = std::chrono::hours(1);
        limits.startBudget = limits.endBudget = milliseconds(10);
    }
    ~Relay() override {
        gLogEnable = gLogEnablePrev = 0;
        gLogMaskInstance = LogMask::GetInstance();
    }

    // The relay closes the near ends.
    int Run() {
        return transfer_bidirectional_and_close(
            std::exchange(tool.near, -1), std::exchange(modem.near, -1), -1, 16384, &interval,
            [](void* self) { ++static_cast<Relay*>(self)->timeouts; }, this,
            {limits, requests, files, mask});
    }
    void Start() {
        result = std::async(std::launch::async, [this] { return Run(); });
    }
    int End() {
        tool.CloseFar();
        return result.get();
    }
    void WaitForTimeouts(int more) {
        const int until = timeouts + more;
        while (timeouts < until)
            std::this_thread::yield();
    }
    void ExpectAtModem(const std::string& bytes) {
        EXPECT_TRUE(Same(bytes, ReadExactly(modem.far, bytes.size())));
    }

    LogLines log;
    TempDir dir;
    LogFiles files{(dir / "").c_str(), 1 << 20};
    ToolLogRequests requests;
    LogMask mask{dir.Path().c_str()};
    Limits limits;
    SocketPair tool;
    SocketPair modem;
    const timeval interval = {0, 1000};
    std::atomic<int> timeouts{0};
    std::future<int> result;
};

TEST_F(Relay, ToolOfAStalledModemIsGivenUp) {
    limits.refusal = limits.tool = milliseconds(1);
    FillUntilFull(modem.near);
    Start();
    WriteAll(tool.far, std::string(60000, '~'));
    log.WaitFor(" has waited long enough");
    EXPECT_EQ(0, End());
}

TEST_F(Relay, ToolWhoseBytesFindRoomStays) {
    const size_t filled = FillUntilFull(modem.near);
    Start();
    WriteAll(tool.far, "held~");
    WaitForTimeouts(5);
    ReadExactly(modem.far, filled);
    ExpectAtModem("held~");
    EXPECT_EQ(0, log.Count("the modem takes nothing"));
    EXPECT_EQ(0, End());
}

TEST_F(Relay, NeedsBothSides) {
    char byte = 0;
    const int port = std::exchange(modem.near, -1);
    EXPECT_EQ(0, Run()) << "no modem";
    EXPECT_EQ(0, read(tool.far, &byte, 1)) << "the tool is disconnected";
    EXPECT_EQ(-1, Run()) << "neither";
    modem.near = port;
    EXPECT_EQ(-1, Run()) << "no tool";
    EXPECT_EQ(0, read(modem.far, &byte, 1));
}

}  // namespace
