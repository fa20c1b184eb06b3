// What every fuzz target needs: a check that ends the process, and the input taken apart.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <string>

inline void Check(bool holds, const char* invariant) {
    if (holds) return;
    fprintf(stderr, "broken invariant: %s\n", invariant);
    __builtin_trap();
}

// Gives the input's bytes out from its start; zeros behind its end.
class FuzzInput {
  public:
    FuzzInput(const uint8_t* data, size_t size) : mAt(data), mEnd(data + size) {}

    bool IsOver() const { return mAt == mEnd; }
    uint8_t Byte() { return IsOver() ? 0 : *mAt++; }

    // Up to count bytes as they are.
    std::string Bytes(size_t count) {
        count = std::min(count, static_cast<size_t>(mEnd - mAt));
        std::string bytes(reinterpret_cast<const char*>(mAt), count);
        mAt += count;
        return bytes;
    }

    // Up to count bytes of input, in which EE n byte stands for n times the byte and, from n = 128
    // on, for 128 (n - 127) times: so a small input fills the areas of 16384 bytes. Flags are not
    // repeated.
    std::string Runs(size_t count) {
        constexpr size_t kLongest = 40000;
        FuzzInput packed(mAt, std::min(count, static_cast<size_t>(mEnd - mAt)));
        mAt = packed.mEnd;
        std::string bytes;
        while (!packed.IsOver() && bytes.size() < kLongest) {
            uint8_t byte = packed.Byte();
            size_t times = 1;
            if (byte == 0xEE) {
                times = packed.Byte();
                if (times >= 128) times = 128 * (times - 127);
                byte = packed.Byte();
                if (byte == 0x7E) times = 1;
            }
            bytes.append(times, static_cast<char>(byte));
        }
        return bytes;
    }

  private:
    const uint8_t* mAt;
    const uint8_t* const mEnd;
};
