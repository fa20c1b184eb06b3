// Sends to a modem that is slow to take them.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <thread>

#include "logmask/log_mask.h"

namespace {

TEST(DiagIo, WaitsThatEndInTimeUseUpTheBudgetOfSends) {
    constexpr int kLineSize = 4096;  // bytes that the line holds, the least there is
    constexpr std::chrono::milliseconds kBudget(300);
    constexpr std::chrono::milliseconds kPause(200);  // of the modem before it takes as much again
    int line[2];
    ASSERT_EQ(0, pipe2(line, O_CLOEXEC));
    ASSERT_EQ(kLineSize, fcntl(line[1], F_SETPIPE_SZ, kLineSize));
    std::thread modem([&] {
        char chunk[kLineSize];
        ssize_t n = 1;
        while (n > 0) {
            std::this_thread::sleep_for(kPause);  // this is the slowness
            n = read(line[0], chunk, sizeof(chunk));
        }
    });
    LogMask& mask = *LogMask::GetInstance();
    mask.SetDiagFd(line[1]);
    mask.StartWaitBudget(kBudget);
    // Three waits for room, each within the budget.
    const std::string frame = std::string(kDiagAreaSize - 1, 'x') + '\x7E';
    EXPECT_EQ(-1, mask.DiagDataSend(frame.data(), static_cast<int>(frame.size())));
    mask.SetDiagFd(-1);
    close(line[1]);
    modem.join();
    close(line[0]);
}

}  // namespace
