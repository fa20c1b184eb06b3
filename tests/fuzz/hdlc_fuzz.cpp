// Framing and un-escaping. Input: room for the frame, in two bytes; the bytes to un-escape and to
// frame.
#include "diag/hdlc.h"

#include <cstring>
#include <vector>

#include "tests/fuzz/fuzz_input.h"

namespace {

using Bytes = std::vector<unsigned char>;

Bytes Encoded(Bytes packet, unsigned int room) {
    Bytes frame(room);  // of this size, so that a byte too many is seen
    packet.reserve(1);
    frame.reserve(1);
    tc_cmn_drv_route_ftm_hdlc_encode(packet.data(), frame.data(),
                                     static_cast<unsigned int>(packet.size()), &room);
    Check(room <= frame.size(), "the frame stays within its room");
    frame.resize(room);
    return frame;
}

Bytes Unescaped(Bytes bytes) {
    const size_t len = bytes.size();
    bytes.push_back(0xAA);
    const int count = HdlcUnescape(reinterpret_cast<char*>(bytes.data()), static_cast<int>(len));
    Check(count >= 0 && static_cast<size_t>(count) <= len, "un-escaping adds nothing");
    const auto rest = bytes.begin() + count;
    Check(std::all_of(rest, bytes.end(), [](int byte) { return byte == 0; }), "the rest is clear");
    return {bytes.begin(), rest};
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzInput input(data, size);
    const unsigned int room = input.Byte() + 256U * (input.Byte() % 64);
    const std::string runs = input.Runs(SIZE_MAX);
    const Bytes packet(runs.begin(), runs.begin() + static_cast<long>(std::min<size_t>(
                                                        runs.size(), kDiagAreaSize)));
    if (!packet.empty()) Unescaped(packet);

    const Bytes frame = Encoded(packet, static_cast<unsigned int>(2 * packet.size() + 5));
    Check(std::find(frame.begin(), frame.end(), kHdlcFlag) == frame.end() - 1, "one flag, last");
    if (frame.size() <= kDiagAreaSize) {
        Bytes back = Unescaped(frame);
        Check(back.size() == packet.size() + 3, "as long as it was");
        const auto fcs = HdlcFcs(packet.data(), static_cast<int>(packet.size()));
        Check(back[packet.size()] == (fcs & 0xFF) && back[packet.size() + 1] == fcs >> 8, "FCS");
        back.resize(packet.size());
        Check(back == packet, "the packet comes back");
    }
    const Bytes cut = Encoded(packet, room);
    Check(std::equal(cut.begin(), cut.end(), frame.begin()), "a cut frame begins alike");
    Check(cut.size() == frame.size() || cut.size() + 2 > room, "it is cut for room only");
    Check(cut.empty() || cut.back() != kHdlcEscape, "no escape is cut");
    return 0;
}
