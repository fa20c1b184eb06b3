// The modem's answers to log-configuration requests, as the tool gets them.
#include "diag/log_config_answers.h"

#include "tests/support/bytes.h"

namespace {

// What the tool gets for an answer that comes in two pieces.
std::string Replied(LogConfigAnswers& answers, const std::string& frame, size_t cut) {
    EXPECT_TRUE(answers.Fits(static_cast<int>(frame.size())));
    if (cut > 0) answers.Keep(frame.data(), static_cast<int>(cut));
    const auto reply =
        answers.Parse73CmdResponse(frame.data() + cut, static_cast<int>(frame.size() - cut), true);
    EXPECT_EQ(static_cast<int>(frame.size()), reply.modemLen);
    answers.Forget();
    return {reply.frame, static_cast<size_t>(reply.len)};
}

TEST(LogConfigAnswers, ShowTheToolItsOwnMasks) {
    const std::string escapes = Hex("7E 7D");
    const std::string long7E(512, '\x7E');
    const std::string cleared = Answer(4, 4, escapes + std::string(510, '\0'));
    const std::string shortest = HexFrame("73 00 00 00 04");
    const std::string set =
        Hex("73 00 00 00 03 00 00 00 00 00 00 00 01 00 00 00 10 00 00 00 01 00 C3 1D 7E");
    const std::string get =
        Hex("73 00 00 00 04 00 00 00 00 00 00 00 01 00 00 00 10 00 00 00 01 80 5C 63 7E");
    const std::string own =
        Hex("73 00 00 00 04 00 00 00 00 00 00 00 01 00 00 00 10 00 00 00 01 00 54 E7 7E");
    const std::string notZero = Answer(4, 1, "\xFF").replace(2, 1, "\x01");
    const struct {
        const char* name;
        std::vector<std::pair<uint32_t, std::string>> asked;  // equipment ids and masks
        std::string answer;
        std::string reply;
    } kRows[] = {
        {"set", {{1, Hex("01 00")}}, Answer(3, 1, Hex("01 80")), set},
        {"set, shortest answer", {{1, Hex("01 00")}}, Hex("73 00 00 00 03 7E"), set},
        {"set, refused by the modem", {{1, Hex("01 00")}}, Answer(3, 1, Hex("01 80"), 0x7E), set},
        {"set, last", {{1, "\x01"}, {4, "\x7D"}}, Answer(3, 1, "\xFF"), Answer(3, 4, "\x7D")},
        {"set, nothing stored", {}, Answer(3, 1, "\xFF"), ""},
        {"set, no row", {{14, "\x02"}}, Answer(3, 14, "\x02"), Answer(3, 14, "\x02")},
        {"get", {{1, Hex("01 00")}}, get, own},
        {"get, status", {{1, "\x01"}}, Answer(4, 1, "\x7E\x80", 5), Answer(4, 1, Hex("01 00"), 5)},
        {"get, another id", {{1, "\x01"}}, Answer(4, 5, "\xFF"), Answer(4, 5, Hex("00"))},
        {"get, id without row", {{14, "\x01"}}, Answer(4, 14, "\x02"), Answer(4, 14, Hex("00"))},
        {"get, tool's mask shorter", {{4, escapes}}, Answer(4, 4, long7E), cleared},
        {"get, tool's mask longer", {{4, escapes}}, Answer(4, 4, "\xFF"), Answer(4, 4, "\x7E")},
        {"get, without mask", {{1, "\x01"}}, Answer(4, 1, ""), Answer(4, 1, "")},
        {"get, nothing more", {{1, "\x01"}}, shortest, shortest},
        {"other operation", {{1, "\x01"}}, Answer(1, 1, "\xFF"), Answer(1, 1, "\xFF")},
        {"not zero behind the command", {{1, "\x01"}}, notZero, notZero},
        {"too short for an operation", {{1, "\x01"}}, Hex("73 00 00 00"), Hex("73 00 00 00")},
    };
    for (const auto& row : kRows) {
        ToolLogRequests requests;
        for (const auto& [id, mask] : row.asked)
            Record(requests, Framed(SetMask(id, mask)));
        LogConfigAnswers answers(requests);
        for (size_t cut = 0; cut < row.answer.size(); ++cut) {
            SCOPED_TRACE(testing::Message() << row.name << ", cut at " << cut);
            EXPECT_TRUE(Same(row.reply, Replied(answers, row.answer, cut)));
        }
    }
}

}  // namespace
