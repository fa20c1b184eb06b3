// The framing beside a copy of the same bytes.
#include <benchmark/benchmark.h>

#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "bench/bench_support.h"
#include "bench/runs.h"
#include "diag/hdlc.h"

namespace {

constexpr int kPackets = 1024;
constexpr size_t kPacketSize = 1500;
constexpr size_t kSpace = 2 * kPacketSize + 8;  // a frame's, when each of its bytes is escaped

using Areas = std::vector<char>;  // kPackets times kSpace

// Seconds of work(index, from, to) with all areas of from and to.
template <typename Work>
double TimeAll(Areas& from, Areas& to, Work work) {
    return SecondsOf([&] {
        for (size_t i = 0; i < kPackets; ++i) {
            work(i, &from[i * kSpace], &to[i * kSpace]);
            benchmark::ClobberMemory();
        }
    });
}

Areas RandomPackets() {
    std::minstd_rand random(7);
    Areas packets(kPackets * kSpace);
    for (char& byte : packets)
        byte = static_cast<char>(random() >> 8 & 0xFF);
    return packets;
}

unsigned char* Unsigned(char* bytes) {
    return reinterpret_cast<unsigned char*>(bytes);
}

}  // namespace

void MeasureFraming(const Extent& extent, Report& report) {
    constexpr int kPassesARound = 20;
    constexpr double kRate = kPackets * kPacketSize / kMega;
    Areas packets = RandomPackets();
    Areas frames(packets.size());
    std::vector<unsigned int> sizes(kPackets);
    Row encoder{"encoder", "MB/s"};
    Row unescaper{"un-escaper", "MB/s"};
    for (int i = 0; i < extent.rounds * kPassesARound; ++i) {
        const double copy = TimeAll(
            packets, frames, [](size_t, char* from, char* to) { memcpy(to, from, kPacketSize); });
        const double encode = TimeAll(packets, frames, [&](size_t at, char* from, char* to) {
            sizes[at] = kSpace;
            tc_cmn_drv_route_ftm_hdlc_encode(Unsigned(from), Unsigned(to), kPacketSize, &sizes[at]);
        });
        const double unescape = TimeAll(packets, frames, [&](size_t at, char*, char* frame) {
            benchmark::DoNotOptimize(HdlcUnescape(frame, static_cast<int>(sizes[at])));
        });
        encoder.Record("quillod", kRate / encode);
        encoder.Record("memcpy", kRate / copy);
        unescaper.Record("quillod", kRate / unescape);
        unescaper.Record("memcpy", kRate / copy);
    }
    report.Add(encoder);
    report.Add(unescaper);
}
