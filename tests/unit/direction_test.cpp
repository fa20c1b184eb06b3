// One direction of the relay between two socket pairs.
#include <pthread.h>

#include <csignal>
#include <utility>
#include <vector>

#include "base/log_switch.h"
#include "base/relay_wakeup.h"
#include "buffer/circular_buffer_ext.h"
#include "tests/support/bytes.h"
#include "tests/unit/support/descriptors.h"
#include "tests/unit/support/log_lines.h"
#include "tests/unit/support/temp_dir.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr char kToModem[] = "AP --> BP";
constexpr char kToTool[] = "AP <-- BP";
constexpr milliseconds kLong(std::chrono::hours(1));

Limits Short() {
    Limits limits;
    limits.writeRetries = 3;
    limits.retryPause = limits.stallAtEnd = limits.flushTryInterval = milliseconds(1);
    limits.queueWait = limits.lastLogsPause = milliseconds(1);
    return limits;
}

// The far ends are the peers' ends.
class Direction {
  public:
    explicit Direction(const char* name, int32_t logEnable = 0, unsigned long size = 64,
                       const Limits& limits = Short())
        : mRing((signal(SIGPIPE, SIG_IGN), gLogEnable = logEnable, size)),
          buffer(mRing.data(), size, name, source.near, sink.near,
                 {limits, requests, mFiles, mask}) {
        mask.SetDiagFd(-1);
    }
    ~Direction() {
        Close();
        gLogEnable = 0;
        EXPECT_EQ(0, log.Count("Data number is not equal"));
    }

    int Read() { return buffer.Read(source.near); }
    int Write() { return buffer.Write(sink.near); }
    int Feed(const std::string& bytes) {
        WriteAll(source.far, bytes);
        return Read();
    }
    // Reads until there is another result than that the queue is full or worked off.
    int ReadWhenPossible() {
        int result = Read();
        while (result == -EAGAIN && buffer.IsEmpty())
            result = Read();
        return result;
    }
    std::string Sent() { return ReadAvailable(sink.far); }
    void Stall() { mFilled = FillUntilFull(sink.near); }
    void EndStall() { ReadExactly(sink.far, mFilled); }
    // Ends the direction, once; returns what is on flash.
    std::string Close() {
        if (!std::exchange(mIsClosed, true)) buffer.CloseProcess();
        return TempDir::Content(mFiles.Path());
    }

    LogLines log;
    ToolLogRequests requests;
    LogMask mask{""};
    SocketPair source;
    SocketPair sink;

  private:
    TempDir mDir;
    LogFiles mFiles{(mDir / "").c_str(), 1 << 20};
    std::vector<char> mRing;
    size_t mFilled = 0;
    bool mIsClosed = false;

  public:
    CircularBufferExt buffer;
};

TEST(Direction, ReadsAsMuchAsFits) {
    const std::pair<const char*, int32_t> kRows[] = {{kToModem, 0}, {kToModem, 1}, {kToTool, 0}};
    for (const auto& [name, logEnable] : kRows) {
        SCOPED_TRACE(testing::Message() << name << logEnable);
        Direction d(name, logEnable, 16);
        EXPECT_EQ(-EAGAIN, d.Read()) << "nothing there";
        EXPECT_EQ(-EAGAIN, d.Feed("abc")) << "drained";
        EXPECT_EQ(12, d.Feed("0123456789ABCDEF")) << "full";
        EXPECT_TRUE(d.buffer.IsFull());
        EXPECT_EQ(15, d.Write());
        d.source.CloseFar();
        EXPECT_EQ(0, d.Read()) << "end of stream";
        EXPECT_EQ(4, d.Write());
        EXPECT_EQ("abc0123456789ABCDEF", d.Sent());
        EXPECT_EQ(-EBADF, d.buffer.Read(-1));
    }
    Direction d(kToModem, 1, 1 << 17);
    WriteAll(d.source.far, std::string(20000, 'x'));
    EXPECT_EQ(kDiagAreaSize - 1, d.Read()) << "capture looks at no more at once";
}

