// The ring of CircularBufferExt on real descriptors.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "buffer/circular_buffer_ext.h"
#include "daemon/log_switch.h"
#include "tests/unit/support/descriptors.h"

namespace {

constexpr char kToModem[] = "AP --> BP";
constexpr char kToTool[] = "AP <-- BP";

// A ring of `size` bytes between two socket pairs whose near ends do not block.
class Ring {
  public:
    explicit Ring(unsigned long size, const char* name = kToModem)
        : storage(size),
          readFd(source.near),
          writeFd(sink.near),
          buffer(storage.data(), size, name, readFd, writeFd) {
        LogMask::GetInstance()->SetDiagFd(-1);
    }
    ~Ring() { buffer.CloseProcess(); }

    int Feed(const std::string& bytes) {
        WriteAll(source.far, bytes);
        return buffer.Read(readFd);
    }
    std::string Drained() { return ReadAvailable(sink.far); }

    SocketPair source;
    SocketPair sink;
    std::vector<char> storage;
    int readFd;
    int writeFd;
    CircularBufferExt buffer;
};

TEST(Ring, HoldsOneByteLessThanItsStorage) {
    Ring ring(16);
    EXPECT_EQ(15, ring.Feed("0123456789abcdefXYZ"));
    EXPECT_TRUE(ring.buffer.IsFull());
    EXPECT_EQ(15U, ring.buffer.NumBytes());
    EXPECT_EQ(15, ring.buffer.Write(ring.writeFd));
    EXPECT_EQ("0123456789abcde", ring.Drained());
    EXPECT_EQ(-EAGAIN, ring.buffer.Read(ring.readFd)) << "the rest waits in the socket";
    ring.buffer.Write(ring.writeFd);
    EXPECT_EQ("fXYZ", ring.Drained());
}

// Every fill level at every offset: what goes in comes out, in order, through direct reads and
// appends alike.
TEST(Ring, KeepsOrderAtEveryWrapPosition) {
    constexpr unsigned long kSize = 9;
    for (unsigned long offset = 0; offset < kSize; ++offset) {
        for (unsigned long count = 1; count < kSize; ++count) {
            for (const bool append : {false, true}) {
                SCOPED_TRACE(::testing::Message() << offset << ' ' << count << ' ' << append);
                Ring ring(kSize);
                // One byte always stays behind, so that the ring does not start again at 0.
                std::string expected = "#";
                ring.buffer.CopyDataToBuffer("#", 1);
                for (unsigned long i = 0; i < offset; ++i) {
                    ring.buffer.CopyDataToBuffer("+", 1);
                    expected += '+';
                    if (ring.buffer.NumBytes() > 1) {
                        ring.buffer.Write(ring.writeFd);
                        ring.buffer.CopyDataToBuffer("#", 1);
                        expected += '#';
                    }
                }
                const std::string bytes = std::string("abcdefgh").substr(0, count);
                if (append) {
                    ring.buffer.CopyDataToBuffer(bytes.data(), static_cast<int>(count));
                    if (count + 1 <= kSize - 1) expected += bytes;
                } else {
                    ring.Feed(bytes);
                    expected += bytes;
                }
                while (!ring.buffer.IsEmpty() || ring.buffer.Read(ring.readFd) != -EAGAIN ||
                       !ring.buffer.IsEmpty()) {
                    ASSERT_GT(ring.buffer.Write(ring.writeFd), 0);
                }
                EXPECT_EQ(expected, ring.Drained());
            }
        }
    }
}

TEST(Ring, AppendThatDoesNotFitIsDroppedWhole) {
    Ring ring(8);
    ring.buffer.CopyDataToBuffer("abcde", 5);
    ring.buffer.CopyDataToBuffer("fgh", 3);
    EXPECT_EQ(5U, ring.buffer.NumBytes());
    ring.buffer.CopyDataToBuffer("fg", 2);
    EXPECT_TRUE(ring.buffer.IsFull());
    ring.buffer.Write(ring.writeFd);
    EXPECT_EQ("abcdefg", ring.Drained());
}

TEST(Ring, ReadResults) {
    Ring ring(64);
    EXPECT_EQ(-EAGAIN, ring.buffer.Read(ring.readFd)) << "nothing there";
    EXPECT_EQ(-EAGAIN, ring.Feed("abc")) << "drained";
    EXPECT_EQ(3U, ring.buffer.NumBytes());
    WriteAll(ring.source.far, "de");
    ring.source.CloseFar();
    EXPECT_EQ(0, ring.buffer.Read(ring.readFd)) << "end of stream";
    ring.buffer.Write(ring.writeFd);
    EXPECT_EQ("abcde", ring.Drained()) << "what came before the end is kept";
    EXPECT_EQ(-EBADF, ring.buffer.Read(-1));
}

TEST(Ring, WriteResults) {
    Ring ring(64);
    EXPECT_EQ(0, ring.buffer.Write(ring.writeFd)) << "nothing to write";
    ring.Feed("abc");
    EXPECT_EQ(3, ring.buffer.Write(ring.writeFd));
    EXPECT_EQ(1, ring.buffer.ThreadExitCode());
    ring.Feed("abc");
    EXPECT_EQ(-EBADF, ring.buffer.Write(-1));
    EXPECT_EQ(-EBADF, ring.buffer.ThreadExitCode());
    EXPECT_EQ(3, ring.buffer.Write(ring.writeFd));
    EXPECT_EQ(-EBADF, ring.buffer.ThreadExitCode()) << "only a stall is forgotten";
}

TEST(Ring, HdlcDisableNeverTakesEffect) {
    struct Case {
        const char* name;
        const char* direction;
        std::string in;
        std::string out;
    };
    const std::vector<Case> cases = {
        {"tool's request disarmed",
         kToModem,
         "\x4B\x12\x18\x02\x01\x7E",
         {"\x4B\x12\x18\x02\x00\x7E", 6}},
        {"modem's answer refused", kToTool, "\x4B\x12\x18\x02\x01\x7E", "\x13\x12\x18\x02\x01\x7E"},
        {"four bytes pass", kToModem, "\x4B\x12\x18\x02", "\x4B\x12\x18\x02"},
        {"four bytes pass to the tool", kToTool, "\x4B\x12\x18\x02", "\x4B\x12\x18\x02"},
        {"not at the start of a read", kToModem, "\x7E\x4B\x12\x18\x02\x01\x7E",
         "\x7E\x4B\x12\x18\x02\x01\x7E"},
        {"another subsystem command", kToTool, "\x4B\x12\x18\x03\x01\x7E",
         "\x4B\x12\x18\x03\x01\x7E"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        Ring ring(64, c.direction);
        ring.Feed(c.in);
        ring.buffer.Write(ring.writeFd);
        EXPECT_EQ(c.out, ring.Drained());
    }
}

// A ring over a sink that takes nothing more.
class StalledRing : public ::testing::Test {
  protected:
    StalledRing() {
        mFilled = FillUntilFull(mRing.sink.near);
        mRing.Feed("held");
    }
    ~StalledRing() override { gLogEnable = 0; }

    // Lets the sink take bytes again after `ms`, without anybody waiting for it.
    std::thread ReleaseAfterOneTry() {
        return std::thread([this] { ReadExactly(mRing.sink.far, mFilled); });
    }

    Ring mRing{64};
    size_t mFilled = 0;
};

TEST_F(StalledRing, WriteGivesUpAfterTwoSecondsAndKeepsTheBytes) {
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(-EAGAIN, mRing.buffer.Write(mRing.writeFd));
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(2000));
    EXPECT_EQ(-EAGAIN, mRing.buffer.ThreadExitCode());
    EXPECT_EQ(4U, mRing.buffer.NumBytes());

    ReadExactly(mRing.sink.far, mFilled);
    EXPECT_EQ(4, mRing.buffer.Write(mRing.writeFd));
    EXPECT_EQ(1, mRing.buffer.ThreadExitCode()) << "a stall while capture is off is forgotten";
    EXPECT_EQ("held", mRing.Drained());
}

TEST_F(StalledRing, StallWhileCaptureIsOnIsRemembered) {
    gLogEnable = 1;
    EXPECT_EQ(-EAGAIN, mRing.buffer.Write(mRing.writeFd));
    ReadExactly(mRing.sink.far, mFilled);
    EXPECT_EQ(4, mRing.buffer.Write(mRing.writeFd));
    EXPECT_EQ(-EAGAIN, mRing.buffer.ThreadExitCode());
}

TEST_F(StalledRing, WriteGoesOnWhenThePeerTakesBytesAgain) {
    std::thread reader = ReleaseAfterOneTry();
    EXPECT_EQ(4, mRing.buffer.Write(mRing.writeFd));
    reader.join();
    EXPECT_EQ("held", mRing.Drained());
}

TEST_F(StalledRing, FlushOfABlockingDescriptorGivesUpAndLeavesItBlocking) {
    fcntl(mRing.writeFd, F_SETFL, fcntl(mRing.writeFd, F_GETFL) & ~O_NONBLOCK);
    EXPECT_EQ(-EAGAIN, mRing.buffer.Flush(mRing.writeFd));
    EXPECT_EQ(4U, mRing.buffer.NumBytes());
    EXPECT_EQ(0, fcntl(mRing.writeFd, F_GETFL) & O_NONBLOCK);
}

TEST_F(StalledRing, FlushWaitsForAPeerThatTakesBytesAgain) {
    std::thread reader = ReleaseAfterOneTry();
    EXPECT_EQ(4, mRing.buffer.Flush(mRing.writeFd));
    reader.join();
    EXPECT_EQ("held", mRing.Drained());
}

}  // namespace
