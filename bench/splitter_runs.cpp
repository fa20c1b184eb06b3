// The splitter alone, beside what it must at least do with the same bytes, and by wanted codes.
#include <benchmark/benchmark.h>
#include <fmt/format.h>

#include <cstring>
#include <set>
#include <string>
#include <vector>

#include "bench/runs.h"
#include "buffer/stream_splitter.h"
#include "tools/common/frame_stream.h"
#include "tools/common/mask_requests.h"
#include "tools/common/packet.h"

namespace {

constexpr size_t kBlock = 4095;
constexpr size_t kBlocks = 64;
constexpr uint32_t kWantedCode = 0x1FFE;
constexpr uint32_t kUnwantedCode = 0x1FFF;

// Takes what it gets as the ring and the pool would, with a copy.
class Copies {
  public:
    int ToTool(const char* data, int len) { return ToFlash(data, len); }
    int ToFlash(const char* data, int len) {
        const auto count = static_cast<size_t>(len);
        if (mAt + count > mBytes.size()) mAt = 0;
        memcpy(&mBytes[mAt], data, count);
        benchmark::ClobberMemory();
        mAt += count;
        return len;
    }

  private:
    std::vector<char> mBytes = std::vector<char>(50 * 16384);
    size_t mAt = 0;
};

// Log frames of frameSize bytes from the first to the last of all blocks, one in ten with
// kWantedCode.
std::string MakeStream(size_t frameSize) {
    constexpr int kWantedEvery = 10;
    std::string stream;
    for (int number = 0; stream.size() < kBlock * kBlocks; ++number) {
        const uint32_t code = number % kWantedEvery == 0 ? kWantedCode : kUnwantedCode;
        std::string frame(frameSize, '\x33');
        frame[0] = static_cast<char>(kCmdLogPacket);
        frame[6] = static_cast<char>(code & 0xFF);
        frame[7] = static_cast<char>(code >> 8);
        frame.back() = static_cast<char>(kHdlcFlag);
        stream += frame;
    }
    stream.resize(kBlock * kBlocks);
    stream.back() = static_cast<char>(kHdlcFlag);
    return stream;
}

// MB/s of work with each block, over and over; the first pass fills caches.
template <typename Work>
double RateOf(std::string& stream, double share, Work work) {
    constexpr double kPasses = 500;
    const auto pass = [&] {
        for (size_t at = 0; at < stream.size(); at += kBlock)
            work(&stream[at], &stream[at] + kBlock);
    };
    pass();
    const double seconds = SecondsOf([&] {
        for (int i = 0; i < kPasses * share; ++i)
            pass();
    });
    return kPasses * share * static_cast<double>(stream.size()) / 1e6 / seconds;
}

// A memchr for every frame and one memcpy of the block.
double Copy(std::string& stream, double share) {
    Copies copies;
    return RateOf(stream, share, [&](const char* begin, const char* end) {
        for (const char* at = begin; at != nullptr;) {
            at = FindFrameEnd(at, end);
            benchmark::DoNotOptimize(at);
            if (at != nullptr) ++at;
        }
        copies.ToFlash(begin, kBlock);
    });
}

// While the tool wants so many codes, of which kWantedCode comes.
double Split(std::string& stream, uint32_t wantedCodes, double share) {
    std::set<uint32_t> codes;
    for (uint32_t i = 0; i < wantedCodes; ++i)
        codes.insert(kWantedCode - i);
    std::string request;
    AppendFrame(request, MakeSetMask(SetMaskRequestsFor(codes).front()));
    ToolLogRequests requests;
    requests.Record(request.data(), static_cast<int>(request.size()));
    const std::atomic<bool> isLogPacketEnable{false};
    Copies copies;
    StreamSplitter<Copies> splitter(requests, isLogPacketEnable, copies);
    return RateOf(stream, share,
                  [&](char* begin, char* end) { splitter.ParseReadData(begin, end); });
}

}  // namespace

void MeasureSplitter(const Extent& extent, Report& report) {
    for (const size_t frameSize : {32, 100}) {
        std::string stream = MakeStream(frameSize);
        const std::string name = fmt::format("splitter, frames of {} bytes", frameSize);
        for (int round = 0; round < extent.rounds; ++round) {
            const double one = Split(stream, 1, extent.share);
            report.Record(name + ", MB/s", "quillod", one);
            report.Record(name + ", MB/s", "memchr, memcpy", Copy(stream, extent.share));
            report.Record(name + ", 4095 codes, MB/s", "quillod",
                          Split(stream, 4095, extent.share));
            report.Record(name + ", 4095 codes, MB/s", "1 code", one);
        }
        report.AddGoal(name + ", 4095 codes, MB/s", "1 code", Report::Sense::kAtLeast, 0.8);
    }
}