TEST(Direction, AltersCommandsAtTheStartOfARead) {
    const std::string disable = Hex("4B 12 18 02 01 7E");
    const std::string request = Framed(SetMask(1, "\x01"));
    const struct {
        const char* name;
        const char* direction;
        int32_t logEnable;
        std::string in, out;
    } kRows[] = {
        {"tool's request to end the framing", kToModem, 0, disable, Hex("4B 12 18 02 00 7E")},
        {"with capture on", kToModem, 1, disable, Hex("4B 12 18 02 00 7E")},
        {"modem's answer to it", kToTool, 0, disable, Hex("13 12 18 02 01 7E")},
        {"too short", kToModem, 0, disable.substr(0, 4), disable.substr(0, 4)},
        {"not at the start", kToModem, 1, "\x7E" + disable, "\x7E" + disable},
        {"merged with the capture's mask", kToModem, 1, request, Framed(SetMask(1, "\x81"))},
        {"no capture", kToModem, 0, request, request},
        {"capture has no mask", kToModem, 1, Framed(SetMask(2, "\x01")),
         Framed(SetMask(2, "\x01"))},
        {"no equipment id", kToModem, 1, Framed(SetMask(14, "\x01")), Framed(SetMask(14, "\x01"))},
    };
    for (const auto& row : kRows) {
        SCOPED_TRACE(row.name);
        Direction d(row.direction, row.logEnable);
        const std::string captured = Framed(SetMask(1, "\x80"));
        d.mask.ParseSetLogMask(captured.data(), captured.data() + captured.size());
        EXPECT_EQ(-EAGAIN, d.Feed(row.in));
        d.Write();
        EXPECT_TRUE(Same(row.out, d.Sent()));
    }
}

// ---- Writing ----

TEST(Direction, FailedWriteIsRemembered) {
    Direction d(kToModem);
    EXPECT_EQ(0, d.Write()) << "nothing to write";
    d.buffer.CopyDataToBuffer("abc", 3);
    EXPECT_EQ(-EBADF, d.buffer.Write(-1));
    EXPECT_EQ(3, d.Write());
    EXPECT_EQ(-EBADF, d.buffer.ThreadExitCode());
    EXPECT_FALSE(d.buffer.CopyDataToBuffer(std::string(64, 'x').data(), 64));
    EXPECT_TRUE(d.buffer.IsEmpty());
}

TEST(Direction, StallIsRetriedAndForgottenWithoutCapture) {
    for (const int32_t logEnable : {0, 1}) {
        Direction d(kToModem, logEnable);
        d.Stall();
        d.Feed("held");
        EXPECT_EQ(-EAGAIN, d.Write());
        EXPECT_EQ(4, d.log.Count("write error, try again,retry_count: ")) << "one and 3 retries";
        EXPECT_EQ(-EAGAIN, d.buffer.ThreadExitCode());
        const auto since = d.buffer.RefusedSince();
        EXPECT_LT(steady_clock::time_point(), since);
        d.buffer.NoteRefusal();
        EXPECT_EQ(since, d.buffer.RefusedSince()) << "the first counts";
        d.EndStall();
        EXPECT_EQ(4, d.Write());
        EXPECT_EQ("held", d.Sent());
        EXPECT_EQ(logEnable == 0 ? 1 : -EAGAIN, d.buffer.ThreadExitCode());
        EXPECT_EQ(steady_clock::time_point(), d.buffer.RefusedSince());
    }
}

