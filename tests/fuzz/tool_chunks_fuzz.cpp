// The tool's chunks on their way to the modem, without capture masks: nothing but the HDLC-disable
// request changes. Input, repeated: flags, length, chunk. Flags: 1 capture is on, 2 the modem takes
// nothing meanwhile, 2 and 4 it takes half.
#include "tests/fuzz/fuzz_directions.h"

namespace {

constexpr char kDisable[] = "\x4B\x12\x18\x02";

bool IsDisableAt(const std::string& bytes, size_t at) {
    return bytes.compare(at, 4, kDisable) == 0 && bytes.size() >= at + 5;
}

// The request's fifth byte may be cleared anywhere, since reads end where the ring does.
void CheckSame(const std::string& sent, const std::string& got) {
    Check(got.size() == sent.size(), "as many bytes come out");
    for (size_t i = 0; i < sent.size(); ++i) {
        if (sent[i] == got[i]) continue;
        Check(got[i] == 0 && i >= 4 && IsDisableAt(sent, i - 4), "no byte is changed");
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static FuzzDirections& directions = *new FuzzDirections;
    directions.Reset();
    FuzzInput input(data, size);
    std::string sent;
    std::string got;
    while (!input.IsOver() && sent.size() < 65536) {
        const uint8_t flags = input.Byte();
        const std::string chunk = input.Runs(input.Byte());
        gLogEnable = flags & 1;
        const bool isFirst = sent.size() == got.size();
        const ssize_t taken = write(directions.tool, chunk.data(), chunk.size());
        sent.append(chunk, 0, static_cast<size_t>(std::max<ssize_t>(taken, 0)));
        if ((flags & 2) == 0) {
            got += directions.RelayTool();
            const bool isAlone = isFirst && IsDisableAt(chunk, 0);
            if (isAlone) Check(got[sent.size() - chunk.size() + 4] == 0, "it is disarmed");
            continue;
        }
        CircularBufferExt& toModem = directions.toModem;
        if (!toModem.IsFull()) directions.ReadTool();
        if ((flags & 4) != 0) got += CircularBufferExtPeer::Drain(toModem, toModem.NumBytes() / 2);
    }
    got += directions.RelayTool();
    CheckSame(sent, got);
    return 0;
}
