#include "tools/sim_modem.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <vector>

#include "tools/diag_time.h"
#include "tools/frame_text.h"
#include "tools/packet.h"

namespace {

constexpr char kSetId1[] = "73000000 03000000 01000000 0C000000 0508";   // items 0, 2, 11
constexpr char kSetId11[] = "73000000 03000000 0B000000 09000000 0001";  // item 8
constexpr char kDisable[] = "73000000 00000000";

std::string Bytes(std::string_view hex) {
    std::string bytes;
    EXPECT_EQ(ParseHex(hex, &bytes), "") << hex;
    return bytes;
}

std::string Hex(std::string_view bytes) {
    return FormatHex(bytes, bytes.size());
}

std::string Framed(std::string_view hex) {
    std::string frame;
    AppendFrame(frame, Bytes(hex));
    return frame;
}

std::string BulkRequest(char operation, uint64_t count) {
    std::string packet = {static_cast<char>(kCmdBulk), operation};
    AppendLe64(packet, count);
    std::string frame;
    AppendFrame(frame, packet);
    return frame;
}

std::string Pattern(uint64_t count) {
    std::string bytes;
    while (bytes.size() < count) {
        bytes.append(BulkPatternAt(bytes.size(), count - bytes.size()));
    }
    return bytes;
}

void Send(SimModem& modem, std::string_view wire) {
    modem.Receive(wire.data(), wire.size());
}

// All output, taken in pieces of at most the given length.
std::string Drain(SimModem& modem, size_t piece = SIZE_MAX) {
    std::string all;
    for (auto output = modem.Output(); !output.empty(); output = modem.Output()) {
        const std::string taken(output.substr(0, piece));
        modem.Consume(taken.size());
        all += taken;
    }
    return all;
}

// The packets of framed bytes, in hexadecimal; "?" for a frame that is not good.
std::vector<std::string> Packets(std::string_view wire) {
    std::vector<std::string> packets;
    FrameReader reader;
    while (!wire.empty()) {
        FrameState state;
        wire.remove_prefix(reader.Take(wire.data(), wire.size(), &state));
        if (state == FrameState::kIncomplete) continue;
        packets.push_back(state == FrameState::kGood ? Hex(reader.packet()) : "?");
    }
    return packets;
}

TEST(SimModem, AnswersRequests) {
    const std::string zeros(640, '0');  // the mask of id 11, 0x0A00 items
    const struct {
        const char* name;
        std::vector<std::string> requests;
        std::string lastAnswer;
    } cases[] = {
        {"disable logging", {kDisable}, "73000000 00000000 00000000"},
        {"ranges",
         {"73000000 01000000"},
         "73000000 01000000 00000000 00000000 FF0F0000 00000000 00000000 10090000 60080000"
         "00000000 700A0000 00000000 00000000 00000000 000A0000 00000000 00000000 00000000 "
         "00000000"},
        {"set mask", {kSetId1}, "73000000 03000000 00000000 01000000 0C000000 0508"},
        {"mask replaced, not merged",
         {kSetId1, "73000000 03000000 01000000 08000000 80", "73000000 04000000 01000000"},
         "73000000 04000000 00000000 01000000 08000000 80"},
        {"masks kept apart by id",
         {kSetId1, kSetId11, "73000000 04000000 01000000"},
         "73000000 04000000 00000000 01000000 0C000000 0508"},
        {"bytes beyond the bit count left out",
         {"73000000 03000000 04000000 09000000 FFFFFF"},
         "73000000 03000000 00000000 04000000 09000000 FFFF"},
        {"mask of a 4096-item id complete",
         {"73000000 03000000 0F000000 00100000" + std::string(1024, 'F')},
         "73000000 03000000 00000000 0F000000 00100000" + std::string(1024, 'F')},
        {"get mask after disable: own width, nothing set",
         {kSetId11, kDisable, "73000000 04000000 0B000000"},
         "73000000 04000000 00000000 0B000000 000A0000" + zeros},
        {"mask shorter than its bit count",
         {"73000000 03000000 01000000 11000000 FFFF"},
         "13 73000000 03000000 01000000 11000000 FFFF"},
        {"more items than an id can have",
         {"73000000 03000000 01000000 01100000 FF"},
         "73000000 03000000 01000000 01000000 00000000"},
        {"bit count that overflows",
         {"73000000 03000000 01000000 FFFFFFFF FF"},
         "73000000 03000000 01000000 01000000 00000000"},
        {"set mask of id 16",
         {"73000000 03000000 10000000 08000000 FF"},
         "73000000 03000000 01000000 10000000 00000000"},
        {"get mask of id 16",
         {"73000000 04000000 10000000"},
         "73000000 04000000 01000000 10000000 00000000"},
        {"unknown operation", {"73000000 09000000"}, "73000000 09000000 01000000"},
        {"log configuration cut", {"73000000 030000"}, "13 73000000 030000"},
        {"set mask without bit count",
         {"73000000 03000000 01000000"},
         "13 73000000 03000000 01000000"},
        {"get mask without id", {"73000000 04000000 0100"}, "13 73000000 04000000 0100"},
        {"events", {"60 01"}, "60 0000"},
        {"events cut", {"60"}, "13 60"},
        {"messages", {"7D 05 0000 FFFFFFFF"}, "7D 05 0100 FFFFFFFF"},
        {"messages cut", {"7D 05 0000 FFFFFF"}, "13 7D 05 0000 FFFFFF"},
        {"other message request, short", {"7D 01"}, "7D 01 0100"},
        {"unknown command with escapes", {"4B 12 7E 7D"}, "13 4B 12 7E 7D"},
        {"unknown command above 0x7F", {"FF 92"}, "13 FF 92"},
        {"bulk request cut", {"FA 53 00000000"}, "13 FA 53 00000000"},
        {"unknown bulk operation", {"FA 54 0000000000000000"}, "13 FA 54 0000000000000000"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        SimModem modem({});
        for (const std::string& request : c.requests)
            Send(modem, Framed(request));
        const std::vector<std::string> answers = Packets(Drain(modem));
        ASSERT_EQ(answers.size(), c.requests.size());
        EXPECT_EQ(answers.back(), Hex(Bytes(c.lastAnswer)));
    }
}

TEST(SimModem, FramesItsAnswersWithEscapes) {
    SimModem modem({});
    Send(modem, Bytes("7E 7D 5D 05 00 00 00 00 00 00 74 41 7E"));
    const std::string answer = Drain(modem);
    EXPECT_EQ(Hex(answer.substr(0, 9)), "7D 5D 05 01 00 00 00 00 00");
    EXPECT_EQ(Packets(answer), std::vector<std::string>{"7D 05 01 00 00 00 00 00"});
}

// A frame whose check sequence is right once its last byte is read as escaped by the 0x7D before:
// that byte is the 0x7E, so the frame was broken off.
std::string BrokenOffFrame() {
    for (int i = 0; i < 0x10000; ++i) {
        const std::string packet = {'\x4B', static_cast<char>(i & 0xFF), static_cast<char>(i >> 8)};
        std::string frame;
        AppendFrame(frame, packet);
        if (frame.size() != 6 || frame[4] != (kHdlcFlag ^ kHdlcEscapeXor)) continue;
        frame[4] = kHdlcEscape;
        return frame;
    }
    ADD_FAILURE();
    return "";
}

TEST(SimModem, FindsFramesHoweverTheLineCutsThem) {
    const std::string good = Framed("4B 7D 7E");
    const std::string answer = "13 4B 7D 7E";
    const std::string longest = Framed("60" + std::string(32760, '1'));
    ASSERT_EQ(longest.size(), 16384U);
    const struct {
        const char* name;
        std::string wire;
        std::vector<std::string> answers;
        uint64_t bad, overlong;
    } cases[] = {
        {"two in a row", good + good, {answer, answer}, 0, 0},
        {"empty frames between", "~~" + good + "~" + good, {answer, answer}, 0, 0},
        {"wrong check sequence, then good", Bytes("4B 00 00 7E") + good, {answer}, 1, 0},
        {"escape right before the end", BrokenOffFrame() + good, {answer}, 1, 0},
        {"check sequence without packet", Bytes("00 00 7E") + good, {answer}, 1, 0},
        {"one byte", Bytes("4B 7E") + good, {answer}, 1, 0},
        {"no end", good.substr(0, good.size() - 1), {}, 0, 0},
        {"longest", longest + good, {"60 00 00", answer}, 0, 0},
        {"one byte too long", "1" + longest + good, {answer}, 0, 1},
        {"far too long", std::string(100000, 'x') + "~" + good, {answer}, 0, 1},
    };
    for (const auto& c : cases) {
        for (const size_t piece : {c.wire.size(), size_t{1}}) {
            SCOPED_TRACE(std::string(c.name) + ", in pieces of " + std::to_string(piece));
            SimModem modem({});
            for (size_t i = 0; i < c.wire.size(); i += piece)
                modem.Receive(&c.wire[i], piece);
            EXPECT_EQ(Packets(Drain(modem, piece)), c.answers);
            EXPECT_EQ(modem.badFrames(), c.bad);
            EXPECT_EQ(modem.overlongFrames(), c.overlong);
        }
    }
}

TEST(SimModem, StampsItsTime) {
    using namespace std::chrono;
    const system_clock::time_point epoch{seconds(315964800)};  // 1980-01-06
    EXPECT_EQ(DiagTimeStamp(epoch), 0U);
    EXPECT_EQ(DiagTimeStamp(epoch + microseconds(1250)), 0x10000U);
    EXPECT_EQ(DiagTimeStamp(epoch + hours(24) + microseconds(625)),
              (uint64_t{24} * 3600 * 800) << 16 | 25600);

    SimModem modem({});
    const uint64_t before = DiagTimeStamp(system_clock::now());
    Send(modem, Framed("1D"));
    const uint64_t after = DiagTimeStamp(system_clock::now());
    const std::string packet = Bytes(Packets(Drain(modem)).at(0));
    ASSERT_EQ(packet.size(), 9U);
    EXPECT_GE(ReadLe64(&packet[1]), before);
    EXPECT_LE(ReadLe64(&packet[1]), after);
}

TEST(SimModem, MuteModemActsButDoesNotAnswer) {
    SimModem::Options options;
    options.mute = true;
    SimModem modem(options);
    for (const char* request : {kSetId1, kSetId11, "60 01", "4B"})
        Send(modem, Framed(request));
    EXPECT_EQ(modem.Output(), "");
    EXPECT_EQ(modem.LoggingSummary(),
              "logging: id 1: 3 codes, id 11: 1 code; events on; messages off");
    EXPECT_TRUE(modem.SendNextReport());
    EXPECT_NE(modem.Output(), "");
}

TEST(SimModem, StopsReadingUntilItsAnswersAreTaken) {
    SimModem modem({});
    const std::string request = Framed("4B" + std::string(20000, '0'));
    int sent = 0;
    for (; modem.WantsInput() && sent < 1000; ++sent)
        Send(modem, request);
    EXPECT_LT(sent, 1000);
    // Part of it taken again and again: nothing is lost where the queue is moved up.
    EXPECT_EQ(Packets(Drain(modem, 5000)).size(), static_cast<size_t>(sent));
    EXPECT_TRUE(modem.WantsInput());
}

// Log code, or command code of another report, of a packet in hexadecimal, and its running number.
struct Report {
    unsigned int what;
    uint32_t number;
};

Report ParseReport(const std::string& hex) {
    const std::string packet = Bytes(hex);
    const auto command = static_cast<unsigned char>(packet.at(0));
    switch (command) {
        case kCmdLogPacket:
            EXPECT_EQ(ReadLe16(&packet[2]), packet.size() - 4);
            EXPECT_EQ(ReadLe16(&packet[4]), packet.size() - 4);
            return {ReadLe16(&packet[6]), ReadLe32(&packet[16])};
        case kCmdEvent:
            EXPECT_EQ(ReadLe16(&packet[1]), packet.size() - 3);
            return {command, ReadLe32(&packet[14])};
        default:
            return {command, ReadLe32(&packet[20])};
    }
}

TEST(SimModem, ReportsOnlyWhatIsEnabled) {
    const struct {
        const char* name;
        std::vector<const char*> requests;
        std::set<unsigned int> reported;
    } cases[] = {
        {"nothing enabled", {}, {}},
        {"three codes of one id", {kSetId1}, {0x1000, 0x1002, 0x100B}},
        {"two ids", {kSetId11, kSetId1}, {0x1000, 0x1002, 0x100B, 0xB008}},
        {"bits beyond the count", {"73000000 03000000 04000000 01000000 FF"}, {0x4000}},
        {"disabled again", {kSetId1, kDisable}, {}},
        {"replaced", {kSetId1, "73000000 03000000 01000000 08000000 80"}, {0x1007}},
        {"events only", {"60 01"}, {0x60}},
        {"messages only", {"7D 05 0000 01000000"}, {0x79}},
        {"codes, events and messages",
         {kSetId11, "60 01", "7D 05 0000 01000000"},
         {0xB008, 0x60, 0x79}},
        {"codes left when the rest is off",
         {kSetId11, "60 01", "7D 05 0000 01000000", "60 00", "7D 05 0000 00000000"},
         {0xB008}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        SimModem modem({});
        for (const char* request : c.requests)
            Send(modem, Framed(request));
        Drain(modem);
        for (int i = 0; i < 100; ++i)
            EXPECT_EQ(modem.SendNextReport(), !c.reported.empty());

        const std::vector<std::string> packets = Packets(Drain(modem));
        EXPECT_EQ(packets.size(), c.reported.empty() ? 0U : 100U);
        std::set<unsigned int> reported;
        for (size_t i = 0; i < packets.size(); ++i) {
            const Report report = ParseReport(packets[i]);
            reported.insert(report.what);
            EXPECT_EQ(report.number, i);
        }
        EXPECT_EQ(reported, c.reported);
    }
}

TEST(SimModem, ReportPayloadsNeedEscapes) {
    SimModem modem({});
    Send(modem, Framed(kSetId1));
    Drain(modem);
    modem.SendNextReport();
    const std::string wire = Drain(modem);
    EXPECT_NE(wire.find("\x7D\x5D\x7D\x5E"), std::string::npos);
}

TEST(BulkPattern, NeverHoldsTheByteThatTheDaemonLooksFor) {
    const std::string block = Pattern(3 << 20);
    EXPECT_EQ(block.find('\x4B'), std::string::npos);
    // Shifted by common buffer sizes it must differ, or lost bytes would not show.
    for (const size_t shift : {1, 4095, 4096, 16384, 65536, 1 << 20})
        EXPECT_NE(block.compare(shift, 1000, block, 0, 1000), 0) << shift;
}

TEST(SimModem, SourceSendsThePatternBetweenAnswers) {
    constexpr uint64_t kCount = 2500000;
    SimModem modem({});
    Send(modem, Framed("4B") + BulkRequest(kBulkSource, kCount) + Framed("4C") +
                    BulkRequest(kBulkSource, 1) + Framed("4D"));
    std::string before;
    std::string after;
    AppendFrame(before, Bytes("13 4B"));
    AppendFrame(after, Bytes("13 4C"));
    AppendFrame(after, Bytes("13 FA 53 0100000000000000"));  // one at a time
    AppendFrame(after, Bytes("13 4D"));
    EXPECT_TRUE(Drain(modem, 4095) == before + Pattern(kCount) + after);
    EXPECT_FALSE(modem.InBulk());
}

TEST(SimModem, SinkFindsWrongBytes) {
    constexpr uint64_t kCount = 2500000;
    constexpr uint64_t kBlock = 1048583;
    const struct {
        const char* name;
        std::vector<size_t> wrong;
        uint64_t mismatch;
    } cases[] = {
        {"all right", {}, kNoMismatch},
        {"first byte", {0}, 0},
        {"last byte", {kCount - 1}, kCount - 1},
        {"last of the pattern's block", {kBlock - 1}, kBlock - 1},
        {"first of the next", {kBlock}, kBlock},
        {"first of several", {4095, 4096, kCount - 1}, 4095},
        {"all right after a wrong one", {}, kNoMismatch},
    };
    SimModem modem({});
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        std::string data = Pattern(kCount);
        for (const size_t offset : c.wrong)
            data[offset] ^= 0x01;
        std::string expected = {static_cast<char>(kCmdBulk), kBulkSink};
        AppendLe64(expected, kCount);
        AppendLe64(expected, c.mismatch);

        const std::string wire = BulkRequest(kBulkSink, kCount) + data + Framed("4B");
        for (size_t i = 0; i < wire.size(); i += 4095)
            modem.Receive(&wire[i], std::min<size_t>(4095, wire.size() - i));
        EXPECT_EQ(Packets(Drain(modem)), (std::vector<std::string>{Hex(expected), "13 4B"}));
    }
}

TEST(SimModem, MovesBulkBothWaysAtOnce) {
    constexpr uint64_t kCount = 100000;
    SimModem modem({});
    Send(modem, BulkRequest(kBulkSource, kCount) + BulkRequest(kBulkSink, kCount));
    const std::string up = Pattern(kCount);
    std::string down;
    for (size_t i = 0; i < kCount; i += 1000) {
        modem.Receive(&up[i], 1000);
        const std::string output(modem.Output().substr(0, 900));
        modem.Consume(output.size());
        down += output;
    }
    down += Drain(modem);
    EXPECT_TRUE(down.substr(0, kCount) == up);
    EXPECT_EQ(Packets(down.substr(kCount)),
              std::vector<std::string>{"FA 52 A0 86 01 00 00 00 00 00 FF FF FF FF FF FF FF FF"});
}

TEST(SimModem, ForgetsWhatTheSideBeforeLeftUnfinished) {
    const struct {
        const char* name;
        std::string left;
    } cases[] = {
        {"source", BulkRequest(kBulkSource, 1000)},
        {"sink", BulkRequest(kBulkSink, 1000) + Pattern(10)},
        {"both", BulkRequest(kBulkSource, 1000) + BulkRequest(kBulkSink, 1000) + Pattern(10)},
        {"half a request", "\x4D\x01"},
        {"half a request too long", std::string(20000, 'x')},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        SimModem modem({});
        Send(modem, Framed("4B") + c.left);
        modem.PortOpened();
        Send(modem, Framed("4C"));
        EXPECT_EQ(Packets(Drain(modem)), (std::vector<std::string>{"13 4B", "13 4C"}));
    }
}

}  // namespace
