// The modem's stream divided between tool and flash: by kind of frame, wherever chunks cut it and
// whenever capture or what the tool wants changes.
#include "buffer/stream_splitter.h"

#include <map>
#include <memory>
#include <sstream>

#include "tests/support/bytes.h"

namespace {

// A splitter whose sinks keep what they get.
class Divided {
  public:
    Divided() { Want({0x123, 0x77E}); }
    int ToTool(const char* data, int len) {
        tool.append(data, static_cast<size_t>(len));
        return len;
    }
    int ToFlash(const char* data, int len) {
        ++stores;
        flash.append(data, static_cast<size_t>(len));
        return len;
    }
    void Want(const std::vector<uint32_t>& items) {
        Record(mRequests, Framed(SetMask(4, MaskOf(items))));
    }
    // With capture on, or off; returns what the tool got.
    std::string Take(std::string chunk, bool isOn = true) {
        const size_t before = tool.size();
        if (isOn) splitter.ParseReadData(&chunk[0], &chunk[0] + chunk.size());
        if (!isOn) splitter.PassRaw(chunk.data(), static_cast<int>(chunk.size()));
        EXPECT_TRUE(splitter.Counts().IsBalanced());
        return tool.substr(before);
    }

    std::string tool;
    std::string flash;
    int stores = 0;
    std::atomic<bool> areAnswersRewritten{true};

  private:
    ToolLogRequests mRequests;

