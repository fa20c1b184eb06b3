// Which log packets the tool gets, by the pieces in which they arrive.
#include "diag/log_packet_filter.h"

#include "tests/support/bytes.h"

namespace {

class LogPacketFilterTest : public testing::Test {
  protected:
    void Want(uint32_t id, const std::vector<uint32_t>& items) {
        Record(requests, Framed(SetMask(id, MaskOf(items))));
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
        {"low byte escaped", 0x477D, plain, true},
        {"low byte escaped, behind escapes", 0x477E, escaped, true},
        {"high byte escaped", 0x7D01, plain, true},
        {"both bytes escaped", 0x7D7E, plain, true},
        {"all escaped", 0x7E7D, escaped, true},
        {"escaped neighbour", 0x7D7D, escaped, false},
        {"wanted if escapes were not counted", 0x1170, Hex("7E 7E 00 7C 11"), false},
        {"wanted if read one byte early", 0x1111, Hex("00 00 00 00 7C"), false},
    };
    Want(1, {0x17C});
    Want(4, {0x77D, 0x77E});
    Want(7, {0xD01, 0xD7E, 0xE7D});
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

}  // namespace
