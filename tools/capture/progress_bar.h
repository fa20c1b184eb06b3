#pragma once

#include <chrono>
#include <cstdint>

// A bar on the last line of the terminal for what takes over a second. Shows nothing when the
// standard output or error goes elsewhere.
class ProgressBar {
  public:
    explicit ProgressBar(uint64_t total);
    ~ProgressBar() { Clear(); }

    // So much more of total is done.
    void Advance(uint64_t amount);

    // Removes the bar, for a line of output in its place, till the next Advance.
    void Clear();

  private:
    using Clock = std::chrono::steady_clock;

    const uint64_t mTotal;
    const bool mEnabled;
    uint64_t mDone = 0;
    Clock::time_point mNextDraw;
    bool mShown = false;
};
