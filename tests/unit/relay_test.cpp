// The relay's endpoints, and connections from start to end, between socket pairs.
#include "relay/transfer_bidirectional.h"

#include <csignal>
#include <utility>
#include <vector>

#include "base/log_switch.h"
#include "base/relay_wakeup.h"
#include "relay/transfer_buffer.h"
#include "tests/support/bytes.h"
#include "tests/unit/support/descriptors.h"
#include "tests/unit/support/log_lines.h"
#include "tests/unit/support/temp_dir.h"

namespace {

using std::chrono::milliseconds;

class Endpoint : public testing::Test {
  protected:
    Endpoint() { signal(SIGPIPE, SIG_IGN); }
    void Hold(const std::string& bytes) {
        buffer.CopyDataToBuffer(bytes.data(), static_cast<int>(bytes.size()));
    }
    // The sets as for select, as reading and writing digits.
    std::string Watched() {
        fd_set readSet = {}, writeSet = {}, exceptSet = {};
        endpoint.SetSelectBits(readSet, writeSet, exceptSet);
        return std::string(FD_ISSET(source.near, &readSet) ? "r" : "") +
               (FD_ISSET(sink.near, &writeSet) ? "w" : "");
    }
    bool Handle(bool readable, bool writable) {
        fd_set readSet = {}, writeSet = {}, exceptSet = {};
        if (readable) FD_SET(source.near, &readSet);
        if (writable) FD_SET(sink.near, &writeSet);
        const bool result = endpoint.HandleSelect(readSet, writeSet, exceptSet);
        EXPECT_FALSE(FD_ISSET(source.near, &readSet)) << "a mark left behind makes the loop spin";
        EXPECT_FALSE(FD_ISSET(sink.near, &writeSet)) << "a mark left behind makes the loop spin";
        return result;
    }

    LogLines log;
    SocketPair source;
    SocketPair sink;
    std::vector<char> storage = std::vector<char>(64);
    CircularBufferExt buffer{storage.data(), 64, "AP --> BP", source.near, sink.near};
    TransferBuffer endpoint{buffer, source.near, sink.near};
};

TEST_F(Endpoint, WatchesByFillLevel) {
    EXPECT_EQ("r", Watched());
    Hold("x");
    EXPECT_EQ("rw", Watched());
    Hold(std::string(62, 'x'));
    EXPECT_EQ("w", Watched()) << "back-pressure";
}

TEST_F(Endpoint, GoesOnUntilTheSourceEnds) {
    EXPECT_TRUE(Handle(true, true)) << "marks with nothing behind them end nothing";
    Hold("held ");
    EXPECT_TRUE(Handle(false, false));
    EXPECT_EQ("", ReadAvailable(sink.far));
    WriteAll(source.far, "new ");
    EXPECT_TRUE(Handle(true, false));
    EXPECT_EQ("held new ", ReadAvailable(sink.far)) << "new bytes are tried at once";
    Hold("left");
    source.CloseFar();
    EXPECT_FALSE(Handle(true, false));
    EXPECT_EQ("left", ReadAvailable(sink.far)) << "so is what an end leaves behind";
    EXPECT_EQ(1, log.Count(" was closed by the remote end"));
}

TEST_F(Endpoint, LeavesAPeerAloneThatHasRefusedBytes) {
    const size_t filled = FillUntilFull(sink.near);
    Hold("held ");
    buffer.NoteRefusal();
    WriteAll(source.far, "new");
    EXPECT_TRUE(Handle(true, false));
    EXPECT_EQ(0, log.Count("write error")) << "no write was tried";
    ReadExactly(sink.far, filled);
    EXPECT_TRUE(Handle(false, true));
    EXPECT_EQ("held new", ReadAvailable(sink.far));
}

TEST_F(Endpoint, EndsWhenTheSinkIsGone) {
    sink.CloseFar();
    WriteAll(source.far, "abc");
    EXPECT_FALSE(Handle(true, false));
    EXPECT_EQ(1, log.Count("error detected on fd "));
}

// ---- Whole connections ----

const std::string kMask = Hex("0C 01 7E");
const std::string kDisable = Hex("73 00 00 00 00 00 00 00 DA 81 7E") +
                             Hex("7D 5D 05 00 00 00 00 00 00 74 41 7E") + Hex("60 00 12 6A 7E");

class Relay : public testing::Test {
  protected:
    Relay() {
        signal(SIGPIPE, SIG_IGN);
        dir.HoldProperties();
        dir.Store("DIAG.cfg", kMask);
        gLogMaskInstance = &mask;
        limits.retryPause = limits.stallAtEnd = limits.lastLogsPause = milliseconds(1);
        limits.refusal = limits.tool = std::chrono::hours(1);
        limits.frameEnd = milliseconds(1);
        limits.startBudget = limits.endBudget = milliseconds(10);
    }
    ~Relay() override {
        if (!isEnded) End();
        gLogEnable = gLogEnablePrev = 0;
        gLogMaskInstance = LogMask::GetInstance();
    }

