// The tool gets the log packets whose codes it asked for, whole, and no others.
#include "tests/unit/support/directions.h"

namespace {

class LogPacket : public CaptureTest {};

// The code is read from un-escaped bytes, wherever a read cuts the packet.
TEST_F(LogPacket, IsSelectedByItsCode) {
    struct Case {
        const char* name;
        uint32_t code;
        std::string header;
        bool isWanted;
    };
    const std::string plain(5, '\0');
    const std::string escaped = Hex("7E 7D 7E 7D 7E");
    const std::vector<Case> cases = {
        {"plain", 0x117C, plain, true},
        {"behind escapes", 0x117C, escaped, true},
        {"low byte escaped", 0x477D, plain, true},
        {"low byte escaped, behind escapes", 0x477E, escaped, true},
        {"high byte escaped", 0x7D01, plain, true},
        {"both bytes escaped", 0x7D7E, plain, true},
        {"all escaped", 0x7E7D, escaped, true},
        {"beyond 0x7F", 0xD9FF, plain, true},
        {"neighbour of a wanted code", 0x117D, plain, false},
        {"wanted item of another id", 0x217C, plain, false},
        {"escaped neighbour", 0x7D7D, escaped, false},
        {"wanted if escapes were not counted", 0x1170, Hex("7E 7E 00 7C 11"), false},
        {"wanted if read one byte early", 0x1111, Hex("00 00 00 00 7C"), false},
        {"id without table", 0xE17C, plain, false},
        {"last id", 0xFFFF, plain, false},
    };
    Directions directions;
    directions.ToModem(Framed(SetMask(1, MaskOf({0x17C}))));
    Play(directions, {Wants(4, {0x77D, 0x77E}), Wants(7, {0xD01, 0xD7E, 0xE7D}), Wants(13, {0x9FF}),
                      Wants(14, {0x17C}), Wants(15, {0xFFF})});
    std::string flash;
    for (const Case& c : cases) {
        const std::string frame = LogFrame(c.code, c.header);
        for (size_t cut = 1; cut <= frame.size(); ++cut) {
            SCOPED_TRACE(::testing::Message() << c.name << ", cut at " << cut);
            const std::string begin = directions.ToTool(frame.substr(0, cut));
            const std::string tool = begin + directions.ToTool(frame.substr(cut));
            ExpectBytes(c.isWanted ? frame : "", tool, "tool");
            flash += frame;
        }
    }
    ExpectBytes(flash, directions.Close(), "flash");
}

TEST_F(LogPacket, SelectionStaysWithinItsPacket) {
    const std::string wanted = LogFrame(0x4123);
    const std::string withheld = LogFrame(0x4124);
    const std::string head = wanted.substr(0, 5);
    const std::string a = wanted.substr(0, 9);
    const std::string b = wanted.substr(9, 3);
    const std::string c = wanted.substr(12);
    const std::string oneByteShort = Hex("10 00 00 00 00 00 23 7E 10 00 00 00 00 00 24 41 7E");
    const Step wants = Wants(4, {0x123});
    const Step stops = Wants(4, {});
    PlayAll({
        {"one read", {wants, Modem(wanted + withheld + wanted, wanted + wanted)}},
        {"held head leaves once",
         {wants, Keeps(head), Modem(wanted.substr(5, 7), a + b), Passes(c)}},
        {"too short",
         {wants, Wants(7, {0xE23}), Modem(Hex("10 7E") + oneByteShort + wanted, wanted)}},
        {"too short and cut", {wants, Keeps(Hex("10 00")), Keeps(Hex("00 7E")), Passes(wanted)}},
        {"ends within an escape", {wants, Keeps(Hex("10 7D")), Modem("\x7E" + wanted, wanted)}},
        {"more escapes than a head has",
         {wants, Keeps("\x10" + std::string(100, '\x7D')), Keeps(Hex("20 00 00 00 00 23 41 7E")),
          Passes(wanted)}},
        {"nothing wanted", {Keeps(wanted), Keeps(a), Keeps(b + c)}},
        {"wanted from now on, within a packet", {Keeps(a), wants, Modem(b + c + wanted, wanted)}},
        {"wanted from now on, within the head",
         {Keeps(head), wants, Keeps(Hex("00 24 41 00 00 00 23 41 7E")), Passes(wanted)}},
        {"last code off: over three reads",
         {wants, Passes(a), stops, Passes(b), Modem(c + wanted, c), Keeps(wanted)}},
        {"last code off: ends with a read",
         {wants, Passes(a), stops, Passes(b + c), Keeps(wanted)}},
        {"last code off: next packet cut",
         {wants, Passes(a), stops, Modem(b + c + a, b + c), Keeps(b + c)}},
        {"last code off: between packets", {wants, Passes(wanted), stops, Keeps(a), Keeps(b + c)}},
        {"last code off: within the head",
         {wants, Keeps(head), stops, Keeps(wanted.substr(5) + wanted)}},
        {"off and on again", {wants, Passes(a), stops, Passes(b), wants, Passes(c + wanted)}},
        {"off and on, unwanted packet",
         {wants, Keeps(withheld.substr(0, 9)), stops, Keeps(b), wants, Modem(c + wanted, wanted)}},
        {"off and on within the head",
         {wants, Keeps(head), stops, Keeps(wanted.substr(5, 1)), wants,
          Modem(Hex("24 23 41 00 7E") + wanted, wanted)}},
        {"this code off, another stays",
         {wants, Wants(5, {1}), Passes(a), stops, Passes(b), Modem(c + wanted, c)}},
    });
}

// The relay thread takes the tool's requests while the processing thread looks packets up.
TEST_F(LogPacket, RequestsChangeWhilePacketsFlow) {
    const std::string packets = LogFrame(0x4123) + LogFrame(0x5123);
    Directions directions;
    std::string tool;
    for (int i = 0; i < 300; ++i) {
        directions.Queue(packets + Answer(3, 4, "") + Answer(4, 4, "\x01"));
        Play(directions, {i % 2 == 0 ? Wants(4, {0x123}) : Wants(4, {})});
        tool += ReadAvailable(directions.tool.far);
    }
    tool += directions.ToTool(Hex("1D 7E"));
    while (!tool.empty() && !HasFailure()) {
        const std::string frame = tool.substr(0, tool.find('\x7E') + 1);
        if (frame[0] == '\x10') ExpectBytes(LogFrame(0x4123), frame, "packet");
        tool.erase(0, frame.size());
    }
    EXPECT_EQ(300 * packets.size(), directions.Close().size());
}

}  // namespace
