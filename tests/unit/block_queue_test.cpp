// The modem's bytes on their way through the block queue, and how the processing thread ends.
#include <chrono>
#include <csignal>
#include <future>
#include <thread>
#include <utility>

#include "daemon/relay_wakeup.h"
#include "tests/unit/support/directions.h"

namespace {

using std::chrono::milliseconds;

class BlockQueue : public CaptureTest {
  protected:
    BlockQueue() { signal(SIGPIPE, SIG_IGN); }

    int Read() { return toTool.Read(directions.modem.near); }

    // Fills count blocks, of which the processing thread handles the first: it waits for the tool,
    // which takes nothing more.
    void QueueBehindStalledTool(int count) {
        mFilled = FillUntilFull(directions.tool.near);
        for (int i = 0; i < count; ++i) {
            const std::string frame = "\x1D" + std::to_string(i) + "\x7E";
            directions.Queue(frame);
            expected += frame;
        }
        while (toTool.NumBytes() == 0)
            std::this_thread::yield();
    }

    void ExpectAllAtTool() {
        ReadExactly(directions.tool.far, mFilled);
        ExpectBytes(expected, ReadExactly(directions.tool.far, expected.size()), "tool");
    }

    Directions directions;
    CircularBufferExt& toTool = directions.toTool;
    std::string expected;

  private:
    size_t mFilled = 0;
};

TEST_F(BlockQueue, BlocksHoldUpTo4095BytesAndACallTakes16) {
    QueueBehindStalledTool(1);
    WriteAll(directions.modem.far, std::string(5000, '\x1D'));
    EXPECT_EQ(5000, Read());
    EXPECT_EQ(4095, CircularBufferExtPeer::SizeOfBlock(toTool, 1));
    EXPECT_EQ(905, CircularBufferExtPeer::SizeOfBlock(toTool, 2));
    WriteAll(directions.modem.far, std::string(16 * 4095 + 10, '\x1D'));
    EXPECT_EQ(16 * 4095, Read());
    EXPECT_EQ(10, Read());
    expected += std::string(5000 + 16 * 4095 + 10, '\x1D');
    ExpectAllAtTool();
}

// With 399 blocks filled, a read waits, for a block or for the end of the thread, but only for a
// moment: the relay has others to serve.
class FullBlockQueue : public BlockQueue {
  protected:
    FullBlockQueue() {
        QueueBehindStalledTool(398);
        WriteAll(directions.modem.far, Hex("1D 7E"));
        EXPECT_EQ(2, Read());
        WriteAll(directions.modem.far, Hex("1D 7E"));
        EXPECT_EQ(-EAGAIN, Read());
        expected += Hex("1D 7E 1D 7E");
        waiting = std::async(std::launch::async, [this] {
            int result = Read();
            while (result == -EAGAIN)
                result = Read();
            return result;
        });
    }

