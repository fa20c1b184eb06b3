// What the soak sends: frames of a modem, of which it knows where each must end up.
#pragma once

#include <atomic>
#include <chrono>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "tests/e2e/handset.h"
#include "tools/modem/sim_modem.h"

namespace e2e {

using Random = std::minstd_rand;

// The tool asks for the log codes 0x1000 and 0x117E.
inline const std::string kToolMask = SetMask(1, "\x01" + std::string(46, '\0') + "\x40");

// A frame without 0x1D, which at the start of a read would be a time stamp for the daemon to keep.
inline std::string PlainFrame(Random& random, const std::string& head, bool isLog, uint16_t code) {
    for (;;) {
        const size_t limit = random() % 9 == 0 ? 6000 : 200;
        std::string payload(random() % limit, '\0');
        for (char& byte : payload)
            byte = static_cast<char>('P' + random() % 48);  // of these, 0x7D and 0x7E are escaped
        std::string frame = Frame(isLog ? SimModem::MakeLogPacket(code, payload, 0x0123457D7E89ABCD)
                                        : head + payload);
        if (frame.find('\x1D') == std::string::npos) return frame;
    }
}

// The last frame is an answer, so the tool has it when all is handled.
struct Mix {
    Mix(Random& random, size_t size, bool isCaptured) {
        static constexpr uint16_t kCodes[] = {0x1000, 0x117E, 0x1001, 0x117C, 0x7E7D};
        static const std::string kHeads[] = {"\x60", "\x79", "\x99", "\x0C", "\x13"};
        while (all.size() < size) {
            const size_t kind = random() % 5;
            const bool isLog = random() % 2 == 0;
            Add(PlainFrame(random, kHeads[kind], isLog, kCodes[kind]),
                isCaptured && (isLog || kind < 3), !isCaptured || (isLog ? kind < 2 : kind >= 3));
        }
        Add(Frame("\x0C the last one"), false, true);
    }

    void Add(const std::string& frame, bool isOwn, bool isForTool) {
        all += frame;
        if (isOwn) own += frame;
        if (isForTool) forTool += frame;
        frames.push_back({frame.size(), isOwn, isForTool});
    }

    // Bytes for flash before the first toolCount for the tool, when all is sent over and over.
    size_t OwnBefore(size_t toolCount) const {
        size_t count = toolCount / forTool.size() * own.size();
        toolCount %= forTool.size();
        for (const auto& frame : frames) {
            if (toolCount == 0 || (frame.isForTool && frame.size > toolCount)) break;
            if (frame.isForTool) toolCount -= frame.size;
            if (frame.isOwn) count += frame.size;
        }
        return count;
    }

    struct Fate {
        size_t size;
        bool isOwn;
        bool isForTool;
    };
    std::string all;
    std::string own;      // on flash
    std::string forTool;  // all of it with capture off
    std::vector<Fate> frames;
};

// Whether actual is what comes first when unit is sent over and over.
inline AssertionResult IsBegun(const std::string& unit, const std::string& actual) {
    if (unit.empty()) return Same(unit, actual);
    for (size_t at = 0; at < actual.size(); at += unit.size()) {
        const std::string part = actual.substr(at, unit.size());
        if (const auto same = Same(unit.substr(0, part.size()), part); !same) return same;
    }
    return testing::AssertionSuccess();
}

// Sends on a thread of its own, as fast as it can, once or over and over until it is destroyed.
class Flood {
  public:
    enum Times { kOnce, kEndless };

    Flood(Stream& from, const std::string& all, Times times)
        : mThread([this, &from, &all, times] {
              for (size_t sent = 0; !mStops && (sent < all.size() || times == kEndless);) {
                  const size_t at = sent % all.size();
                  const size_t n = from.SendSome(all.data() + at, all.size() - at);
                  sent += n;
                  // Full: looks again soon, but must also notice that it is to stop; so it sleeps.
                  if (n == 0) std::this_thread::sleep_for(std::chrono::microseconds(200));
              }
          }) {}
    ~Flood() {
        mStops = true;
        mThread.join();
    }

  private:
    std::atomic<bool> mStops{false};
    std::thread mThread;
};

}  // namespace e2e
