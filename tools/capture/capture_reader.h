// Captured bytes, cut anywhere, back to frames.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

enum class CaptureCheck {
    kGood,
    kBad,         // wrong check sequence, or too short to hold a packet and one
    kCutAtStart,  // the file begins in the middle of it
    kCutAtEnd,    // the file ends in the middle of it
};

struct CaptureFrame {
    CaptureCheck check;
    std::string_view file;    // in which it begins
    uint64_t offset;          // of its first byte there
    uint64_t length;          // in bytes as captured, with escapes and 0x7E
    std::string_view packet;  // without check sequence; of a cut frame all that is there
};

// Reads files one behind the other. A frame that one ends with and the next goes on with is one
// frame: captures rotate anywhere. Empty frames (a 0x7E alone) are passed over. One thread.
class CaptureReader {
  public:
    // Gets every frame, with what it refers to valid during the call; false ends the reading.
    using Taker = std::function<bool(const CaptureFrame&)>;

    explicit CaptureReader(Taker taker) : mTaker(std::move(taker)) {}

    // The bytes that follow are those of the named file from offset on, where a frame begins
    // unless it is 0.
    void BeginFile(const std::string& name, uint64_t offset = 0);

    // Takes the next bytes of the file. False once the taker wants no more.
    bool Take(std::string_view bytes);

    // No file follows: a frame that has no end is cut.
    void Finish();

  private:
    struct Piece {
        std::string file;
        uint64_t offset = 0;
        std::string bytes;  // as captured; empty for none
    };

    bool EndFrame(std::string_view raw);
    bool EndCarried();
    std::string_view Unescape(std::string_view raw);
    bool Decode(std::string_view raw, CaptureFrame* frame);

    const Taker mTaker;
    Piece mCarried;         // of the files before, till the first 0x7E of this one
    Piece mCurrent;         // the frame in progress
    bool mIsFirst = false;  // the frame in progress stands at the start of its file
    std::string mPlain;     // the frame un-escaped, if it needs that
};
