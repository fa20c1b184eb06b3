// What became of the bytes that the modem sent while capture was on.
#pragma once

#include <cstdint>

// After every block WriteToAP + SavedToFlash - LogDataWriteToAp = ReadDataFromBP. Belongs to
// whoever has the splitter.
struct ByteCounts {
    uint64_t mTotalLengthForReadDataFromBP = 0;     // read, adjusted where a frame is rewritten
    uint64_t mTotalLengthForSavedToFlash = 0;       // taken by the pool
    uint64_t mTotalLengthForReadDataWriteToAP = 0;  // taken by the ring, or kept for it
    uint64_t mTotalLengthForLogDataWriteToAp = 0;   // both to the tool and to flash

    bool IsBalanced() const {
        return mTotalLengthForReadDataWriteToAP + mTotalLengthForSavedToFlash -
                   mTotalLengthForLogDataWriteToAp ==
               mTotalLengthForReadDataFromBP;
    }
};
