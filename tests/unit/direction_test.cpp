// One direction of the relay between two socket pairs, whose far ends are the peers'.
#include <csignal>
#include <mutex>
#include <thread>
#include <utility>

#include "base/log_switch.h"
#include "base/relay_wakeup.h"
#include "buffer/circular_buffer_ext.h"
#include "relay/transfer_buffer.h"
#include "tests/support/bytes.h"
#include "tests/unit/support/descriptors.h"
#include "tests/unit/support/log_lines.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr char kToModem[] = "AP --> BP";
constexpr char kToTool[] = "AP <-- BP";

Limits Short() {
    Limits limits;
    limits.writeRetries = 3;
    limits.retryPause = limits.stallAtEnd = limits.flushTryInterval = milliseconds(1);
    limits.queueWait = limits.lastLogsPause = milliseconds(1);
    return limits;
}

struct Direction {
    explicit Direction(const char* name, int32_t logEnable = 0, const Limits& limits = Short())
        : buffer((gLogEnable = logEnable, storage), sizeof(storage), name, source.near, sink.near,
                 {limits, requests, files, mask}) {
        signal(SIGPIPE, SIG_IGN);
    }
    ~Direction() {
        Close();
        gLogEnable = 0;
        EXPECT_EQ(0, log.Count("Data number is not equal"));
    }
    void Close() {
        if (!std::exchange(isClosed, true)) buffer.CloseProcess();
    }
    int Read() { return buffer.Read(source.near); }
    int Write() { return buffer.Write(sink.near); }
    int Feed(const std::string& bytes) {
        WriteAll(source.far, bytes);
        return Read();
    }
    void Hold(const std::string& bytes) {
        buffer.CopyDataToBuffer(bytes.data(), static_cast<int>(bytes.size()));
    }
    std::string Sent() { return ReadAvailable(sink.far); }
    void Stall() { filled = FillUntilFull(sink.near); }
    void EndStall() { ReadExactly(sink.far, filled); }

    LogLines log;
    ToolLogRequests requests;
    LogFiles files{"/nonexistent/", 1};
    LogMask mask{""};
    SocketPair source;
    SocketPair sink;
    char storage[64];
    size_t filled = 0;
    bool isClosed = false;
    CircularBufferExt buffer;
};

TEST(Direction, ReadsAsMuchAsFits) {
    for (const int32_t logEnable : {0, 1}) {
        Direction d(kToModem, logEnable);
        EXPECT_EQ(-EAGAIN, d.Read()) << "nothing there";
        EXPECT_EQ(-EAGAIN, d.Feed("abc")) << "drained";
        EXPECT_EQ(60, d.Feed(Pattern(70))) << "full";
        EXPECT_EQ(63, d.Write());
        d.source.CloseFar();
        EXPECT_EQ(0, d.Read()) << "end of stream";
        EXPECT_EQ(10, d.Write());
        EXPECT_EQ("abc" + Pattern(70), d.Sent());
        EXPECT_EQ(-EBADF, d.buffer.Read(-1));
    }
}

TEST(Direction, RemembersAStallUntilItEnds) {
    for (const int32_t logEnable : {0, 1}) {
        Direction d(kToModem, logEnable);
        EXPECT_EQ(0, d.Write()) << "nothing to write";
        d.Stall();
        EXPECT_EQ(-EAGAIN, d.Feed(std::string(60, 'x')));
        EXPECT_EQ(-EAGAIN, d.Write());
        EXPECT_EQ(4, d.log.Count("write error, try again,retry_count: ")) << "one and 3 retries";
        EXPECT_EQ(-EAGAIN, d.buffer.ThreadExitCode());
        EXPECT_FALSE(d.buffer.CopyDataToBuffer("full", 4));
        const auto since = d.buffer.RefusedSince();
        EXPECT_LT(steady_clock::time_point(), since);
        d.buffer.NoteRefusal();
        EXPECT_EQ(since, d.buffer.RefusedSince()) << "the first counts";
        d.EndStall();
        EXPECT_EQ(60, d.Write());
        EXPECT_EQ(logEnable == 0 ? 1 : -EAGAIN, d.buffer.ThreadExitCode());
        EXPECT_EQ(steady_clock::time_point(), d.buffer.RefusedSince());
    }
}