    std::future<int> waiting;
};

TEST_F(FullBlockQueue, WaitsForAFreeBlock) {
    ExpectAllAtTool();
    EXPECT_EQ(2, waiting.get());
}

TEST_F(FullBlockQueue, EndsTheWaitWhenTheThreadHasFailed) {
    ClearRelayWakeup();
    directions.tool.CloseFar();
    EXPECT_EQ(1, waiting.get());
    EXPECT_EQ(-EPIPE, toTool.ThreadExitCode());
    pollfd wakeup = {RelayWakeupFd(), POLLIN, 0};
    EXPECT_EQ(1, poll(&wakeup, 1, 10000));
    gLogEnable = 0;
    EXPECT_EQ(-EIO, Read()) << "the queue will never be empty";
}

TEST_F(BlockQueue, StopLetsTheQueueBeHandledFirst) {
    QueueBehindStalledTool(50);
    directions.Queue(Hex("60 7E"));
    auto flash = std::async(std::launch::async, [this] { return directions.Close(); });
    ExpectAllAtTool();
    ExpectBytes(Hex("60 7E"), flash.get(), "flash");
}

TEST_F(BlockQueue, HandlesTheLastBytesBeforeTheEndOfStream) {
    WriteAll(directions.modem.far, Hex("60 7E 1D 7E"));
    directions.modem.CloseFar();
    EXPECT_EQ(0, Read());
    ExpectBytes(Hex("60 7E"), directions.Close(), "flash");
    ExpectBytes(Hex("1D 7E"), ReadAvailable(directions.tool.far), "tool");
}

class BlockQueueReads : public CaptureTest {};

TEST_F(BlockQueueReads, EndAndFail) {
    struct Case {
        const char* name;
        void (*prepare)(Directions&);
        int result;
        int exitCode;
    };
    const std::vector<Case> cases = {
        {"nothing there", [](Directions&) {}, 0, 1},
        {"end of stream", [](Directions& d) { d.modem.CloseFar(); }, 0, 1},
        {"failed read", [](Directions& d) { close(std::exchange(d.modem.near, -1)); }, 1, -1},
        {"no memory", [](Directions& d) { CircularBufferExtPeer::LoseBlock(d.toTool, 1); }, 1, -1},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        Directions directions;
        directions.Queue(Hex("60 7E 1D 7E"));
        c.prepare(directions);
        EXPECT_EQ(c.result, directions.toTool.Read(directions.modem.near));
        EXPECT_EQ(c.exitCode, directions.toTool.ThreadExitCode());
        ExpectBytes(Hex("60 7E"), directions.Close(), "flash");
        ExpectBytes(Hex("1D 7E"), ReadAvailable(directions.tool.far), "tool");
    }
}

TEST_F(BlockQueue, DropsWhatComesWhileMasksChange) {
    toTool.SetConfigLogMaskStaus(1);
    WriteAll(directions.modem.far, Hex("60 01 7E 1D 01 7E"));
    EXPECT_EQ(0, Read());
    toTool.SetConfigLogMaskStaus(0);
    ExpectBytes(Hex("1D 02 7E"), directions.ToTool(Hex("60 02 7E 1D 02 7E")), "tool");
    ExpectBytes(Hex("60 02 7E"), directions.Close(), "flash");
}

// Without the thread the connection works as long as capture is off, and fails once it is on.
TEST(BlockQueueWithoutThread, RelaysWithCaptureOff) {
    pthread_attr_t attributes;
    pthread_attr_t usual;
    pthread_getattr_default_np(&usual);
    pthread_getattr_default_np(&attributes);
    pthread_attr_setstacksize(&attributes, size_t{1} << 46);
    pthread_setattr_default_np(&attributes);
    Directions directions;
    pthread_setattr_default_np(&usual);
    EXPECT_GT(0, directions.toTool.ThreadExitCode());
    gLogEnable = 0;
    WriteAll(directions.modem.far, Hex("79 7E"));
    EXPECT_EQ(-EAGAIN, directions.toTool.Read(directions.modem.near));
    EXPECT_EQ(2, directions.toTool.Write(directions.tool.near));
    EXPECT_GT(0, directions.toTool.ThreadExitCode());
}

TEST_F(BlockQueue, ToolBytesWithCaptureOn) {
    CircularBufferExt& toModem = directions.toModem;
    const std::string bytes = std::string(100, 'a') + std::string(20000, 'b');
    WriteAll(directions.tool.far, bytes.substr(0, 100));
    EXPECT_EQ(-EAGAIN, toModem.Read(directions.tool.near));
    EXPECT_EQ(100U, toModem.NumBytes());
    WriteAll(directions.tool.far, bytes.substr(100));
    EXPECT_EQ(16283, toModem.Read(directions.tool.near)) << "as many as fit";
    toModem.Write(directions.modem.near);
    directions.tool.CloseFar();
    EXPECT_EQ(0, toModem.Read(directions.tool.near)) << "end of stream";
    toModem.Write(directions.modem.near);
    ExpectBytes(bytes, ReadAvailable(directions.modem.far), "modem");
}

}  // namespace
