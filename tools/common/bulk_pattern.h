// The byte pattern of bulk transfers: one pseudo-random block over and over, of prime length, so
// that lost or repeated bytes show. No byte is 0x4B: the daemon alters a command that begins so
// when it stands at the start of a read, and a cut can fall anywhere.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "tools/common/packet.h"

// The pattern's bytes from offset on: as many as lie in one piece, at most count, at least one
// unless count is 0. The bytes live for ever.
std::string_view BulkPatternAt(uint64_t offset, uint64_t count);

// Compares a stream with the pattern.
class BulkChecker {
  public:
    void Check(const char* data, size_t len);

    uint64_t received() const { return mReceived; }
    // Offset of the first wrong byte, or kNoMismatch.
    uint64_t mismatch() const { return mMismatch; }

  private:
    uint64_t mReceived = 0;
    uint64_t mMismatch = kNoMismatch;
};