  public:
    StreamSplitter<Divided> splitter{mRequests, areAnswersRewritten, *this};
};

// Bytes in hexadecimal and by name: log packets, wanted and not, in four pieces, of which the first
// is too short for the code; an answer in two pieces, as the modem sends it and as the tool gets
// it.
std::string Named(const std::string& words) {
    static const std::string w = LogFrame(0x4123), u = LogFrame(0x4124), a = Answer(4, 5, "\x01");
    static const std::map<std::string, std::string> kPieces = {
        {"W", w},
        {"W1", w.substr(0, 5)},
        {"W2", w.substr(5, 4)},
        {"W3", w.substr(9, 3)},
        {"W4", w.substr(12)},
        {"U", u},
        {"U1", u.substr(0, 9)},
        {"U2", u.substr(9)},
        {"A", a},
        {"A1", a.substr(0, 6)},
        {"A2", a.substr(6)},
        {"A*", Answer(4, 5, Hex("00"))},
        {"S", Answer(3, 1, "")},
        {"S*", Answer(3, 4, MaskOf({0x123, 0x77E}))},
        {"D", Hex("10 7D 7D 7D 7D 7D 7D 7D 7D 7D 7D 7D 7D 7D 7D 7D")},
    };
    std::string bytes;
    std::istringstream all(words);
    for (std::string word; all >> word;)
        bytes += kPieces.count(word) != 0 ? kPieces.at(word) : Hex(word);
    return bytes;
}

struct Story {
    const char* name;
    // Each "+" with capture on or "-" with it off, bytes, ">" and what of them the tool gets; or
    // "want" or "none": what the tool asks for.
    std::vector<std::string> steps;
    std::string flash;
};

void Play(const std::vector<Story>& stories) {
    for (const Story& story : stories) {
        const auto divided = std::make_unique<Divided>();
        for (const std::string& step : story.steps) {
            SCOPED_TRACE(testing::Message() << story.name << ": " << step);
            const size_t middle = step.find('>');
            if (middle == std::string::npos) {
                divided->Want(step == "want" ? std::vector<uint32_t>{0x123}
                                             : std::vector<uint32_t>());
                continue;
            }
            const std::string got =
                divided->Take(Named(step.substr(1, middle - 1)), step[0] == '+');
            EXPECT_TRUE(Same(Named(step.substr(middle + 1)), got));
        }
        EXPECT_TRUE(Same(Named(story.flash), divided->flash)) << story.name;
    }
}

TEST(Splitter, SendsFramesWhereTheirFirstByteTells) {
    const std::string captured = Hex("10 60 79 92 98 99");
    Divided divided;
    for (int code = 0; code < 256; ++code) {
        const std::string frame = static_cast<char>(code) + Hex("01 02 7E");
        const bool isCaptured = captured.find(frame[0]) != std::string::npos;
        const size_t before = divided.flash.size();
        EXPECT_TRUE(Same(isCaptured ? "" : frame, divided.Take(frame)));
        EXPECT_TRUE(Same(isCaptured ? frame : "", divided.flash.substr(before)));
    }
}

TEST(Splitter, RoutesPieces) {
    Play({
        {"answer between reports", {"+79 7E 1D 02 7E 79 03 7E>1D 02 7E"}, "79 7E 79 03 7E"},
        {"cut answer leaves at once", {"+1D 02>1D 02", "+79 7E 60 7E>79 7E"}, "60 7E"},
        {"cut report stays a report", {"+99 01>", "+1D 7E 1D 7E>1D 7E"}, "99 01 1D 7E"},
        {"report's end alone", {"+92 01>", "+7E>"}, "92 01 7E"},
        {"answer to HDLC disabling", {"+4B 12 18 02 01 7E>13 12 18 02 01 7E"}, ""},
        {"its four bytes alone", {"+4B 12 18 02>4B 12 18 02", "+01 7E>01 7E"}, ""},
        {"not at a chunk's start", {"+60 7E 4B 12 18 02 01>4B 12 18 02 01"}, "60 7E"},
        {"in the rest of a frame", {"+1D>1D", "+4B 12 18 02 01>4B 12 18 02 01"}, ""},
        {"wanted packet goes both ways", {"+W>W"}, "W"},
        {"held head goes first", {"+W1>", "+W2 W3>W1 W2 W3", "+W4>W4"}, "W"},
        {"kept until it is whole", {"+A1>", "+A2 60 7E 1D 7E>A* 1D 7E"}, "60 7E"},
        {"answer to the capture's request", {"+S 1D 7E>S* 1D 7E"}, ""},
    });
}

TEST(Splitter, FollowsTheSwitchWithinAFrame) {
    Play({
        {"answer", {"+1D 01>1D 01", "-7E 60 7E>7E 60 7E"}, ""},
        {"report, and on", {"+79 01>", "-02 7E 60 7E>02 7E 60 7E", "+60 7E>"}, "79 01 60 7E"},
        {"held 0x73 answer: only the next is rewritten", {"+A1>", "-A2>A", "+A>A*"}, ""},
        {"held 0x73 answer, and on", {"+A1>", "-01>A1 01", "+02 7E 60 7E>02 7E"}, "60 7E"},
        {"the same without a byte", {"+A1>", "->A1", "+02 7E 60 7E>02 7E"}, "60 7E"},
        {"unwanted head",
         {"+10 00 34 00>", "+34 00 70 11 08>", "-7E>7E"},
         "10 00 34 00 34 00 70 11 08"},
        {"held head", {"+W1>", "-W2 W3 W4>W", "+U W>W"}, "W1 U W"},
        {"the same without a byte", {"+W1>", "->W1", "+W2>W2", "+W3 W4 W>W3 W4 W"}, "W1 W"},
        {"wanted packet under way", {"+W1 W2>W1 W2", "-W3 W4>W3 W4", "+U>"}, "W1 W2 U"},
        {"report begun while off", {"-79 01>79 01", "+60 02>60 02", "+10 7E 79 7E>10 7E"}, "79 7E"},
        {"wanted packet begun while off", {"-W1>W1", "+W2 W3 W4 U W>W2 W3 W4 W"}, "U W"},
        {"0x73 answer begun while off", {"+A>A*", "-73>73", "+A A>A A*"}, ""},
    });
}

// Steps without what goes to flash: all of it.
TEST(Splitter, FollowsRequestsWithinAPacket) {
    const std::vector<Story> stories = {
        {"head in two pieces", {"+W1>", "+20>", "+7E>", "+W1>", "+W2>W1 W2"}, ""},
        {"too short", {"+10 7E>", "+10 00 00 00 00 00 23 7E>", "+W>W"}, ""},
        {"too short and cut", {"+10 00>", "+00 7E>", "+W>W"}, ""},
        {"ends within an escape", {"+10 7D>", "+7E>", "+W>W"}, ""},
        {"as many escapes as a head has",
         {"+D>", "+20 00 00 00 00 23 41 7E>D 20 00 00 00 00 23 41 7E"},
         ""},
        {"more than that", {"+D 7D>", "+20 00 00 00 00 23 41 7E>", "+W>W"}, ""},
        {"nothing wanted", {"none", "+W>", "+W1 W2>", "+W3 W4>"}, ""},
        {"wanted within a packet", {"none", "+W1 W2>", "want", "+W3 W4>", "+W>W"}, ""},
        {"wanted within a head",
         {"none", "+W1>", "want", "+00 24 41 00 00 00 23 41 7E>", "+W>W"},
         ""},
        {"none: the packet goes on", {"+W1 W2>W1 W2", "none", "+W3>W3", "+W4>W4", "+W>"}, ""},
        {"none between packets", {"+W>W", "none", "+W1 W2>", "+W3 W4>"}, ""},
        {"none within a head", {"+W1>", "none", "+W2 W3 W4>", "+W>"}, ""},
        {"none and wanted", {"+W1 W2>W1 W2", "none", "+W3>W3", "want", "+W4>W4", "+W>W"}, ""},
        {"in another packet", {"+U1>", "none", "+W3>", "want", "+W4>", "+W>W"}, ""},
        {"in a head", {"+W1>", "none", "+00>", "want", "+24 23 41 00 7E>", "+W>W"}, ""},
    };
    for (Story story : stories) {
        for (const std::string& step : story.steps)
            if (step[0] == '+') story.flash += step.substr(1, step.find('>') - 1) + " ";
        Play({story});
    }
}

TEST(Splitter, LeavesAnswersAloneWithoutCaptureMasks) {
    Divided divided;
    divided.areAnswersRewritten = false;
    EXPECT_TRUE(Same(Named("A A1"), divided.Take(Named("A A1"))));
    divided.areAnswersRewritten = true;
    EXPECT_TRUE(Same(Named("A2 A*"), divided.Take(Named("A2 A")))) << "by its beginning";
}

TEST(Splitter, HandsFramesThatFollowEachOtherToFlashInOneCall) {
    Divided divided;
    divided.Take(Hex("79 7E 60 01 7E 10 00 7E 98"));
    EXPECT_EQ(1, divided.stores);
    divided.Take(Hex("7E 1D 7E 79 7E 1D 7E 1D 7E 60 7E"));
    EXPECT_EQ(4, divided.stores);
}

}  // namespace
