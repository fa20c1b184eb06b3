// What the splitter costs beside a memchr for every frame and one memcpy of the same bytes: the
// modem's log frames in blocks of 4095 bytes, for flash alone (0 codes) and while the tool wants
// 1, 100 or 4095 codes, of which one packet in ten has the last one. Run it inside scripts/handset.
//
// The pool is stopped first: behind a running one, the writer thread and flash would be measured.
// A stopped pool takes its lock and then takes nothing, so the copy that it would make is made
// here, and every figure of the splitter includes it. The tool's share goes to /dev/null.
//
// The things compared take turns within one iteration, so the counters hold on a busy machine:
//   of_copy   speed, as a share of memchr and memcpy; median
//   of_1code  cost, as a multiple of that with one wanted code; median
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

#include "bench/bench_support.h"
#include "buffer/circular_buffer_ext.h"
#include "capture/pool_buffer.h"
#include "diag/diag_commands.h"
#include "diag/hdlc.h"

class CircularBufferExtPeer {
  public:
    static void StopPool(CircularBufferExt& buffer) { buffer.mPoolBuffer->Exit(); }
};

namespace {

constexpr int kBlock = 4095;
constexpr int kBlocks = 64;
constexpr int kRingSize = 16384;
constexpr int kPoolSize = 50 * 16384;  // the copies wander over as much memory as the pool's
constexpr int kEquipment = 1;
constexpr int kWantedItem = 4094;    // the last that can be listed
constexpr int kUnwantedItem = 4095;  // never asked for
constexpr int kWantedEvery = 10;

// Log frames of frameSize bytes from the first to the last of kBlocks blocks; only the very last
// frame has another length.
std::string MakeStream(int frameSize) {
    constexpr int kCodeAt = 6;
    constexpr size_t kSize = size_t{kBlock} * kBlocks;
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

class Rig {
  public:
    explicit Rig(int frameSize) : mStream(MakeStream(frameSize)) {
        CircularBufferExtPeer::StopPool(mFromModem);
    }
    Rig(const Rig&) = delete;
    Rig& operator=(const Rig&) = delete;
    ~Rig() {
        SetToolCodes(0);
        mFromModem.CloseProcess();
        close(mNull);
    }

    // Asks, as the tool would, for the last count codes and no others.
    void SetToolCodes(int count) {
        SendToolRequest(0);
        if (count > 0) SendToolRequest(count);
    }

    double TimeSplitter() {
        return SecondsOf([this] {
            for (int i = 0; i < kBlocks; ++i) {
                char* const block = &mStream[static_cast<size_t>(i) * kBlock];
                mFromModem.ParseReadData(block, block + kBlock);
                Copy(block);
                if (!mFromModem.IsEmpty()) mFromModem.Write(mNull);
            }
        });
    }

    double TimeCopy() {
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

  private:
    void SendToolRequest(int codes) {
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

    void Copy(const char* block) {
        if (mPoolAt + kBlock > kPoolSize) mPoolAt = 0;
        memcpy(&mPool[static_cast<size_t>(mPoolAt)], block, kBlock);
        benchmark::ClobberMemory();
        mPoolAt += kBlock;
    }

    int mNull = open("/dev/null", O_RDWR | O_CLOEXEC);
    std::vector<char> mUpRing = std::vector<char>(kRingSize);
    std::vector<char> mDownRing = std::vector<char>(kRingSize);
    CircularBufferExt mFromTool{mUpRing.data(), kRingSize, "AP --> BP", mNull, mNull};
    CircularBufferExt mFromModem{mDownRing.data(), kRingSize, "AP <-- BP", mNull, mNull};
    std::string mStream;
    std::vector<char> mPool = std::vector<char>(kPoolSize);
    int mPoolAt = 0;
};

void Split(benchmark::State& state) {
    Rig rig(static_cast<int>(state.range(0)));
    const auto codes = static_cast<int>(state.range(1));
    std::vector<double> copy;
    std::vector<double> oneCode;
    std::vector<double> split;
    // Setting the codes clears caches of the stream: one pass unmeasured.
    const auto timeWith = [&rig](int count) {
        rig.SetToolCodes(count);
        rig.TimeSplitter();
        return rig.TimeSplitter();
    };
    for ([[maybe_unused]] auto unused : state) {
        copy.push_back(rig.TimeCopy());
        if (codes > 1) oneCode.push_back(timeWith(1));
        split.push_back(timeWith(codes));
        state.SetIterationTime(split.back());
    }
    state.SetBytesProcessed(state.iterations() * kBlock * kBlocks);
    state.counters["of_copy"] = Quantile(copy, 0.5) / Quantile(split, 0.5);
    if (codes > 1) state.counters["of_1code"] = Quantile(split, 0.5) / Quantile(oneCode, 0.5);
}
BENCHMARK(Split)
    ->ArgNames({"frame", "codes"})
    ->ArgsProduct({{32, 100, 300, 1500}, {0, 1, 100, 4095}})
    ->UseManualTime()
    ->MinTime(0.2);

}  // namespace

int main(int argc, char** argv) {
    if (!PrepareLog(argv)) return 1;
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 2;
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
