// What is in captures, added up.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "tools/capture/capture_reader.h"
#include "tools/common/packet.h"

class CaptureTotals {
  public:
    void AddFile(uint64_t bytes);
    void Add(const CaptureFrame& frame);

    uint64_t bytes() const { return mBytes; }  // of all files

    // Bad check sequences and cut frames.
    bool hasProblems() const { return !mProblems.empty(); }

    std::string Text() const;
    std::string Json() const;

  private:
    struct Count {
        uint64_t frames = 0;
        uint64_t bytes = 0;  // as captured

        void Add(uint64_t length) {
            ++frames;
            bytes += length;
        }
    };
    struct Problem {
        std::string file;
        uint64_t offset;
        CaptureCheck check;
    };

    std::vector<std::pair<std::string, Count>> KindRows() const;
    std::vector<uint32_t> CodesByBytes() const;
    std::string CodeLines() const;
    std::string ProblemLines() const;
    std::string SpanLine() const;

    uint64_t mFiles = 0;
    uint64_t mBytes = 0;
    std::array<Count, kPacketKinds> mKinds;  // good frames
    Count mBad;
    Count mCut;
    std::vector<Count> mCodes = std::vector<Count>(0x10000);  // good frames
    uint64_t mFirstTime = UINT64_MAX;                         // stamps; above mLastTime for none
    uint64_t mLastTime = 0;
    std::vector<Problem> mProblems;
};
