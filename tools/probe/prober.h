#pragma once

#include <chrono>
#include <cstdint>
#include <set>
#include <string>
#include <string_view>

#include "tools/common/diag_client.h"

// What a Prober prints.
struct ProbeOutput {
    bool raw = false;          // the bytes received, instead of frames and requests
    std::set<uint32_t> codes;  // unless empty: answers, and the log packets of these codes only
};

// Sends requests and prints what comes back. One thread.
class Prober {
  public:
    using Clock = DiagClient::Clock;

    // The client outlives the prober.
    Prober(DiagClient& client, Clock::duration timeout, ProbeOutput output);
    ~Prober() { mClient.TraceInput(nullptr); }
    Prober(const Prober&) = delete;
    Prober& operator=(const Prober&) = delete;

    // Sends request and returns its answer; throws ToolError when none comes in time.
    std::string Ask(std::string_view request);

    // The same, printing nothing but raw bytes.
    std::string AskQuietly(std::string_view request);

    // Prints what comes until the given moment, or until endFd, unless that is -1, is readable.
    void Watch(Clock::time_point until, int endFd);

    uint64_t badFrames() const { return mBadFrames; }

  private:
    void Show(const ReceivedFrame& frame);

    DiagClient& mClient;
    const Clock::duration mTimeout;
    const ProbeOutput mOutput;
    uint64_t mBadFrames = 0;
    bool mQuiet = false;
};