TEST(Direction, LeavesAPeerAloneThatHasRefusedBytes) {
    Direction d(kToModem);
    TransferBuffer endpoint{d.buffer, d.source.near, d.sink.near};
    const auto handle = [&](bool readable, bool writable) {
        fd_set readSet = {}, writeSet = {}, exceptSet = {};
        if (readable) FD_SET(d.source.near, &readSet);
        if (writable) FD_SET(d.sink.near, &writeSet);
        const bool result = endpoint.HandleSelect(readSet, writeSet, exceptSet);
        EXPECT_FALSE(FD_ISSET(d.source.near, &readSet) || FD_ISSET(d.sink.near, &writeSet))
            << "a mark left behind makes the loop spin";
        return result;
    };
    EXPECT_TRUE(handle(true, true)) << "marks with nothing behind them end nothing";
    WriteAll(d.source.far, "first ");
    EXPECT_TRUE(handle(true, false));
    EXPECT_EQ("first ", d.Sent()) << "new bytes are tried at once";
    d.Stall();
    d.Hold("held ");
    d.buffer.NoteRefusal();
    WriteAll(d.source.far, "new");
    EXPECT_TRUE(handle(true, false));
    EXPECT_EQ(0, d.log.Count("write error")) << "no write was tried";
    d.EndStall();
    EXPECT_TRUE(handle(false, true));
    EXPECT_EQ("held new", d.Sent());
    d.Hold("left");
    d.source.CloseFar();
    EXPECT_FALSE(handle(true, false));
    EXPECT_EQ("left", d.Sent()) << "what an end leaves behind, too";
}

// ---- The modem's bytes while capture is on ----

const std::string kTool = Hex("1D 7E");

// Its processing thread is held at the first block.
struct Capture : Direction, testing::Test {
    Capture() : Direction(kToTool, 1, Limits()) {
        LogLines::On("process mWriteIndex: 0,",
                     [this] { const std::lock_guard<std::mutex> wait(mutex); });
    }
    std::mutex mutex;
    std::unique_lock<std::mutex> gate{mutex};
};

TEST_F(Capture, BlocksHoldUpTo4095BytesAndACallTakes16) {
    const std::string sent = '\x1D' + std::string(5000 + 16 * 4095 + 9, 'x');
    EXPECT_EQ(5000, Feed(sent.substr(0, 5000)));
    EXPECT_EQ(1, log.Count("Current size: 905 for index: 1"));
    EXPECT_EQ(16 * 4095, Feed(sent.substr(5000)));
    EXPECT_EQ(10, Read());
    gate.unlock();
    EXPECT_TRUE(Same(sent, ReadExactly(sink.far, sent.size()))) << "through a ring of 64";
}

TEST_F(Capture, TheRestOfAReplyIsNoEndOfTheStream) {
    mask.SetDiagFd(source.near);
    WriteAll(source.far, "\x1D he");
    EXPECT_EQ(4, mask.DiagDataRead());
    EXPECT_EQ(-EAGAIN, Feed("ad~"));
    gate.unlock();
}

// The tool's share is dropped, and counted all the same.
TEST_F(Capture, StoresWhatAFailedThreadHasLeft) {
    for (const std::string& block : {kTool, Hex("60 01 7E"), kTool, Hex("79 7E")})
        Feed(block);
    sink.CloseFar();
    gate.unlock();
    Close();
    EXPECT_EQ(1, log.Count("ReadDataFromBP:9, SavedToFlash:5, WriteToAP:4,"));
    EXPECT_EQ(-EPIPE, buffer.ThreadExitCode());
}

TEST_F(Capture, TheToolsStreamEndsAtAGap) {
    Feed(kTool + std::string(99, 'x'));  // more than the ring holds
    sink.CloseFar();
    gate.unlock();
    while (buffer.ThreadExitCode() != -EPIPE)
        std::this_thread::yield();
    gLogEnable = 0;
    EXPECT_EQ(-EIO, Feed(kTool));
}

}  // namespace
