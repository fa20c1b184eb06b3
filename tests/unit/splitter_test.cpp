// The modem's stream divided between tool and flash: by kind of frame, wherever chunks cut it and
// whenever capture is switched.
#include <memory>
#include <random>

#include "buffer/stream_splitter.h"
#include "tests/support/bytes.h"

namespace {

// A splitter whose sinks keep what they get.
class Divided {
  public:
    int ToTool(const char* data, int len) {
        tool.append(data, static_cast<size_t>(len) / mDivisor);
        return len / mDivisor;
    }
    int ToFlash(const char* data, int len) {
        ++stores;
        flash.append(data, static_cast<size_t>(len));
        return len;
    }
    // From now on the tool's side takes so much less.
    void TakeOneIn(int divisor) { mDivisor = divisor; }

    void Want(uint32_t id, const std::vector<uint32_t>& items) {
        const std::string framed = Framed(SetMask(id, MaskOf(items)));
        mRequests.Record(framed.data(), static_cast<int>(framed.size()));
    }
    // With capture on, or off; returns what the tool got.
    std::string Take(std::string chunk, bool isOn = true) {
        const size_t before = tool.size();
        if (isOn) splitter.ParseReadData(&chunk[0], &chunk[0] + chunk.size());
        if (!isOn) splitter.PassRaw(chunk.data(), static_cast<int>(chunk.size()));
        EXPECT_EQ(mDivisor == 1, splitter.Counts().IsBalanced());
        return tool.substr(before);
    }

    std::string tool;
    std::string flash;
    int stores = 0;
    std::atomic<bool> areAnswersRewritten{true};

  private:
    ToolLogRequests mRequests;
    int mDivisor = 1;

