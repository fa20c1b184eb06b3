// The splitter without what is around it, and what a copy of the same bytes costs.
#pragma once

#include <fcntl.h>

#include <string>
#include <vector>

#include "buffer/circular_buffer_ext.h"

// The modem's log frames in blocks of 4095 bytes, of which one in ten has a code that the tool may
// want. The pool is stopped first: behind a running one, the writer thread and flash would be
// measured. A stopped pool takes its lock and then takes nothing, so the copy that it would make is
// made here, and every figure of the splitter includes it. The tool's share goes to /dev/null.
class SplitterRig {
  public:
    static constexpr int kBlock = 4095;
    static constexpr int kBlocks = 64;
    static constexpr int kBytes = kBlock * kBlocks;  // of a pass

    // Frames of frameSize bytes.
    explicit SplitterRig(int frameSize);
    SplitterRig(const SplitterRig&) = delete;
    SplitterRig& operator=(const SplitterRig&) = delete;
    ~SplitterRig();

    // Asks, as the tool would, for the last count codes that can be listed, of which the last
    // comes, and no others.
    void SetToolCodes(int count);

    // Seconds of one pass of the splitter; of a memchr for every frame and a memcpy of the same
    // bytes.
    double TimeSplitter();
    double TimeCopy();

  private:
    static constexpr int kRingSize = 16384;
    static constexpr int kPoolSize = 50 * 16384;  // the copies wander over as much as the pool's

    void SendToolRequest(int codes);
    void Copy(const char* block);

    int mNull = open("/dev/null", O_RDWR | O_CLOEXEC);
    std::vector<char> mUpRing = std::vector<char>(kRingSize);
    std::vector<char> mDownRing = std::vector<char>(kRingSize);
    CircularBufferExt mFromTool{mUpRing.data(), kRingSize, "AP --> BP", mNull, mNull};
    CircularBufferExt mFromModem{mDownRing.data(), kRingSize, "AP <-- BP", mNull, mNull};
    std::string mStream;
    std::vector<char> mPool = std::vector<char>(kPoolSize);
    int mPoolAt = 0;
};