TEST(Direction, WriteGoesOnWhenThePeerTakesBytesAgain) {
    Direction d(kToModem, 0, 1 << 16);
    std::string bytes = Pattern(50000);
    d.buffer.CopyDataToBuffer(bytes.data(), 50000);
    std::string taken;
    // The peer takes what is there when the third try in a row has failed.
    d.log.On("retry_count: 2", [&] { taken += d.Sent(); });
    EXPECT_EQ(-EAGAIN, d.Write()) << "short writes count as tries";
    EXPECT_EQ(1, d.log.Count("retry_count: 2"));
    EXPECT_LT(0U, taken.size());
    while (!d.buffer.IsEmpty()) {
        taken += d.Sent();
        d.Write();
    }
    EXPECT_TRUE(Same(bytes, taken + d.Sent()));
}

TEST(Direction, FlushWaitsAndGivesUp) {
    Limits limits = Short();
    for (const bool isGivenUp : {true, false}) {
        limits.stallAtEnd = isGivenUp ? milliseconds(2) : kLong;
        Direction d(kToModem, 0, 64, limits);
        fcntl(d.sink.near, F_SETFL, O_NONBLOCK);
        d.Stall();
        fcntl(d.sink.near, F_SETFL, 0);
        d.Feed("held");
        auto flushed = Waiting([&] { return d.buffer.Flush(d.sink.near); });
        if (!isGivenUp) d.EndStall();
        EXPECT_EQ(isGivenUp ? -EAGAIN : 4, flushed.get());
        EXPECT_EQ(isGivenUp ? 4U : 0U, d.buffer.NumBytes());
        EXPECT_EQ(isGivenUp ? 1 : 0, d.log.Count("flush given up, 4 bytes left"));
        EXPECT_EQ(0, fcntl(d.sink.near, F_GETFL) & O_NONBLOCK);
    }
}

TEST(Direction, WholeFramesAreWrittenUpToTheLastEnd) {
    const struct {
        const char* name;
        bool beginsOnFrame, isStalled, isPutFirst;
        std::string held, sent;
        bool endsOnFrame;
    } kRows[] = {
        {"half a frame stays", true, false, false, "a~b~c", "a~b~", true},
        {"no whole frame", true, false, false, "abc", "", true},
        {"modem is within a frame", false, false, false, "abc", "", false},
        {"modem's frame is ended", false, false, false, "b~c", "b~", true},
        {"peer takes nothing", false, true, false, "b~", "", false},
        {"end put first", false, false, true, "bc", "~", true},
        {"end put first, full", false, false, true, std::string(63, 'x'), "", false},
    };
    for (const auto& row : kRows) {
        SCOPED_TRACE(row.name);
        Direction d(kToModem);
        if (row.isStalled) d.Stall();
        d.buffer.SetEndsOnFrame(row.beginsOnFrame);
        d.buffer.CopyDataToBuffer(row.held.data(), static_cast<int>(row.held.size()));
        if (row.isPutFirst) d.buffer.PutFrameEndFirst();
        const auto deadline = steady_clock::now() + milliseconds(row.isStalled ? 1 : 1000000);
        EXPECT_EQ(row.endsOnFrame, d.buffer.WriteWholeFrames(d.sink.near, deadline));
        if (row.isStalled) d.EndStall();
        EXPECT_EQ(row.sent, d.Sent());
        while (!d.buffer.IsEmpty())
            d.Write();
        EXPECT_EQ(row.held.back() == '~', d.buffer.EndsOnFrame());
    }
    Direction d(kToModem);
    d.Stall();
    d.buffer.CopyDataToBuffer("a~", 2);
    auto whole = Waiting(
        [&] { return d.buffer.WriteWholeFrames(d.sink.near, steady_clock::now() + kLong); });
    d.EndStall();
    EXPECT_TRUE(whole.get());
    EXPECT_EQ("a~", d.Sent()) << "it waits for the peer";
}

// ---- The modem's bytes while capture is on ----

const std::string kFlash = Hex("60 7E");
const std::string kTool = Hex("1D 7E");

// Its processing thread is held at the first block.
class Capture : public testing::Test {
  protected:
    static Limits QuickEnd() {
        Limits limits = Short();
        limits.writeRetries = 1 << 30;  // what ends the tries is the end of the connection
        return limits;
    }
    std::string Tool(size_t count) { return ReadExactly(d.sink.far, count); }

