// Writes to a tty whose reader is slow or stands still.
#include "buffer/bounded_write.h"

#include <gtest/gtest.h>
#include <pty.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <future>
#include <string>
#include <thread>

#include "support/descriptors.h"

namespace {

TEST(BoundedWrite, EndsWithAReaderThatStandsStillAndServesItLater) {
    int line = -1;
    int port = -1;
    termios raw = {};
    cfmakeraw(&raw);
    ASSERT_EQ(0, openpty(&line, &port, nullptr, &raw, nullptr));
    fcntl(port, F_SETFL, O_NONBLOCK);
    EndLongWrite();
    std::atomic<bool> ends{false};
    std::thread watcher([&] {
        while (!ends) {
            EndLongWrite();
            std::this_thread::sleep_for(std::chrono::milliseconds(10));  // as often as it is called
        }
    });
    std::string bytes(40000, '\0');
    for (size_t i = 0; i < bytes.size(); ++i)
        bytes[i] = static_cast<char>(i * 131 + (i >> 8) * 7);
    for (int round = 0; round < 2; ++round) {
        const ssize_t taken = WriteBounded(port, bytes.data(), bytes.size());
        ASSERT_GT(taken, 0);
        ASSERT_LT(taken, 40000);
        EXPECT_EQ(-1, WriteBounded(port, bytes.data(), bytes.size()));
        EXPECT_EQ(EAGAIN, errno);
        EXPECT_NE(0, fcntl(port, F_GETFL) & O_NONBLOCK);
        EXPECT_EQ(bytes.substr(0, static_cast<size_t>(taken)),
                  ReadExactly(line, static_cast<size_t>(taken)));
    }
    auto reader = std::async(std::launch::async, [&] { return ReadExactly(line, bytes.size()); });
    EXPECT_EQ(40000, WriteBounded(port, bytes.data(), bytes.size())) << "it waits for a reader";
    EXPECT_EQ(bytes, reader.get());
    ends = true;
    watcher.join();
    close(port);
    close(line);
}

}  // namespace
