// Which log packets the tool gets, by the pieces in which they arrive.
#include "diag/log_packet_filter.h"

#include "tests/support/bytes.h"

namespace {

class LogPacketFilterTest : public testing::Test {
  protected:
    void Want(uint32_t id, const std::vector<uint32_t>& items) {
        const std::string framed = Framed(SetMask(id, MaskOf(items)));
        requests.Record(framed.data(), static_cast<int>(framed.size()));
    }
    // The bytes of this piece that the tool gets, what was held before them.
    std::string Take(const std::string& piece) {
        const char* const end = piece.data() + piece.size() - 1;
        const auto verdict = filter.ParseReadDataLog117C(piece.data(), end);
        std::string tool;
        if (verdict != LogPacketFilter::Verdict::kWithhold) tool = piece;
        if (verdict == LogPacketFilter::Verdict::kForward) {
            tool.insert(0, filter.Held(), static_cast<size_t>(filter.HeldLength()));
            filter.ForgetHeld();
        }
        if (piece.back() == '\x7E') filter.Reset();
        return tool;
    }

    ToolLogRequests requests;
    LogPacketFilter filter{requests};
};

// The code is read from un-escaped bytes, wherever a piece ends.
TEST_F(LogPacketFilterTest, ChoosesByTheCode) {
    const std::string plain(5, '\0');
    const std::string escaped = Hex("7E 7D 7E 7D 7E");
    const struct {
        const char* name;
        uint32_t code;
        std::string header;
        bool isWanted;
    } kRows[] = {
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
        {"id without row", 0xE17C, plain, false},
    };
    Want(1, {0x17C});
    Want(4, {0x77D, 0x77E});
    Want(7, {0xD01, 0xD7E, 0xE7D});
    Want(13, {0x9FF});
    for (const auto& row : kRows) {
        const std::string frame = LogFrame(row.code, row.header);
        for (size_t cut = 1; cut <= frame.size(); ++cut) {
            SCOPED_TRACE(testing::Message() << row.name << ", cut at " << cut);
            std::string tool = Take(frame.substr(0, cut));
            if (cut < frame.size()) tool += Take(frame.substr(cut));
            EXPECT_TRUE(Same(row.isWanted ? frame : "", tool));
        }
    }
}

TEST_F(LogPacketFilterTest, FollowsRequestsWithinAPacket) {
    const std::string wanted = LogFrame(0x4123);
    const std::string other = LogFrame(0x4124);
    const std::string head = wanted.substr(0, 5);
    const std::string a = wanted.substr(0, 9);
    const std::string b = wanted.substr(9, 3);
    const std::string c = wanted.substr(12);
    struct Step {
        std::string in;  // or the tool wants the code, or nothing any more
        std::string tool;
    };
    const Step on = {"on", ""};
    const Step off = {"off", ""};
    const struct {
        const char* name;
        std::vector<Step> steps;
    } kRows[] = {
        {"held head leaves once", {on, {head, ""}, {wanted.substr(5, 7), a + b}, {c, c}}},
        {"head in two pieces",
         {on, {head, ""}, {wanted.substr(5, 1), ""}, {wanted.substr(6), wanted}}},
        {"too short",
         {on,
          {Hex("10 7E"), ""},
          {Hex("10 00 00 00 00 00 23 7E"), ""},
          {Hex("10 00 00 00 00 00 24 41 7E"), ""},
          {wanted, wanted}}},
        {"too short and cut", {on, {Hex("10 00"), ""}, {Hex("00 7E"), ""}, {wanted, wanted}}},
        {"ends within an escape", {on, {Hex("10 7D"), ""}, {"\x7E", ""}, {wanted, wanted}}},
        {"as many escapes as a head has",
         {on,
          {"\x10" + std::string(15, '\x7D'), ""},
          {Hex("20 00 00 00 00 23 41 7E"),
           "\x10" + std::string(15, '\x7D') + Hex("20 00 00 00 00 23 41 7E")}}},
        {"more escapes than a head has",
         {on,
          {"\x10" + std::string(16, '\x7D'), ""},
          {Hex("20 00 00 00 00 23 41 7E"), ""},
          {wanted, wanted}}},
        {"nothing wanted", {{wanted, ""}, {a, ""}, {b + c, ""}}},
        {"wanted from now on, within a packet", {{a, ""}, on, {b + c, ""}, {wanted, wanted}}},
        {"wanted from now on, within the head",
         {{head, ""}, on, {Hex("00 24 41 00 00 00 23 41 7E"), ""}, {wanted, wanted}}},
        {"off: the packet is finished over more pieces",
         {on, {a, a}, off, {b, b}, {c, c}, {wanted, ""}}},
        {"off between packets", {on, {wanted, wanted}, off, {a, ""}, {b + c, ""}}},
        {"off within the head", {on, {head, ""}, off, {wanted.substr(5), ""}, {wanted, ""}}},
        {"off and on again", {on, {a, a}, off, {b, b}, on, {c, c}, {wanted, wanted}}},
        {"off and on, another packet",
         {on, {other.substr(0, 9), ""}, off, {b, ""}, on, {c, ""}, {wanted, wanted}}},
        {"off and on within the head",
         {on,
          {head, ""},
          off,
          {wanted.substr(5, 1), ""},
          on,
          {Hex("24 23 41 00 7E"), ""},
          {wanted, wanted}}},
    };
    for (const auto& row : kRows) {
        Want(4, {});
        for (const Step& step : row.steps) {
            SCOPED_TRACE(testing::Message() << row.name << ", step " << &step - &row.steps[0]);
            if (step.in == "on") {
                Want(4, {0x123});
            } else if (step.in == "off") {
                Want(4, {});
            } else {
                EXPECT_TRUE(Same(step.tool, Take(step.in)));
            }
        }
        filter.Reset();
    }
}

}  // namespace