    Direction d{kToTool, 1, 64, QuickEnd()};
    CircularBufferExt& buffer = d.buffer;
    Gate gate{"process mWriteIndex: 0,"};
};

TEST_F(Capture, BlocksHoldUpTo4095BytesAndACallTakes16) {
    std::string sent = Pattern(5000) + Pattern(16 * 4095 + 10);
    sent[0] = '\x1D';
    std::replace(sent.begin() + 1, sent.end(), '~', 'x');
    EXPECT_EQ(5000, d.Feed(sent.substr(0, 5000)));
    EXPECT_EQ(1, d.log.Count("Current size: 4095 for index: 0"));
    EXPECT_EQ(1, d.log.Count("Current size: 905 for index: 1"));
    EXPECT_EQ(16 * 4095, d.Feed(sent.substr(5000)));
    EXPECT_EQ(10, d.Read());
    gate.Open();
    EXPECT_TRUE(Same(sent, Tool(sent.size()))) << "through a ring of 64";
    EXPECT_EQ("", d.Close());
}

// What ends the wait for a block, when 399 are filled.
TEST_F(Capture, FullQueueWaitsForAFreeBlock) {
    for (int i = 0; i < 399; ++i)
        ASSERT_EQ(2, d.Feed(kTool));
    EXPECT_EQ(-EAGAIN, d.Feed(kTool));
    EXPECT_EQ(-EAGAIN, d.Read());
    EXPECT_EQ(1, d.log.Count("Read wait cond as buffer is FULL")) << "said once";
    gate.Open();
    EXPECT_EQ(2, d.ReadWhenPossible());
    Tool(800);
}

TEST_F(Capture, FullQueueOfAFailedThreadIsTheEnd) {
    for (int i = 0; i < 400; ++i)
        d.Feed(kTool);
    ClearRelayWakeup();
    d.sink.CloseFar();
    gate.Open();
    EXPECT_EQ(1, d.ReadWhenPossible());
    EXPECT_EQ(-EPIPE, buffer.ThreadExitCode());
    pollfd wakeup = {RelayWakeupFd(), POLLIN, 0};
    EXPECT_EQ(1, poll(&wakeup, 1, 20000));
    gLogEnable = 0;
    EXPECT_EQ(-EIO, d.Read()) << "the queue will never be empty";
}

TEST_F(Capture, OffLetsTheQueueOutFirstAndWhole) {
    d.Feed(kFlash + Hex("1D 01"));
    gLogEnable = 0;
    EXPECT_EQ(-EAGAIN, d.Feed(Hex("02 7E")));
    EXPECT_TRUE(buffer.IsEmpty());
    gate.Open();
    EXPECT_EQ(-EAGAIN, d.ReadWhenPossible());
    d.Write();
    EXPECT_TRUE(Same(kFlash + Hex("1D 01 02 7E"), Tool(6)));
    EXPECT_EQ("", d.Close());
}

TEST_F(Capture, DropsWhatComesWhileMasksChange) {
    EXPECT_EQ(1, buffer.SetConfigLogMaskStaus(1));
    EXPECT_EQ(0, d.Feed(kFlash + kTool));
    buffer.SetConfigLogMaskStaus(0);
    d.Feed(Hex("60 02 7E") + kTool);
    gate.Open();
    EXPECT_TRUE(Same(Hex("60 02 7E"), d.Close()));
    EXPECT_TRUE(Same(kTool, d.Sent()));
}

