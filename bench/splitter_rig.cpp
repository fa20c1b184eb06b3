#include "bench/splitter_rig.h"

#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstring>

#include "bench/bench_support.h"
#include "capture/pool_buffer.h"
#include "diag/diag_commands.h"
#include "diag/hdlc.h"

class CircularBufferExtPeer {
  public:
    static void StopPool(CircularBufferExt& buffer) { buffer.mPoolBuffer->Exit(); }
};

namespace {

constexpr int kEquipment = 1;
constexpr int kWantedItem = 4094;    // the last that can be listed
constexpr int kUnwantedItem = 4095;  // never asked for
constexpr int kWantedEvery = 10;

// Log frames of frameSize bytes from the first to the last of all blocks; only the very last frame
// has another length.
std::string MakeStream(int frameSize) {
    constexpr int kCodeAt = 6;
    constexpr size_t kSize = SplitterRig::kBytes;
    std::string stream;
    for (int number = 0; stream.size() < kSize; ++number) {
        const int item = number % kWantedEvery == 0 ? kWantedItem : kUnwantedItem;
        std::string frame(static_cast<size_t>(frameSize), '\x33');
        frame[0] = '\x10';
        frame[kCodeAt] = static_cast<char>(item & 0xFF);
        frame[kCodeAt + 1] = static_cast<char>(kEquipment << 4 | item >> 8);
        frame.back() = static_cast<char>(kHdlcFlag);
        stream += frame;
    }
    stream.resize(kSize);
    stream.back() = static_cast<char>(kHdlcFlag);
    return stream;
}

}  // namespace

SplitterRig::SplitterRig(int frameSize) : mStream(MakeStream(frameSize)) {
    CircularBufferExtPeer::StopPool(mFromModem);
}

SplitterRig::~SplitterRig() {
    SetToolCodes(0);
    mFromModem.CloseProcess();
    close(mNull);
}

void SplitterRig::SetToolCodes(int count) {
    SendToolRequest(0);
    if (count > 0) SendToolRequest(count);
}

double SplitterRig::TimeSplitter() {
    return SecondsOf([this] {
        for (int i = 0; i < kBlocks; ++i) {
            char* const block = &mStream[static_cast<size_t>(i) * kBlock];
            mFromModem.ParseReadData(block, block + kBlock);
            Copy(block);
            if (!mFromModem.IsEmpty()) mFromModem.Write(mNull);
        }
    });
}

double SplitterRig::TimeCopy() {
    return SecondsOf([this] {
        for (int i = 0; i < kBlocks; ++i) {
            const char* const block = &mStream[static_cast<size_t>(i) * kBlock];
            const char* const end = block + kBlock;
            for (const char* at = block; at != nullptr;) {
                at = FindFrameEnd(at, end);
                benchmark::DoNotOptimize(at);
                if (at != nullptr) ++at;
            }
            Copy(block);
        }
    });
}

void SplitterRig::SendToolRequest(int codes) {
    char request[kMaskAt + 512] = {};
    memcpy(request, kSetLogMaskPrefix, sizeof(kSetLogMaskPrefix));
    request[kEquipmentIdAt] = kEquipment;
    request[kMaskBitsAt] = '\xFF';
    request[kMaskBitsAt + 1] = '\x0F';
    for (int item = kWantedItem; item > kWantedItem - codes; --item)
        request[kMaskAt + item / 8] =
            static_cast<char>(request[kMaskAt + item / 8] | 1 << item % 8);
    char framed[kDiagAreaSize];
    const int len = EncodeFrame(request, sizeof(request), framed);
    mFromTool.ParseReadData(framed, framed + len);
    mFromTool.Write(mNull);
}

void SplitterRig::Copy(const char* block) {
    if (mPoolAt + kBlock > kPoolSize) mPoolAt = 0;
    memcpy(&mPool[static_cast<size_t>(mPoolAt)], block, kBlock);
    benchmark::ClobberMemory();
    mPoolAt += kBlock;
}
