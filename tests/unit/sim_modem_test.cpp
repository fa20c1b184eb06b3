#include "tools/modem/sim_modem.h"

#include <algorithm>
#include <set>

#include "support/frames.h"
#include "tools/common/packet.h"

namespace {

constexpr char kSetId1[] = "73000000 03000000 01000000 0C000000 0508";   // items 0, 2, 11
constexpr char kSetId11[] = "73000000 03000000 0B000000 09000000 0001";  // item 8
constexpr char kDisable[] = "73000000 00000000";

constexpr uint64_t kBulkBytes = 2500000;
constexpr char kSource[] = "FA 53 A025260000000000";  // so many bytes
constexpr char kSink[] = "FA 52 A025260000000000";

std::string Pattern(uint64_t count) {
    std::string bytes;
    while (bytes.size() < count)
        bytes.append(BulkPatternAt(bytes.size(), count - bytes.size()));
    return bytes;
}

void Send(SimModem& modem, std::string_view wire, size_t piece = SIZE_MAX) {
    for (; !wire.empty(); wire.remove_prefix(std::min(piece, wire.size())))
        modem.Receive(wire.data(), std::min(piece, wire.size()));
}

std::string Drain(SimModem& modem, size_t piece = SIZE_MAX) {
    std::string all;
    while (!modem.Output().empty()) {
        const std::string taken(modem.Output().substr(0, piece));
        modem.Consume(taken.size());
        all += taken;
    }
    return all;
}

TEST(SimModem, AnswersOneRequestAfterTheOther) {
    const std::string zeros(640, '0');  // the mask of id 11, 0x0A00 items
    const struct {
        std::string request, answer;  // "13": that, and the request
    } cases[] = {
        {"73000000 01000000",
         "73000000 01000000 00000000 00000000 FF0F0000 00000000 00000000 10090000 60080000 00000000"
         "700A0000 00000000 00000000 00000000 000A0000 00000000 00000000 00000000 00000000"},
        {kSetId1, "73000000 03000000 00000000 01000000 0C000000 0508"},
        {kSetId11, "73000000 03000000 00000000 0B000000 09000000 0001"},
        {"73000000 03000000 01000000 08000000 80",  // replaces, does not merge
         "73000000 03000000 00000000 01000000 08000000 80"},
        {"73000000 03000000 04000000 09000000 FFFFFF",  // a byte beyond the bit count
         "73000000 03000000 00000000 04000000 09000000 FFFF"},
        {"73000000 03000000 01000000 FFFFFFFF FF", "73000000 03000000 01000000 01000000 00000000"},
        {"73000000 03000000 10000000 08000000 FF", "73000000 03000000 01000000 10000000 00000000"},
        {"73000000 04000000 10000000", "73000000 04000000 01000000 10000000 00000000"},
        {"73000000 04000000 01000000", "73000000 04000000 00000000 01000000 08000000 80"},
        {kDisable, "73000000 00000000 00000000"},
        {"73000000 04000000 0B000000", "73000000 04000000 00000000 0B000000 000A0000" + zeros},
        {"73000000 09000000", "73000000 09000000 01000000"},
        {"60 01", "60 0000"},
        {"7D 05 0000 FFFFFFFF", "7D 05 0100 FFFFFFFF"},
        {"7D 01", "7D 01 0100"},
        {"73000000 030000", "13"},
        {"73000000 03000000 01000000", "13"},
        {"73000000 03000000 01000000 11000000 FFFF", "13"},
        {"73000000 04000000 0100", "13"},
        {"60", "13"},
        {"7D 05 0000 FFFFFF", "13"},
        {"FA 53 00000000", "13"},
        {"FA 54 0000000000000000", "13"},
    };
    SimModem modem({});
    for (const auto& c : cases) {
        SCOPED_TRACE(c.request);
        Send(modem, Framed(c.request));
        const std::string answer = c.answer == "13" ? c.answer + c.request : c.answer;
        EXPECT_EQ(Packets(Drain(modem)), Packets(Framed(answer)));
    }
}

TEST(SimModem, FindsFramesHoweverTheLineCutsThem) {
    const std::string good = Framed("4B 7D 7E");
    const std::string longest = Framed("60" + std::string(32760, '1'));  // 16384 bytes
    // Wrong check sequence; right if its end were escaped; no packet; one byte.
    const std::string bad = Bytes("4B 00 00 7E 4B 12 01 B4 7D 7E 00 00 7E 4B 7E");
    const std::string wire = good + "~~" + good + bad + good + longest + "1" + longest + good +
                             std::string(100000, 'x') + "~" + good;
    const std::string answer = "13 4B 7D 7E";
    for (const size_t piece : {wire.size(), size_t{1}, size_t{7}}) {
        SimModem modem({});
        Send(modem, wire + good.substr(0, good.size() - 1), piece);
        EXPECT_EQ(Packets(Drain(modem, piece)),
                  (Lines{answer, answer, answer, "60 00 00", answer, answer}));
        EXPECT_EQ(modem.badFrames(), 4U);
        EXPECT_EQ(modem.overlongFrames(), 2U);
    }
}

TEST(SimModem, ReportsOnlyWhatIsEnabled) {
    // Requests; log codes, and command codes of other reports.
    const std::pair<Lines, std::set<unsigned int>> cases[] = {
        {{}, {}},
        {{kSetId11, kSetId1}, {0x1000, 0x1002, 0x100B, 0xB008}},
        {{"73000000 03000000 04000000 01000000 FF"}, {0x4000}},  // bits beyond the count
        {{kSetId1, kDisable}, {}},
        {{kSetId11, "60 01", "7D 05 0000 01000000"}, {0xB008, 0x60, 0x79}},
        {{kSetId11, "60 01", "7D 05 0000 01000000", "60 00", "7D 05 0000 00000000"}, {0xB008}},
    };
    for (const auto& [requests, expected] : cases) {
        SimModem modem({/*mute=*/true, {}});
        for (const std::string& request : requests)
            Send(modem, Framed(request));
        for (int i = 0; i < 100; ++i)
            EXPECT_EQ(modem.SendNextReport(), !expected.empty());
        std::set<unsigned int> reported;
        uint32_t number = 0;
        for (const std::string& hex : Packets(Drain(modem))) {
            const std::string packet = Bytes(hex);
            const unsigned int command = static_cast<unsigned char>(packet[0]);
            const size_t numberAt = command == kCmdLogPacket ? 16 : command == kCmdEvent ? 14 : 20;
            EXPECT_EQ(ReadLe32(&packet[numberAt]), number++);
            const bool isLog = ReadLe32(&packet[2]) == (packet.size() - 4) * 0x10001;  // lengths
            reported.insert(isLog ? ReadLe16(&packet[6]) : command);
        }
        EXPECT_EQ(number, expected.empty() ? 0U : 100U);
        EXPECT_EQ(reported, expected);
    }
}

TEST(SimModem, SourceSendsThePatternBetweenAnswers) {
    SimModem modem({});
    Send(modem, Framed("4B") + Framed(kSource) + Framed("4C") + Framed(kSource) +
                    Framed("FA 52 6300000000000000") + Pattern(99));
    const std::string after = Framed("13 4C") + Framed("13" + std::string(kSource)) +
                              Framed("FA 52 6300000000000000 FFFFFFFFFFFFFFFF");
    EXPECT_TRUE(Drain(modem, 4095) == Framed("13 4B") + Pattern(kBulkBytes) + after);
    EXPECT_EQ(Pattern(kBulkBytes).find('\x4B'), std::string::npos);  // the daemon may alter it
}

TEST(SimModem, SinkFindsTheFirstWrongByte) {
    const std::pair<std::vector<size_t>, const char*> cases[] = {
        {{0}, "0000000000000000"},
        {{1048582}, "0600100000000000"},  // the last byte of the pattern's period
        {{4095, 4096, kBulkBytes - 1}, "FF0F000000000000"},
        {{kBulkBytes - 1}, "9F25260000000000"},
        {{}, "FFFFFFFFFFFFFFFF"},
    };
    SimModem modem({});
    for (const auto& [wrong, mismatch] : cases) {
        std::string data = Pattern(kBulkBytes);
        for (const size_t offset : wrong)
            data[offset] ^= 0x01;
        Send(modem, Framed(kSink) + data + Framed("4B"), 4095);
        const std::string answers = Framed(std::string(kSink) + mismatch) + Framed("13 4B");
        EXPECT_EQ(Packets(Drain(modem)), Packets(answers));
    }
}

TEST(SimModem, ForgetsWhatTheSideBeforeLeftUnfinished) {
    for (const std::string& left :
         {Framed(kSource) + Framed(kSink) + "x", std::string(20000, 'x')}) {
        SimModem modem({});
        Send(modem, Framed("4B") + left);
        modem.PortOpened();
        Send(modem, Framed("4C"));
        EXPECT_EQ(Packets(Drain(modem)), (Lines{"13 4B", "13 4C"}));
    }
}

}  // namespace