TEST(Direction, EndsWithAllThatIsQueued) {
    const struct {
        const char* name;
        void (*prepare)(Direction&);
        int result, exitCode;
    } kRows[] = {
        {"nothing there", [](Direction&) {}, 0, 1},
        {"end of stream", [](Direction& row) { row.source.CloseFar(); }, 0, 1},
        {"failed read", [](Direction& row) { row.source.CloseNear(); }, 1, -1},
    };
    for (const auto& row : kRows) {
        SCOPED_TRACE(row.name);
        Direction d(kToTool, 1);
        Gate gate("process mWriteIndex: 0,");
        d.Feed(kFlash + kTool);
        d.Feed(kFlash + kTool);
        row.prepare(d);
        EXPECT_EQ(row.result, d.Read());
        auto closed = Waiting([&d] { return d.Close(); });
        gate.Open();
        const bool isWhole = row.exitCode == 1;  // a thread that has failed handles its block
        EXPECT_TRUE(Same(isWhole ? kFlash + kFlash : kFlash, closed.get()));
        EXPECT_TRUE(Same(isWhole ? kTool + kTool : kTool, d.Sent()));
        EXPECT_EQ(row.exitCode, d.buffer.ThreadExitCode());
    }
}

TEST_F(Capture, ToolThatTakesNothingDoesNotHoldTheEnd) {
    d.Stall();
    d.Feed(kTool);
    auto closed = Waiting([this] { return d.Close(); });
    gate.Open();
    closed.get();
    EXPECT_EQ(-EAGAIN, buffer.ThreadExitCode());
    EXPECT_EQ(2U, buffer.NumBytes());
    EXPECT_EQ(1, d.log.Count("ProcessReadDataThread mThreadExitCode ="));
}

TEST_F(Capture, WriteIsDoneOnRequest) {
    gate.Open();
    buffer.CopyDataToBuffer("older", 5);
    EXPECT_TRUE(buffer.IsDataFromBPAndLogEnable());
    buffer.RequestWrite();
    EXPECT_EQ("older", Tool(5));
}

TEST_F(Capture, ToolDoesNotWaitForTheFlash) {
    gate.Open();
    Gate flash("PoolBuffer: open file succeed");
    const std::string log = '\x60' + std::string(4093, 'x') + '\x7E';
    for (int i = 0; i < 197; ++i)  // 4 of them fill one of the pool's 50 slots
        d.Feed(log);
    d.Feed(kTool + kFlash);
    EXPECT_EQ(kTool, Tool(2));
    flash.Open();
    EXPECT_EQ(197 * log.size() + 2, d.Close().size());
}

// What the modem still sends at the end is taken, but not for ever.
TEST(Direction, DrainsTheModemAtTheEnd) {
    for (const int32_t logEnable : {0, 1}) {
        Limits limits = Short();
        limits.drain = milliseconds(5);
        Direction d(kToTool, logEnable, 64, limits);
        d.mask.SetDiagFd(d.source.near);
        for (int i = 0; i < 9; ++i)
            WriteAll(d.source.far, std::string(kDiagAreaSize, 'x'));
        WriteAll(d.source.far, kTool);
        d.log.On("read data from FTM port,and bytes=2", [&] { WriteAll(d.source.far, kTool); });
        d.Close();
        EXPECT_EQ(kTool, ReadAvailable(d.source.near));
        EXPECT_LT(1, d.log.Count("read data from FTM port,and bytes=2"));
        EXPECT_EQ("", d.Sent());
    }
}

// The connection works as long as capture is off, and fails once it is on.
TEST(WithoutThread, RelaysWithCaptureOff) {
    pthread_attr_t usual, tooMuch;
    pthread_getattr_default_np(&usual);
    pthread_getattr_default_np(&tooMuch);
    pthread_attr_setstacksize(&tooMuch, size_t{1} << 46);
    pthread_setattr_default_np(&tooMuch);
    Direction d(kToTool, 0);
    pthread_setattr_default_np(&usual);
    EXPECT_GT(0, d.buffer.ThreadExitCode());
    EXPECT_EQ(-EAGAIN, d.Feed(kTool));
    EXPECT_EQ(2, d.Write());
    EXPECT_GT(0, d.buffer.ThreadExitCode());
    gLogEnable = 1;
    EXPECT_EQ(0, d.Read()) << "nothing there";
}

}  // namespace