    void Start() {
        if (tool.near == -1) {
            tool.Open();
            modem.Open();
        }
        isEnded = false;
        result = std::async(std::launch::async, [this] {
            // The relay closes the near ends.
            return transfer_bidirectional_and_close(
                std::exchange(tool.near, -1), std::exchange(modem.near, -1), -1, 16384, &interval,
                [](void* self) { ++static_cast<Relay*>(self)->timeouts; }, this,
                {limits, requests, files, mask});
        });
    }
    int End() {
        tool.CloseFar();
        isEnded = true;
        return result.get();
    }
    void Switch(int32_t logEnable) {
        gLogEnable = logEnable;
        WakeRelay();
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
    bool isEnded = true;
};

TEST_F(Relay, CarriesBothDirectionsUntilTheToolCloses) {
    Start();
    WriteAll(tool.far, "request");
    ExpectAtModem("request");
    WriteAll(modem.far, "answer");
    EXPECT_EQ("answer", ReadExactly(tool.far, 6));
    WaitForTimeouts(2);
    WriteAll(tool.far, "last words~");
    EXPECT_EQ(0, End());
    ExpectAtModem("last words~");
    char byte = 0;
    EXPECT_EQ(0, read(modem.far, &byte, 1)) << "the modem port is closed";
}

TEST_F(Relay, CarriesMoreThanItHoldsAndAllOfAModemThatHungUp) {
    const std::string bytes = Pattern(300000) + "~";
    Start();
    auto toModem = std::async(std::launch::async, [&] { WriteAll(tool.far, bytes); });
    auto toTool = std::async(std::launch::async, [&] { WriteAll(modem.far, bytes); });
    auto atTool = std::async(std::launch::async, [&] { return ReadExactly(tool.far, 300001); });
    ExpectAtModem(bytes);
    EXPECT_TRUE(Same(bytes, atTool.get()));
    toModem.get();
    toTool.get();
    WriteAll(modem.far, "last words");
    modem.CloseFar();
    EXPECT_EQ("last words", ReadExactly(tool.far, 10));
    EXPECT_EQ(0, result.get());
    isEnded = true;
}

TEST_F(Relay, StalledToolDoesNotHoldTheOtherDirection) {
    limits.writeRetries = 2;
    FillUntilFull(tool.near);
    Start();
    WriteAll(modem.far, "held back");
    const std::string bytes = Pattern(100000) + "~";
    WriteAll(tool.far, bytes);
    ExpectAtModem(bytes);
}

// A tool is given up, with how many bytes on their way, when the modem takes nothing.
TEST_F(Relay, ToolOfAStalledModemIsGivenUp) {
    limits.writeRetries = 2;
    const struct {
        const char* name;
        size_t bytes;
        bool hasGone;
        const char* reason;
    } kRows[] = {
        {"gone", 10, true, " was closed by the remote end"},
        {"gone behind more than the ring holds", 60000, true, "the modem takes nothing, and fd"},
        {"stays, and its bytes find no room", 60000, false, " has waited long enough"},
    };
    for (const auto& row : kRows) {
        SCOPED_TRACE(row.name);
        limits.refusal = milliseconds(1);
        limits.tool = row.hasGone ? std::chrono::hours(1) : limits.refusal;
        tool.Open();
        modem.Open();
        FillUntilFull(modem.near);
        Start();
        WriteAll(tool.far, std::string(row.bytes, '~'));
        if (row.hasGone) tool.CloseFar();
        log.WaitFor(row.reason);
        EXPECT_EQ(0, End());
    }
}

TEST_F(Relay, ToolWhoseBytesFindRoomStays) {
    limits.writeRetries = 2;
    const size_t filled = FillUntilFull(modem.near);
    Start();
    WriteAll(tool.far, "held~");
    WaitForTimeouts(5);
    ReadExactly(modem.far, filled);
    ExpectAtModem("held~");
    EXPECT_EQ(0, log.Count("the modem takes nothing"));
}

TEST_F(Relay, NeedsBothSides) {
    const Surroundings surroundings = {limits, requests, files, mask};
    const auto relay = [&](int apFd, int bpFd) {
        return transfer_bidirectional_and_close(apFd, bpFd, -1, 16384, nullptr, nullptr, nullptr,
                                                surroundings);
    };
    EXPECT_EQ(-1, relay(-1, -1));
    EXPECT_EQ(0, relay(std::exchange(tool.near, -1), -1));
    EXPECT_EQ(-1, relay(-1, std::exchange(modem.near, -1)));
    char byte = 0;
    EXPECT_EQ(0, read(tool.far, &byte, 1)) << "a tool without a modem is disconnected";
    EXPECT_EQ(0, read(modem.far, &byte, 1));
}

// ---- The switch ----

TEST_F(Relay, MasksFollowTheSwitch) {
    Start();
    Switch(1);
    ExpectAtModem(kMask);
    Switch(0);
    ExpectAtModem(kDisable);
    WriteAll(tool.far, "~");
    ExpectAtModem("~");
}

TEST_F(Relay, MasksAreSetAtTheStartAndClearedAtTheEnd) {
    const std::string stamp = Hex("1D 01 7E");
    gLogEnable = gLogEnablePrev = 1;
    const auto usual = std::exchange(limits.startBudget, std::chrono::hours(1));
    WriteAll(modem.far, stamp);  // in answer to the first request
    Start();
    ExpectAtModem(kMask);
    log.WaitFor("read data from FTM port");
    WriteAll(modem.far, Hex("60 7E 1C 7E"));
    EXPECT_EQ(Hex("1C 7E"), ReadExactly(tool.far, 2)) << "replies to the daemon are its own";
    End();
    ExpectAtModem(kDisable);
    EXPECT_TRUE(Same(stamp + Hex("60 7E"), TempDir::Content(files.Path())));

    gLogEnable = 0;
    limits.startBudget = usual;
    Start();
    ExpectAtModem(kDisable);
    End();
    EXPECT_EQ(0, gLogEnablePrev);
}

// What the modem has got of a frame is ended before requests of the daemon's come.
TEST_F(Relay, HalfFrameIsEndedBeforeTheDaemonsRequests) {
    for (const bool isCompleted : {false, true}) {
        SCOPED_TRACE(isCompleted);
        limits.frameEnd = milliseconds(isCompleted ? 3600000 : 1);
        Start();
        WriteAll(tool.far, "whole~ha");
        ExpectAtModem("whole~ha");
        if (isCompleted) log.On("begin gLogEnable:1", [this] { WriteAll(tool.far, "lf~"); });
        Switch(1);
        ExpectAtModem((isCompleted ? "lf~" : "~") + kMask);
        WriteAll(tool.far, "ha");
        ExpectAtModem("ha");
        End();
        ExpectAtModem("~" + kDisable);
        gLogEnable = 0;
    }
}

TEST_F(Relay, HalfFrameIsEndedInTheNextConnection) {
    Start();
    WriteAll(tool.far, "ha");
    ExpectAtModem("ha");
    End();
    gLogEnable = 1;
    Start();
    ExpectAtModem("~" + kMask);
    End();
    ExpectAtModem(kDisable);
}

TEST_F(Relay, WholeFramesThatAreHeldComeBeforeTheDaemonsRequests) {
    limits.writeRetries = 2;
    limits.frameEnd = std::chrono::hours(1);
    const size_t filled = FillUntilFull(modem.near);
    Start();
    WriteAll(tool.far, "a~b~c");
    log.WaitFor("retry_count: 2");
    WaitForTimeouts(1);  // the write is over
    log.On("begin gLogEnable:1", [&] { ReadExactly(modem.far, filled); });
    Switch(1);
    log.WaitFor("end gLogEnable:1");
    ExpectAtModem("a~b~" + kMask + "c");
    WriteAll(tool.far, "d~");
    ExpectAtModem("d~");
}

// A request that the modem took a part of is ended before the tool's bytes, whenever it was sent.
TEST_F(Relay, CutRequestIsEndedBeforeTheToolsBytes) {
    dir.Store("DIAG.cfg", std::string(16000, 'x') + "~");
    for (const int32_t atStart : {0, 1}) {
        SCOPED_TRACE(atStart);
        gLogEnable = atStart;
        Start();
        Switch(1);
        log.WaitFor("Only wrote", 1 + atStart);
        WriteAll(tool.far, "a~");
        std::string taken;
        while (taken.empty() || taken.back() != '~' || taken[taken.size() - 2] != 'a')
            taken += ReadExactly(modem.far, 1);
        EXPECT_EQ("x~a~", taken.substr(taken.size() - 4));
        EXPECT_GT(16000U, taken.size());
        End();
    }
}

}  // namespace
