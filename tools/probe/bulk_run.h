#pragma once

#include <chrono>
#include <cstdint>

#include "tools/common/diag_client.h"

// One direction of a bulk transfer.
struct BulkResult {
    uint64_t bytes = 0;     // arrived
    uint64_t mismatch = 0;  // offset of the first wrong byte, or kNoMismatch
    double seconds = 0;     // from the request to the last byte at its destination
};

struct BulkReport {
    BulkResult up;    // tool to modem, as the modem saw it
    BulkResult down;  // modem to tool
};

// Moves upBytes to the simulated modem and downBytes from it, both at once, either may be 0, and
// has every byte compared. The modem must send nothing else meanwhile. Throws ToolError when
// nothing moves for idleLimit, when the modem does not answer as expected, and when the connection
// fails.
BulkReport RunBulk(DiagClient& client, uint64_t upBytes, uint64_t downBytes,
                   DiagClient::Clock::duration idleLimit);
