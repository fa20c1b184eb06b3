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

  private:
    const uint8_t* mAt;
    const uint8_t* const mEnd;
};
