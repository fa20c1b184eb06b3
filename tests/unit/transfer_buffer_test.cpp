// Verdicts of a relay endpoint on real descriptors.
#include <gtest/gtest.h>
#include <sys/select.h>

#include <csignal>
#include <string>
#include <vector>

#include "relay/transfer_buffer.h"
#include "tests/unit/support/descriptors.h"

namespace {

class Endpoint : public ::testing::Test {
  protected:
    bool Handle(bool readable, bool writable) {
        FD_ZERO(&readSet);
        FD_ZERO(&writeSet);
        if (readable) FD_SET(readFd, &readSet);
        if (writable) FD_SET(writeFd, &writeSet);
        const bool result = endpoint.HandleSelect(readSet, writeSet, exceptSet);
        EXPECT_FALSE(FD_ISSET(readFd, &readSet)) << "a mark left behind makes the loop spin";
        EXPECT_FALSE(FD_ISSET(writeFd, &writeSet)) << "a mark left behind makes the loop spin";
        return result;
    }

    SocketPair source;
    SocketPair sink;
    int readFd = source.near;
    int writeFd = sink.near;
    std::vector<char> storage = std::vector<char>(64);
    CircularBufferExt buffer{storage.data(), 64, "AP --> BP", readFd, writeFd};
    TransferBuffer endpoint{buffer, readFd, writeFd};
    fd_set readSet = {};
    fd_set writeSet = {};
    fd_set exceptSet = {};
};

TEST_F(Endpoint, WatchesByFillLevel) {
    struct Case {
        const char* name;
        int held;
        bool watchesRead;
        bool watchesWrite;
    };
    for (const Case& c : {Case{"empty", 0, true, false}, Case{"some", 10, true, true},
                          Case{"full: back-pressure", 63, false, true}}) {
        SCOPED_TRACE(c.name);
        while (buffer.NumBytes() < static_cast<unsigned long>(c.held)) {
            buffer.CopyDataToBuffer("x", 1);
        }
        FD_ZERO(&readSet);
        FD_ZERO(&writeSet);
        endpoint.SetSelectBits(readSet, writeSet, exceptSet);
        EXPECT_EQ(c.watchesRead, FD_ISSET(readFd, &readSet) != 0);
        EXPECT_EQ(c.watchesWrite, FD_ISSET(writeFd, &writeSet) != 0);
    }
}

TEST_F(Endpoint, WritesBytesJustReadWithoutAMark) {
    WriteAll(source.far, "abc");
    EXPECT_TRUE(Handle(true, false));
    EXPECT_EQ("abc", ReadAvailable(sink.far));
}

TEST_F(Endpoint, GoesOnWhenNothingCame) {
    EXPECT_TRUE(Handle(true, false));
    EXPECT_TRUE(Handle(false, true)) << "a mark with nothing to write ends nothing";
    EXPECT_TRUE(Handle(false, false));
}

TEST_F(Endpoint, LeavesAStalledPeerAloneUnlessItIsReady) {
    const size_t filled = FillUntilFull(sink.near);
    buffer.CopyDataToBuffer("held", 4);
    EXPECT_TRUE(Handle(false, false));
    EXPECT_EQ(1, buffer.ThreadExitCode()) << "no write was tried";
    ReadExactly(sink.far, filled);
    EXPECT_TRUE(Handle(false, true));
    EXPECT_EQ("held", ReadAvailable(sink.far));
}

TEST_F(Endpoint, EndOfSourceStillDeliversWhatIsHeld) {
    buffer.CopyDataToBuffer("held ", 5);
    WriteAll(source.far, "last");
    source.CloseFar();
    EXPECT_FALSE(Handle(true, false));
    EXPECT_EQ("held last", ReadAvailable(sink.far));
}

TEST_F(Endpoint, EndOfSourceDeliversWhatOlderReadsLeft) {
    buffer.CopyDataToBuffer("held", 4);
    source.CloseFar();
    EXPECT_FALSE(Handle(true, false));
    EXPECT_EQ("held", ReadAvailable(sink.far));
}

TEST_F(Endpoint, EndsWhenTheSinkIsGone) {
    signal(SIGPIPE, SIG_IGN);
    sink.CloseFar();
    WriteAll(source.far, "abc");
    EXPECT_FALSE(Handle(true, false));
    EXPECT_EQ(-EPIPE, buffer.ThreadExitCode());
}

}  // namespace
