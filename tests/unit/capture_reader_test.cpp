// Captured bytes back to frames.
#include "tests/support/bytes.h"
#include "tools/capture/capture_text.h"
#include "tools/common/mask_requests.h"
#include "tools/modem/sim_modem.h"

namespace {

std::string Log(uint16_t code, const std::string& payload) {
    return Framed(SimModem::MakeLogPacket(code, payload, 0));
}

const std::string kTime = HexFrame("1D 7D 7E 00");
const std::string kLog = Log(0x7E7D, "\x7E\x7D");
const std::string kEvent = HexFrame("60 01 00");

// "FILE@OFFSET KIND CODE LENGTH CHECK" of the wanted frames, nothing for a good check; the files
// come in reads of that many bytes.
std::string Read(const std::vector<std::string>& files, size_t readSize,
                 const CaptureFilter& filter) {
    std::string text;
    CaptureReader reader([&](const CaptureFrame& frame) {
        if (!filter.Wants(frame)) return true;
        const char* const checks[] = {"", " bad", " cut start", " cut end"};
        const auto code = LogCodeOf(frame.packet);
        text += (text.empty() ? "" : ", ") + std::string(frame.file) + "@" +
                std::to_string(frame.offset) + " " + CaptureKindWord(KindOf(frame.packet)) + " " +
                (code.has_value() ? LogCodeText(*code) + " " : "") +
                std::to_string(frame.packet.size()) + checks[static_cast<int>(frame.check)];
        return true;
    });
    for (size_t i = 0; i < files.size(); ++i) {
        reader.BeginFile(std::string(1, static_cast<char>('a' + i)));
        for (size_t at = 0; at < files[i].size(); at += readSize)
            EXPECT_TRUE(reader.Take(std::string_view(files[i]).substr(at, readSize)));
    }
    reader.Finish();
    return text;
}

TEST(CaptureReader, TellsFramesHoweverTheBytesAreCut) {
    const std::string half = kLog.substr(0, 20);
    const std::string three = kLog + kEvent + Log(0xB0C0, "") + HexFrame("10 00");
    const struct {
        const char* name;
        std::vector<std::string> files;
        std::string frames;
        CaptureFilter filter = {};
    } kRows[] = {
        {"modem's own", {kTime + kLog + kEvent}, "a@0 answer 4, a@9 log 0x7E7D 18, a@34 event 3"},
        {"messages",
         {HexFrame("79") + HexFrame("92") + HexFrame("98") + HexFrame("99") + HexFrame("9A")},
         "a@0 message 1, a@4 message 1, a@8 message 1, a@12 message 1, a@16 answer 1"},
        {"escape takes the flag", {"\x79\x01\x7D\x7E" + kEvent}, "a@0 message 1 bad, a@4 event 3"},
        {"ends",
         {kEvent.substr(2) + kTime + half},
         "a@0 answer 1 cut start, a@4 answer 4, a@13 log 0x7E7D 17 cut end"},
        {"goes on behind", {half, kLog.substr(20) + kEvent}, "a@0 log 0x7E7D 18, b@5 event 3"},
        {"other connection", {half, kTime}, "a@0 log 0x7E7D 17 cut end, b@0 answer 4"},
        {"gap", {half, "", kEvent.substr(2)}, "a@0 log 0x7E7D 17 cut end, c@0 answer 1 cut start"},
        {"long frame", {Log(0x1000, std::string(40000, '}'))}, "a@0 log 0x1000 40016"},
        {"only two codes", {three}, "a@31 log 0xB0C0 16", {{0xB0C0, 0x7E7C}, {}}},
    };
    for (const auto& row : kRows)
        for (const size_t readSize : {1, 2, 7, 1 << 20})
            EXPECT_EQ(Read(row.files, readSize, row.filter), row.frames) << row.name << readSize;
}

}  // namespace