  public:
    StreamSplitter<Divided> splitter{mRequests, areAnswersRewritten, *this};
};

std::unique_ptr<Divided> Fresh() {
    auto divided = std::make_unique<Divided>();
    divided->Want(4, {0x123, 0x77E});
    return divided;
}

struct Step {
    enum { kOn, kOff } capture;
    std::string in;
    std::string tool;
};

struct Story {
    const char* name;
    std::vector<Step> steps;
    std::string flash;
};

void PlayAll(const std::vector<Story>& stories) {
    for (const Story& story : stories) {
        const auto divided = Fresh();
        for (const Step& step : story.steps) {
            SCOPED_TRACE(testing::Message() << story.name << ", step " << &step - &story.steps[0]);
            EXPECT_TRUE(Same(step.tool, divided->Take(step.in, step.capture == Step::kOn)));
        }
        EXPECT_TRUE(Same(story.flash, divided->flash)) << story.name;
    }
}

Step On(const std::string& in, const std::string& tool) {
    return {Step::kOn, in, tool};
}
Step Off(const std::string& in, const std::string& tool) {
    return {Step::kOff, in, tool};
}
// Of the bytes all, or none, reach the tool.
Step Passes(const std::string& in) {
    return On(in, in);
}
Step Keeps(const std::string& in) {
    return On(in, "");
}

TEST(Splitter, SendsFramesWhereTheirFirstByteTells) {
    const std::string captured = Hex("10 60 79 92 98 99");
    const auto divided = Fresh();
    std::string flash;
    for (int code = 0; code < 256; ++code) {
        const std::string frame = static_cast<char>(code) + Hex("01 02 7E");
        const bool isCaptured = captured.find(frame[0]) != std::string::npos;
        EXPECT_TRUE(
            Same(isCaptured || code == 0x7E ? std::string(code == 0x7E ? frame : "") : frame,
                 divided->Take(frame)));
        if (isCaptured) flash += frame;
    }
    EXPECT_TRUE(Same(flash, divided->flash));
}

TEST(Splitter, RoutesPieces) {
    const std::string endless(3 * 4095, '\x1D');
    const std::string disable = Hex("4B 12 18 02 01 7E");
    const std::string wanted = LogFrame(0x4123);
    const std::string answer = Answer(4, 5, "\x01");
    PlayAll({
        {"answer between reports",
         {On(Hex("79 7E 1D 02 7E 79 03 7E"), Hex("1D 02 7E"))},
         Hex("79 7E 79 03 7E")},
        {"cut answer leaves at once",
         {Passes(Hex("1D 02")), On(Hex("79 7E 60 7E"), Hex("79 7E"))},
         Hex("60 7E")},
        {"cut report stays a report",
         {Keeps(Hex("99 01")), On(Hex("1D 7E 1D 7E"), Hex("1D 7E"))},
         Hex("99 01 1D 7E")},
        {"report's end alone", {Keeps(Hex("92 01")), Keeps("\x7E")}, Hex("92 01 7E")},
        {"empty frames", {On(Hex("7E 7E 60 7E 7E"), Hex("7E 7E 7E"))}, Hex("60 7E")},
        {"frame without end", {Passes(endless), On(Hex("7E 60 7E"), "\x7E")}, Hex("60 7E")},
        {"answer to HDLC disabling", {On(disable, Hex("13 12 18 02 01 7E"))}, ""},
        {"its five bytes", {On(disable.substr(0, 5), Hex("13 12 18 02 01"))}, ""},
        {"its four bytes alone", {Passes(disable.substr(0, 4)), Passes(Hex("01 7E"))}, ""},
        {"another subsystem command", {Passes(Hex("4B 12 18 03 01 7E"))}, ""},
        {"not at a chunk's start", {On(Hex("60 7E") + disable, disable)}, Hex("60 7E")},
        {"in the rest of a frame", {Passes("\x1D"), Passes(disable)}, ""},
        {"wanted packet goes both ways", {Passes(wanted)}, wanted},
        {"held head goes first",
         {Keeps(wanted.substr(0, 3)), On(wanted.substr(3), wanted)},
         wanted},
        {"0x73 answer is kept until it is whole",
         {Keeps(answer.substr(0, 3)), Keeps(answer.substr(3, 9)),
          On(answer.substr(12) + Hex("60 7E 1D 7E"), Answer(4, 5, Hex("00")) + Hex("1D 7E"))},
         Hex("60 7E")},
        {"an answer to nothing is dropped",
         {On(Answer(3, 1, "") + Hex("1D 7E"), Answer(3, 4, MaskOf({0x123, 0x77E})) + Hex("1D 7E"))},
         ""},
    });
}

TEST(Splitter, LeavesAnswersAloneWithoutCaptureMasks) {
    const auto divided = Fresh();
    divided->areAnswersRewritten = false;
    const std::string answer = Answer(4, 4, "\xFF");
    EXPECT_TRUE(Same(answer, divided->Take(answer)));
    EXPECT_TRUE(Same(answer.substr(0, 7), divided->Take(answer.substr(0, 7))));
    divided->areAnswersRewritten = true;
    EXPECT_TRUE(Same(answer.substr(7), divided->Take(answer.substr(7)))) << "by its beginning";
}

TEST(Splitter, HandsFramesThatFollowEachOtherToFlashInOneCall) {
    const auto divided = Fresh();
    divided->Take(Hex("79 7E 60 01 7E 10 00 7E 98"));
    EXPECT_EQ(1, divided->stores);
    divided->Take(Hex("7E 1D 7E 79 7E 1D 7E 1D 7E 60 7E"));
    EXPECT_EQ(4, divided->stores);
}

TEST(Splitter, CountsWhatEachSideTook) {
    const auto divided = Fresh();
    const std::string wanted = LogFrame(0x4123);
    const std::string report = Hex("60 01 7E");
    const std::string answer = Answer(4, 5, "\x01");
    divided->Take(report + wanted + Hex("1D 7E") + answer.substr(0, 10));
    const ByteCounts& counts = divided->splitter.Counts();
    EXPECT_EQ(report.size() + wanted.size() + 2 + 10, counts.mTotalLengthForReadDataFromBP);
    EXPECT_EQ(report.size() + wanted.size(), counts.mTotalLengthForSavedToFlash);
    EXPECT_EQ(wanted.size() + 2 + 10, counts.mTotalLengthForReadDataWriteToAP);
    EXPECT_EQ(wanted.size(), counts.mTotalLengthForLogDataWriteToAp);
    divided->TakeOneIn(2);
    divided->Take(Hex("1D 7E"));  // a side that takes less shows: Take looks at the balance
}

TEST(Splitter, FollowsTheSwitchWithinAFrame) {
    const std::string wanted = LogFrame(0x4123);
    const std::string withheld = LogFrame(0x4124);
    const std::string answer = Answer(4, 5, "\x01");
    const std::string masked = Answer(4, 5, Hex("00"));
    const auto head = [](const std::string& frame) { return frame.substr(0, 6); };
    const auto rest = [](const std::string& frame) { return frame.substr(6); };
    PlayAll({
        {"answer, off", {Passes(Hex("1D 01")), Off(Hex("7E 60 7E"), Hex("7E 60 7E"))}, ""},
        {"report, off and on",
         {Keeps(Hex("79 01")), Off(Hex("02 7E 60 7E"), Hex("02 7E 60 7E")), Keeps(Hex("60 7E"))},
         Hex("79 01 60 7E")},
        {"held 0x73 answer, off: only the next one is rewritten",
         {Keeps(head(answer)), Off(rest(answer), answer), On(answer, masked)},
         ""},
        {"held 0x73 answer, off and on again",
         {Keeps(head(answer)), Off("\x01", head(answer) + "\x01"),
          On(Hex("02 7E 60 7E"), Hex("02 7E"))},
         Hex("60 7E")},
        {"held 0x73 answer, off without a byte",
         {Keeps(head(answer)), Off("", head(answer)), On(Hex("02 7E 60 7E"), Hex("02 7E"))},
         Hex("60 7E")},
        {"held packet head, off",
         {Keeps(head(wanted)), Off(rest(wanted), wanted), On(withheld + wanted, wanted)},
         head(wanted) + withheld + wanted},
        {"held packet head, off without a byte",
         {Keeps(head(wanted)), Off("", head(wanted)), Passes(rest(wanted)), Passes(wanted)},
         head(wanted) + wanted},
        {"wanted packet under way, off",
         {Passes(wanted.substr(0, 9)), Off(wanted.substr(9), wanted.substr(9)), Keeps(withheld)},
         wanted.substr(0, 9) + withheld},
        {"report, on: its rest is no frame of its own",
         {Keeps(Hex("79 7E")), Off(Hex("79 01"), Hex("79 01")), Passes(Hex("60 02")),
          On(Hex("10 7E 79 7E"), Hex("10 7E"))},
         Hex("79 7E 79 7E")},
        {"wanted packet, on",
         {Off(head(wanted), head(wanted)),
          On(rest(wanted) + withheld + wanted, rest(wanted) + wanted)},
         withheld + wanted},
        {"0x73 answer, on: its rest is no answer",
         {On(answer, masked), Off("\x73", "\x73"), On(answer + answer, answer + masked)},
         ""},
        {"between frames, on",
         {Off(Hex("79 7E"), Hex("79 7E")), Keeps(Hex("79 7E"))},
         Hex("79 7E")},
    });
}

// What is too long to be kept reaches the tool as it is; and whatever its length, so does all that
// comes behind it.
TEST(Splitter, PassesAnswersThatAreTooLong) {
    const std::string behind = LogFrame(0x4001) + Answer(1, 4, "") + "\x1D\x7E";
    for (const char* operation : {"73 00 00 00 01", "73 00 00 00 03", "73 00 00 00 04"}) {
        for (const size_t length : {16384, 16385, 20476, 60000}) {
            if (length <= 16384 && operation[13] != '1') continue;
            SCOPED_TRACE(testing::Message() << operation << ", " << length);
            std::string frame;
            while (frame.size() < length)  // every chunk begins like an answer
                frame += Hex(operation);
            frame.replace(length - 1, std::string::npos, "\x7E");
            const auto divided = Fresh();
            const std::string in = frame + behind + Answer(4, 5, "\xFF");
            for (size_t at = 0; at < in.size(); at += 4095)
                divided->Take(in.substr(at, 4095));
            EXPECT_TRUE(
                Same(frame + behind.substr(LogFrame(0x4001).size()) + Answer(4, 5, Hex("00")),
                     divided->tool));
        }
    }
}

// Everything that has a state of its own: log packets wanted and not, with escapes in their head
// and too short ones, and all kinds of 0x73 answers.
TEST(Splitter, CutsChangeNothing) {
    const std::string escapes = Hex("7E 00 7D 7D 7E");
    const std::string wanted = LogFrame(0x4123) + LogFrame(0x477E, escapes);
    const std::string stream = Hex("79 01 02 7E 7E") + wanted +
                               Hex("1D 7E 10 00 00 00 00 00 23 7E") + LogFrame(0x477D, escapes) +
                               Answer(1, 4, "") + Hex("10 7E 60 08 7E 4B 12 7E") +
                               Answer(3, 4, "") + wanted + Answer(4, 4, Hex("7E 7D 7E 7D")) +
                               Hex("98 7E 73 7E FF 0A 7E 10 00 7D 7E 73 00 00 00 03 7E 99 7E");
    const auto whole = Fresh();
    whole->Take(stream);
    EXPECT_EQ(2 * wanted.size(), whole->splitter.Counts().mTotalLengthForLogDataWriteToAp);
    const auto expectSame = [&](const Divided& cut) {
        EXPECT_TRUE(Same(whole->tool, cut.tool));
        EXPECT_TRUE(Same(whole->flash, cut.flash));
        EXPECT_EQ(whole->splitter.Counts().mTotalLengthForLogDataWriteToAp,
                  cut.splitter.Counts().mTotalLengthForLogDataWriteToAp);
    };
    for (size_t cut = 1; cut < stream.size(); ++cut) {
        SCOPED_TRACE(cut);
        const auto divided = Fresh();
        divided->Take(stream.substr(0, cut));
        divided->Take(stream.substr(cut));
        expectSame(*divided);
    }
    const auto bytes = Fresh();
    for (const char byte : stream)
        bytes->Take({byte});
    expectSame(*bytes);
}

}  // namespace
