// Log-mask files: lists compiled, files printed, and back.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <random>
#include <set>

#include "tools/frame_stream.h"
#include "tools/frame_text.h"
#include "tools/mask_list.h"
#include "tools/mask_print.h"
#include "tools/mask_ranges.h"
#include "tools/subcommand.h"
#include "tools/tool_error.h"

namespace {

using Lines = std::vector<std::string>;

std::string Bytes(std::string_view hex) {
    std::string bytes;
    EXPECT_EQ(ParseHex(hex, &bytes), "") << hex;
    return bytes;
}

std::string Framed(std::string_view hex) {
    std::string frame;
    AppendFrame(frame, Bytes(hex));
    return frame;
}

std::string Compile(const std::string& list) {
    return CompileMaskList(list, "l").file;
}

// The packets of a file, in hexadecimal.
Lines Packets(std::string_view file) {
    Lines packets;
    FrameReader reader;
    while (!file.empty()) {
        FrameState state;
        file.remove_prefix(reader.Take(file.data(), file.size(), &state));
        EXPECT_EQ(state, FrameState::kGood);
        packets.push_back(FormatHex(reader.packet(), reader.packet().size()));
    }
    return packets;
}

// A set-log-mask packet in hexadecimal: low byte of the id, low two of the bit count, mask.
std::string SetMask(const char* id, const char* bits, const std::string& mask) {
    return FormatHex(Bytes("73000000 03000000" + std::string(id) + "000000" + bits + "0000" + mask),
                     SIZE_MAX);
}

TEST(MaskList, WritesFramesAsTheyGoOnTheWire) {
    EXPECT_EQ(Compile("width 1 16\n0x100F\n0x1000\nmessages on\n"),
              Bytes("73 00 00 00 03 00 00 00 01 00 00 00 10 00 00 00 01 80 93 8A 7E") +
                  Framed("7D 05 00 00 FF FF FF FF"));
    EXPECT_EQ(Compile("raw 7E 7D"), Bytes("7D 5E 7D 5D F1 CD 7E"));
}

TEST(MaskList, CompilesToRequests) {
    const struct {
        const char* name;
        std::string list;
        Lines packets;
    } cases[] = {
        {"width up to the code's byte", "0x1000", {SetMask("01", "0800", "01")}},
        {"code opens a byte", "0x1008", {SetMask("01", "1000", "0001")}},
        {"id 0, first digit left out", "0x9", {SetMask("00", "1000", "0002")}},
        {"highest id and item, upper case",
         "0XDFFF",
         {SetMask("0D", "0010", std::string(1022, '0') + "80")}},
        {"range over byte limits", "0xB006-0xB011", {SetMask("0B", "1800", "C0FF03")}},
        {"range of one", "0xB001-0xB001", {SetMask("0B", "0800", "02")}},
        {"codes twice, descending",
         "0x1009\n0x1001-0x1002\n0x1002",
         {SetMask("01", "1000", "0602")}},
        {"width longer, not whole bytes", "width 1 17\n0x1001", {SetMask("01", "1100", "020000")}},
        {"width's last bit", "width 1 10\n0x1009", {SetMask("01", "0A00", "0002")}},
        {"width behind the code, in hexadecimal",
         "0xB001\nwidth 0xB 0x10",
         {SetMask("0B", "1000", "0200")}},
        {"grouped where the id first stands",
         "timestamp\n0x4000\nevents on\n0x1000\nmessages on\n0x4001\nraw 4b1218",
         {"1D", SetMask("04", "0800", "03"), "60 01", SetMask("01", "0800", "01"),
          "7D 05 00 00 FF FF FF FF", "4B 12 18"}},
        {"blanks, tabs, comments, CR LF, no last line end",
         "# one\r\n\r\n \t0x1000 # two\r\nevents \t on\r\nraw\t4B  12#x\r\n # 0x1001\r\ntimestamp",
         {SetMask("01", "0800", "01"), "60 01", "4B 12", "1D"}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const CompiledMaskList compiled = CompileMaskList(c.list, "l");
        EXPECT_EQ(Packets(compiled.file), c.packets);
        EXPECT_EQ(compiled.warnings, Lines{});
    }
}

TEST(MaskList, NamesTheLineOfAnError) {
    const std::string notCode = "not a log code such as 0x117C or a range such as 0xB0C0-0xB0CF: ";
    const std::string widthTakes =
        "width takes an equipment id (0 to 13) and a number of bits (1 to 4096): ";
    const std::string hex16380(32760, '1');
    const struct {
        std::string list, error;
    } cases[] = {
        {"", "l: the list has no requests"},
        {"# only this\nwidth 1 8\n", "l: the list has no requests"},
        {"\n0x1000\nfoo 1 # x\n", "l:3: unknown item: foo 1"},
        {"events off", "l:1: unknown item: events off"},
        {"117C", "l:1: unknown item: 117C"},
        {"0x1000 0x1001", "l:1: " + notCode + "0x1000 0x1001"},
        {"0x", "l:1: " + notCode + "0x"},
        {"0x10000", "l:1: " + notCode + "0x10000"},
        {"0x100000001", "l:1: " + notCode + "0x100000001"},
        {"0x10G0", "l:1: " + notCode + "0x10G0"},
        {"0x-1000", "l:1: " + notCode + "0x-1000"},
        {"0x1000-1001", "l:1: " + notCode + "0x1000-1001"},
        {"0x1000-0x1001-0x1002", "l:1: " + notCode + "0x1000-0x1001-0x1002"},
        {"0x1000-0x2000", "l:1: the range leaves the first code's equipment id: 0x1000-0x2000"},
        {"0x1001-0x1000", "l:1: the range runs backwards: 0x1001-0x1000"},
        {"0xE000", "l:1: equipment ids 14 and 15 have no log masks: 0xE000"},
        {"0xFFF0-0xFFFF", "l:1: equipment ids 14 and 15 have no log masks: 0xFFF0-0xFFFF"},
        {"0x100B\n0x1000-0x100C\n0x1001\nwidth 1 12",
         "l:2: log code 0x100C lies beyond the 12 bits given in line 4"},
        {"width 1 8\n\nwidth 1 8", "l:3: equipment id 1 has a width from line 1 already: 1 8"},
        {"width 14 8", "l:1: " + widthTakes + "14 8"},
        {"width 1 0", "l:1: " + widthTakes + "1 0"},
        {"width 1 4097", "l:1: " + widthTakes + "1 4097"},
        {"width 1 8 8", "l:1: " + widthTakes + "1 8 8"},
        {"width", "l:1: " + widthTakes},
        {"width -1 8", "l:1: " + widthTakes + "-1 8"},
        {"raw", "l:1: raw: no bytes given"},
        {"raw 4B 1", "l:1: raw: not two hexadecimal digits at \"1\""},
        // With its check sequence B8 16 and 0x7E the first is as long as the daemon reads.
        {"raw 60" + hex16380 + "\nraw 6011" + hex16380,
         "l:2: raw: a frame of 16385 bytes; the daemon reads frames up to 16384"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.list.substr(0, 80));
        try {
            Compile(c.list);
            ADD_FAILURE() << "no error";
        } catch (const ToolError& error) {
            EXPECT_EQ(error.what(), c.error);
        }
    }
}

TEST(MaskList, WarnsOfAWidthWithoutCodes) {
    const auto compiled = CompileMaskList("width 1 8\nwidth 4 8\n0x1000\nraw 04\n", "l");
    EXPECT_EQ(compiled.warnings,
              Lines{"l:2: no log codes of equipment id 4: its width makes no request"});
    EXPECT_EQ(Packets(compiled.file), (Lines{SetMask("01", "0800", "01"), "04"}));
}

TEST(MaskPrint, ShowsFrames) {
    const auto shown = PrintMaskFile(Compile("width 1 4095\n0x1001-0x1003\n0x1005\n0x1FFE\n"
                                             "events on\nraw 4B 12\n") +
                                     "~");
    EXPECT_EQ(shown.findings, Lines{});
    EXPECT_EQ(shown.text,
              "offset 0: set log mask (0x73), 528 bytes, check sequence good: equipment id 1, 4095 "
              "bits, 5 codes\n"
              "  0x1001-0x1003\n"
              "  0x1005\n"
              "  0x1FFE\n"
              "offset 531: event (0x60), 2 bytes, check sequence good: 60 01\n"
              "offset 536: subsystem (0x4B), 2 bytes, check sequence good: 4B 12\n"
              "offset 541: empty frame\n");

    // A mask byte too many: its codes would be another equipment id's.
    const auto wide = PrintMaskFile(Framed(SetMask("01", "0010", std::string(1022, '0') + "8001")));
    EXPECT_EQ(wide.findings, Lines{"offset 0: 513 mask bytes for 4096 bits"});
    EXPECT_EQ(wide.text.substr(wide.text.find('\n')), "\n  0x1FFF\n");
}

TEST(MaskPrint, PointsOutDamage) {
    const std::string good = Framed("1D");  // 4 bytes
    const std::string overlong(16384, 'x');
    const std::string stops = "16384 bytes without 0x7E: the daemon stops reading here";
    const struct {
        const char* name;
        std::string file;
        Lines findings;
    } cases[] = {
        {"nothing wrong", good + Framed(SetMask("0D", "0800", "80")), {}},
        {"empty", "", {"offset 0: the file is empty"}},
        {"wrong check sequence",
         good + Bytes("60 01 00 00 7E") + good,
         {"offset 4: bad check sequence"}},
        {"too short for a check sequence", good + Bytes("60 7E"), {"offset 4: bad check sequence"}},
        {"two",
         Bytes("60 00 00 7E") + good + Bytes("60 00 00 7E"),
         {"offset 0: bad check sequence", "offset 8: bad check sequence"}},
        {"no last flag",
         good + good.substr(0, 3),
         {"offset 4: no 0x7E behind the last 3 bytes: the daemon does not send them"}},
        {"text behind",
         good + "\n",
         {"offset 4: no 0x7E behind the last 1 byte: the daemon does not send them"}},
        {"id above 13",
         good + Framed(SetMask("0E", "0800", "01")) + good,
         {"offset 4: equipment id 14 is above 13: the daemon does not keep its mask"}},
        {"id beyond a byte",
         Framed("73000000 03000000 00010000 08000000 01"),
         {"offset 0: equipment id 256 is above 13: the daemon does not keep its mask"}},
        {"longest frame", Framed("60" + std::string(32760, '1')) + good, {}},
        {"one byte more", good + overlong + "~" + good, {"offset 4: " + stops}},
        {"no end at all",
         good + overlong + "x",
         {"offset 4: no 0x7E behind the last 16385 bytes: the daemon does not send them"}},
        {"set mask without bit count",
         Framed("73000000 03000000 01000000"),
         {"offset 0: set-log-mask request too short for a mask"}},
        {"bit count cut",
         Framed("73000000 03000000 01000000 100000"),
         {"offset 0: set-log-mask request too short for a mask"}},
        {"mask byte missing",
         good + Framed(SetMask("01", "0900", "01")),
         {"offset 4: 1 mask byte for 9 bits"}},
        {"mask byte too many",
         Framed(SetMask("01", "0800", "0100")),
         {"offset 0: 2 mask bytes for 8 bits"}},
        {"code beyond the bits",
         Framed(SetMask("01", "0700", "80")),
         {"offset 0: codes are enabled beyond the 7 bits"}},
        {"more bits than items",
         Framed("73000000 03000000 01000000 FFFFFFFF 01"),
         {"offset 0: a mask has at most 4096 bits, not 4294967295"}},
        {"two faults",
         Bytes("73000000 03000000 0E000000 08000000 01 00 00 7E"),
         {"offset 0: bad check sequence",
          "offset 0: equipment id 14 is above 13: the daemon does not keep its mask"}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(PrintMaskFile(c.file).findings, c.findings);
        EXPECT_EQ(ListMaskFile(c.file).findings, c.findings);
    }
}

TEST(MaskPrint, PointsOutEveryFlippedBit) {
    const std::string file = Compile("0x1000-0x1020\nmessages on\ntimestamp\n0xB7FF\nraw 7E 7D\n");
    for (size_t bit = 0; bit < 8 * file.size(); ++bit) {
        std::string damaged = file;
        damaged[bit / 8] ^= static_cast<char>(1 << bit % 8);
        EXPECT_FALSE(PrintMaskFile(damaged).findings.empty()) << "bit " << bit;
    }
}

TEST(MaskPrint, ListsEveryGoodFrameAndNoOther) {
    const std::string set1 = SetMask("01", "1000", "0080");
    const std::string set1Again = SetMask("01", "0800", "01");
    const std::string set4Empty = SetMask("04", "0800", "00");
    const std::string set14 = SetMask("0E", "0800", "01");
    const std::string kept = Framed(set1) + Framed(set1Again) + Framed(set4Empty) + Framed(set14) +
                             Framed("7D 05 00 00 FF FF FF FE");
    const std::string text = "0x100F\nraw " + set1Again + "\nraw " + set4Empty + "\nraw " + set14 +
                             "\nraw 7D 05 00 00 FF FF FF FE\n";
    EXPECT_EQ(ListMaskFile(kept).text, text);
    EXPECT_EQ(Compile(text), kept);

    const std::string damaged = Bytes("73000000 03000000 02000000 08000000 03 00 00 7E") + "~x";
    const std::string list = ListMaskFile(kept + damaged).text;
    EXPECT_NE(list, text);
    EXPECT_EQ(Compile(list), kept);
}

std::string RandomList(std::mt19937& random, std::set<uint32_t>* codes) {
    const auto below = [&random](uint32_t limit) {
        return static_cast<uint32_t>(random()) % limit;
    };
    constexpr const char* kOthers[] = {"events on", "messages on",  "timestamp",
                                       "raw 60 01", "raw 7E 7D 00", "raw 73000000 01000000"};
    std::string list;
    for (uint32_t lines = 1 + below(12); lines > 0; --lines) {
        char text[64];
        const uint32_t first = below(3) << 12 | below(4096);
        const uint32_t last = std::min(first | 0xFFF, first + below(40));
        if (below(3) == 0) {
            list += kOthers[below(std::size(kOthers))];
        } else if (below(2) == 0) {
            snprintf(text, sizeof text, "0x%04X", first);
            list += text;
            codes->insert(first);
        } else {
            snprintf(text, sizeof text, "0x%04x-0x%04x", first, last);
            list += text;
            for (uint32_t code = first; code <= last; ++code)
                codes->insert(code);
        }
        list += "\n";
    }
    for (uint32_t id = 0; id < 3; ++id) {
        const auto next = codes->lower_bound((id + 1) << 12);
        const uint32_t needed = next == codes->begin() ? 0 : *std::prev(next) % 4096 + 1;
        const uint32_t bits = needed + below(4097 - needed);
        if (bits > 0 && below(2) == 0) {
            list.insert(0, "width " + std::to_string(id) + " " + std::to_string(bits) + "\n");
        }
    }
    return list;
}

TEST(MaskFile, RandomListsComeBack) {
    std::mt19937 random(3);
    for (int round = 0; round < 300; ++round) {
        std::set<uint32_t> codes;
        const std::string list = RandomList(random, &codes);
        SCOPED_TRACE(list);
        const std::string file = Compile(list);
        const MaskFileText back = ListMaskFile(file);
        EXPECT_EQ(back.findings, Lines{});
        EXPECT_EQ(Compile(back.text), file);

        std::set<uint32_t> enabled;
        for (const std::string& hex : Packets(file)) {
            const std::string packet = Bytes(hex);
            if (packet.size() < 8 || packet[4] != 3) continue;
            for (size_t item = 0; item < 8 * (packet.size() - 16); ++item) {
                const bool isOn = (packet[16 + item / 8] & 1 << item % 8) != 0;
                if (isOn) enabled.insert(static_cast<uint32_t>(packet[8] << 12 | item));
            }
        }
        EXPECT_EQ(enabled, codes);
    }
}

TEST(MaskRanges, TakesWidthsFromTheAnswer) {
    const std::string counts = "00000000 FF0F0000" + std::string(88, '0') + "00100000 08000000";
    const struct {
        const char* name;
        std::string answer, lines;  // no lines: an error
    } cases[] = {
        {"ids 1, 13 and 14", "73000000 01000000 00000000" + counts + "00000000",
         "width 1 4095\nwidth 13 4096\n"},
        {"failed", "73000000 01000000 01000000" + counts + "00000000", ""},
        {"cut", "73000000 01000000 00000000" + std::string(110, '0'), ""},
        {"refused", "13 73000000 01000000", ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        if (c.lines.empty()) {
            EXPECT_THROW(WidthLines(Bytes(c.answer)), ToolError);
        } else {
            EXPECT_EQ(WidthLines(Bytes(c.answer)), c.lines);
        }
    }
}

class MaskCommand : public testing::Test {
  protected:
    MaskCommand() {
        std::string name = testing::TempDir() + "mask.XXXXXX";
        mDir = mkdtemp(name.data());
    }
    ~MaskCommand() override { std::filesystem::remove_all(mDir); }

    void Write(const char* name, const std::string& content) const {
        std::ofstream(mDir / name) << content;
    }
    std::string Read(const char* name) const {
        std::ifstream file(mDir / name);
        return {std::istreambuf_iterator<char>(file), {}};
    }
    size_t FileCount() const {
        return static_cast<size_t>(std::distance(std::filesystem::directory_iterator(mDir), {}));
    }

    // Runs "mask" with the arguments, of which the file names get the directory.
    int Run(Lines arguments) const {
        for (std::string& argument : arguments) {
            if (argument.find('.') != std::string::npos) argument = mDir / argument;
        }
        arguments.emplace_back("mask");
        std::rotate(arguments.begin(), arguments.end() - 1, arguments.end());
        std::reverse(arguments.begin(), arguments.end());
        CLI::App app;
        const Subcommand mask = AddMaskCommand(app);
        app.parse(arguments);
        return mask.run();
    }

    std::filesystem::path mDir;
};

TEST_F(MaskCommand, WritesAllOrNothing) {
    Write("a.list", "0x1000\n");
    Write("b.list", "0x1000\nwhat\n");
    EXPECT_EQ(Run({"compile", "a.list", "-o", "out.cfg"}), 0);
    EXPECT_EQ(Read("out.cfg"), Compile("0x1000"));
    EXPECT_EQ(Run({"print", "out.cfg"}), 0);

    Write("out.cfg", "old");
    EXPECT_THROW(Run({"compile", "b.list", "-o", "out.cfg"}), ToolError);
    EXPECT_THROW(Run({"compile", "none.list", "-o", "out.cfg"}), ToolError);
    EXPECT_EQ(Read("out.cfg"), "old");
    EXPECT_EQ(Run({"print", "out.cfg"}), 1);
    EXPECT_EQ(Run({"compile", "a.list", "-o", "out.cfg"}), 0);
    EXPECT_EQ(Read("out.cfg"), Compile("0x1000"));

    std::filesystem::create_directory(mDir / "dir.cfg");
    std::filesystem::create_symlink("a.list", mDir / "link.cfg");
    for (const char* output : {"dir.cfg", "link.cfg", "none.dir/out.cfg"})
        EXPECT_THROW(Run({"compile", "a.list", "-o", output}), ToolError) << output;
    EXPECT_EQ(FileCount(), 5U);  // nothing half-made stays
}

}  // namespace
