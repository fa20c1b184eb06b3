// One connection from start to end, between two socket pairs.
#include <gtest/gtest.h>
#include <sys/time.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <future>
#include <string>
#include <thread>

#include "relay/transfer_bidirectional.h"
#include "tests/unit/support/descriptors.h"

namespace {

constexpr unsigned long kBufferSize = 16384;

// The relay closes the near ends, so the pairs give them up.
int Release(int& fd) {
    const int released = fd;
    fd = -1;
    return released;
}

class Relay : public ::testing::Test {
  protected:
    Relay() { signal(SIGPIPE, SIG_IGN); }
    ~Relay() override {
        tool.CloseFar();
        modem.CloseFar();
    }

    void Start(const timeval* timeout = nullptr, void (*callback)(void*) = nullptr,
               void* arg = nullptr) {
        const int apFd = Release(tool.near);
        const int bpFd = Release(modem.near);
        result = std::async(std::launch::async, [=] {
            return transfer_bidirectional_and_close(apFd, bpFd, -1, kBufferSize, timeout, callback,
                                                    arg);
        });
    }

    SocketPair tool;
    SocketPair modem;
    std::future<int> result;
};

std::string Pattern(size_t size) {
    std::string bytes(size, '\0');
    for (size_t i = 0; i < size; ++i)
        bytes[i] = static_cast<char>(i * 131 + (i >> 8) * 7);
    return bytes;
}

TEST_F(Relay, CarriesBothDirectionsUntilTheToolCloses) {
    Start();
    WriteAll(tool.far, "request");
    EXPECT_EQ("request", ReadExactly(modem.far, 7));
    WriteAll(modem.far, "answer");
    EXPECT_EQ("answer", ReadExactly(tool.far, 6));
    WriteAll(tool.far, "last words");
    tool.CloseFar();
    EXPECT_EQ("last words", ReadExactly(modem.far, 10));
    EXPECT_EQ(0, result.get());
    char byte = 0;
    EXPECT_EQ(0, read(modem.far, &byte, 1)) << "the modem port is closed";
}

TEST_F(Relay, CarriesMoreThanBothBuffersHold) {
    const std::string bytes = Pattern(1000000);
    Start();
    auto toModem = std::async(std::launch::async, [&] { WriteAll(tool.far, bytes); });
    auto toTool = std::async(std::launch::async, [&] { WriteAll(modem.far, bytes); });
    auto atTool =
        std::async(std::launch::async, [&] { return ReadExactly(tool.far, bytes.size()); });
    EXPECT_TRUE(ReadExactly(modem.far, bytes.size()) == bytes);
    EXPECT_TRUE(atTool.get() == bytes);
    toModem.get();
    toTool.get();
}

TEST_F(Relay, DeliversAllFromAModemThatHungUp) {
    const std::string bytes = Pattern(100000);
    Start();
    auto toTool = std::async(std::launch::async, [&] {
        WriteAll(modem.far, bytes);
        modem.CloseFar();
    });
    EXPECT_TRUE(ReadExactly(tool.far, bytes.size()) == bytes);
    EXPECT_EQ(0, result.get());
    toTool.get();
}

TEST_F(Relay, StalledToolDoesNotHoldTheOtherDirection) {
    FillUntilFull(tool.near);
    Start();
    WriteAll(modem.far, "held back");
    const std::string bytes = Pattern(300000);
    auto toModem = std::async(std::launch::async, [&] { WriteAll(tool.far, bytes); });
    EXPECT_TRUE(ReadExactly(modem.far, bytes.size()) == bytes);
    toModem.get();
}

// With how many bytes of the tool on their way.
class RelayToStalledModem : public Relay, public ::testing::WithParamInterface<size_t> {};

TEST_P(RelayToStalledModem, EndsWithTheTool) {
    FillUntilFull(modem.near);
    Start();
    WriteAll(tool.far, Pattern(GetParam()));
    tool.CloseFar();
    EXPECT_EQ(0, result.get());
}

// The second is more than the ring holds: then the tool is not read up to its end.
INSTANTIATE_TEST_SUITE_P(Sizes, RelayToStalledModem, ::testing::Values(10, 100000));

TEST_F(Relay, SlowModemGetsAllOfAToolThatClosed) {
    // The ring's content takes longer than the retries of a write last.
    constexpr size_t kPiece = 64;
    const int small = 1;
    setsockopt(modem.near, SOL_SOCKET, SO_SNDBUF, &small, sizeof(small));
    const std::string bytes = Pattern(25600);
    Start();
    WriteAll(tool.far, bytes);
    tool.CloseFar();
    std::string taken;
    while (taken.size() < bytes.size()) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));  // this is the slowness
        const std::string piece = ReadExactly(modem.far, kPiece);
        if (piece.empty()) break;
        taken += piece;
    }
    EXPECT_TRUE(taken == bytes);
    EXPECT_EQ(0, result.get());
}

TEST_F(Relay, NeedsBothSides) {
    EXPECT_EQ(-1,
              transfer_bidirectional_and_close(-1, -1, -1, kBufferSize, nullptr, nullptr, nullptr));
    EXPECT_EQ(0, transfer_bidirectional_and_close(Release(tool.near), -1, -1, kBufferSize, nullptr,
                                                  nullptr, nullptr));
    char byte = 0;
    EXPECT_EQ(0, read(tool.far, &byte, 1)) << "a tool without a modem is disconnected";
    EXPECT_EQ(-1, transfer_bidirectional_and_close(-1, Release(modem.near), -1, kBufferSize,
                                                   nullptr, nullptr, nullptr));
    EXPECT_EQ(0, read(modem.far, &byte, 1));
}

TEST_F(Relay, EachTimeoutCallsBack) {
    std::atomic<int> calls{0};
    std::promise<void> thirdCall;
    struct Arg {
        std::atomic<int>* calls;
        std::promise<void>* third;
    } arg = {&calls, &thirdCall};
    const timeval interval = {0, 1000};
    Start(
        &interval,
        [](void* untyped) {
            auto* a = static_cast<Arg*>(untyped);
            if (++*a->calls == 3) a->third->set_value();
        },
        &arg);
    thirdCall.get_future().get();
    WriteAll(tool.far, "still here");
    EXPECT_EQ("still here", ReadExactly(modem.far, 10)) << "a timeout ends nothing";
    tool.CloseFar();
    EXPECT_EQ(0, result.get());
}

}  // namespace
