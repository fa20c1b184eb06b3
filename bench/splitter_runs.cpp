// The splitter alone, beside what it must at least do with the same bytes, and by wanted codes.
#include <benchmark/benchmark.h>
#include <fmt/format.h>

#include <cstring>
#include <memory>

#include "bench/bench_support.h"
#include "bench/runs.h"
#include "buffer/stream_splitter.h"
#include "tools/common/frame_stream.h"
#include "tools/common/packet.h"

namespace {

constexpr int kBlock = 4095;
constexpr int kBlocks = 64;
constexpr int kPasses = 200;  // of all blocks, a round
constexpr int kEquipment = 1;
constexpr int kWantedItem = 4094;
constexpr int kUnwantedItem = 4095;  // never asked for
constexpr int kWantedEvery = 10;

// Takes what it gets as the ring and the pool would: with a copy.
class Copies {
  public:
    int ToTool(const char* data, int len) { return Take(data, len); }
    int ToFlash(const char* data, int len) { return Take(data, len); }

  private:
    int Take(const char* data, int len) {
        if (mAt + len > static_cast<int>(mPool.size())) mAt = 0;
        memcpy(&mPool[static_cast<size_t>(mAt)], data, static_cast<size_t>(len));
        benchmark::ClobberMemory();
        mAt += len;
        return len;
    }

    std::vector<char> mPool = std::vector<char>(50 * kDiagAreaSize);
    int mAt = 0;
};

// Log frames of frameSize bytes from the first to the last of all blocks.
std::string MakeStream(int frameSize) {
    std::string stream;
    for (int number = 0; stream.size() < kBlock * kBlocks; ++number) {
        const int item = number % kWantedEvery == 0 ? kWantedItem : kUnwantedItem;
        std::string frame(static_cast<size_t>(frameSize), '\x33');
        frame[0] = static_cast<char>(kCmdLogPacket);
        frame[6] = static_cast<char>(item & 0xFF);
        frame[7] = static_cast<char>(kEquipment << 4 | item >> 8);
        frame.back() = static_cast<char>(kHdlcFlag);
        stream += frame;
    }
    stream.resize(kBlock * kBlocks);
    stream.back() = static_cast<char>(kHdlcFlag);
    return stream;
}

template <typename Work>
double MegabytesPerSecond(std::string& stream, Work work) {
    const double seconds = SecondsOf([&] {
        for (int i = 0; i < kPasses * kBlocks; ++i) {
            char* const block = &stream[static_cast<size_t>(i % kBlocks) * kBlock];
            work(block, block + kBlock);
        }
    });
    return kPasses * kBlocks * kBlock / kMega / seconds;
}

// While the tool wants the last codes that there are, the last of which comes.
double Split(std::string& stream, int codes) {
    const auto requests = std::make_unique<ToolLogRequests>();
    std::string request;
    for (const uint32_t field : {uint32_t{kCmdLogConfig}, kLogConfigSetMask, uint32_t{kEquipment},
                                 uint32_t{kWantedItem + 1}})
        AppendLe32(request, field);
    request.resize(kMaskAt + 512);
    for (int item = kWantedItem; item > kWantedItem - codes; --item) {
        char& byte = request[static_cast<size_t>(kMaskAt + item / 8)];
        byte = static_cast<char>(byte | 1 << item % 8);
    }
    std::string framed;
    AppendFrame(framed, request);
    requests->Record(framed.data(), static_cast<int>(framed.size()));
    const std::atomic<bool> areAnswersRewritten{false};
    Copies copies;
    StreamSplitter<Copies> splitter(*requests, areAnswersRewritten, copies);
    return MegabytesPerSecond(stream,
                              [&](char* begin, char* end) { splitter.ParseReadData(begin, end); });
}

// A memchr for every frame and a memcpy of the block.
double Copy(std::string& stream) {
    Copies copies;
    return MegabytesPerSecond(stream, [&](const char* begin, const char* end) {
        for (const char* at = begin; at != nullptr;) {
            at = FindFrameEnd(at, end);
            benchmark::DoNotOptimize(at);
            if (at != nullptr) ++at;
        }
        copies.ToFlash(begin, kBlock);
    });
}

}  // namespace

void MeasureSplitter(const Extent& extent, Report& report) {
    for (const int frameSize : {32, 100}) {
        std::string stream = MakeStream(frameSize);
        const std::string name = fmt::format("splitter, frames of {} bytes", frameSize);
        Row limit{name, "MB/s"};
        Row codes{name + ", 4095 wanted codes", "MB/s"};
        for (int round = 0; round < extent.rounds; ++round) {
            const double one = Split(stream, 1);
            limit.Record("quillod", one);
            limit.Record("memchr, memcpy", Copy(stream));
            codes.Record("quillod", Split(stream, 4095));
            codes.Record("1 code", one);
        }
        report.AtLeast(codes.what + ", of one", codes.Ratio(), 0.8);
        report.Add(limit);
        report.Add(codes);
    }
}
