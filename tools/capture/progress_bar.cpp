#include "tools/capture/progress_bar.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <string>

namespace {

constexpr auto kFirstDraw = std::chrono::seconds(1);
constexpr auto kInterval = std::chrono::milliseconds(100);
constexpr uint64_t kWidth = 40;

}  // namespace

ProgressBar::ProgressBar(uint64_t total)
    : mTotal(std::max<uint64_t>(total, 1)),
      mEnabled(isatty(STDOUT_FILENO) == 1 && isatty(STDERR_FILENO) == 1),
      mNextDraw(Clock::now() + kFirstDraw) {}

void ProgressBar::Advance(uint64_t amount) {
    mDone = std::min(mDone + amount, mTotal);
    if (!mEnabled || Clock::now() < mNextDraw) return;
    mNextDraw = Clock::now() + kInterval;
    const std::string bar(mDone * kWidth / mTotal, '#');
    fmt::print(stderr, "\r[{:<{}}] {:3}%", bar, kWidth, mDone * 100 / mTotal);
    mShown = true;
}

void ProgressBar::Clear() {
    if (!mShown) return;
    fputs("\r\033[K", stderr);
    mShown = false;
}
