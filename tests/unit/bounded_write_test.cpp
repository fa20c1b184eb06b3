#include "buffer/bounded_write.h"

#include <pty.h>

#include "tests/unit/support/descriptors.h"

namespace {

// The watcher ends a write whose reader stands still; what was taken is neither lost nor repeated.
TEST(BoundedWrite, EndsWithTheWatchersSecondCall) {
    int line = -1;
    int port = -1;
    termios raw = {};
    cfmakeraw(&raw);
    ASSERT_EQ(0, openpty(&line, &port, nullptr, &raw, nullptr));
    fcntl(port, F_SETFL, O_NONBLOCK);
    const std::string bytes(40000, 'x');
    EndLongWrite();
    auto written = std::async(std::launch::async,
                              [&] { return WriteBounded(port, bytes.data(), bytes.size()); });
    // It has begun once its first bytes are there; a call before that would end it without any.
    pollfd begun = {line, POLLIN, 0};
    ASSERT_EQ(1, poll(&begun, 1, 20000));
    while (written.wait_for(std::chrono::seconds(0)) != std::future_status::ready)
        EndLongWrite();
    const auto taken = static_cast<size_t>(written.get());
    EXPECT_GT(bytes.size(), taken);
    EXPECT_NE(0, fcntl(port, F_GETFL) & O_NONBLOCK);
    EXPECT_EQ(bytes.substr(0, taken), ReadExactly(line, taken));
    close(port);
    close(line);
}

}  // namespace
