// Log-mask files: lists compiled, files printed, and back.
#include "tests/support/bytes.h"
#include "tools/common/tool_error.h"
#include "tools/mask/mask_list.h"
#include "tools/mask/mask_print.h"

namespace {

std::string Compile(const std::string& list) {
    return CompileMaskList(list, "l").file;
}

// Low byte of the id, low two of the bit count, mask.
std::string SetHex(const char* id, const char* bits, const std::string& mask) {
    return HexFrame("73000000 03000000" + std::string(id) + "000000" + bits + "0000" + mask);
}

TEST(MaskList, CompilesToExactBytes) {
    const auto compiled = CompileMaskList(
        "# one\r\n\r\n \t0x100F # two\r\nmessages \t on\n0x1000\nraw\t7e  7D#x\n0XDFFF\n"
        "events on\n0xB006-0xB011\n0x9\ntimestamp\n0x4009\nwidth 4 0xA\n # 0x1002\nwidth 5 8",
        "l");
    EXPECT_EQ(compiled.file, Hex("73 00 00 00 03 00 00 00 01 00 00 00 10 00 00 00 01 80 93 8A 7E") +
                                 HexFrame("7D 05 00 00 FF FF FF FF") + Hex("7D 5E 7D 5D F1 CD 7E") +
                                 SetHex("0D", "0010", std::string(1022, '0') + "80") +
                                 HexFrame("60 01") + SetHex("0B", "1800", "C0FF03") +
                                 SetHex("00", "1000", "0002") + HexFrame("1D") +
                                 SetHex("04", "0A00", "0002"));
    EXPECT_EQ(Compile(ListMaskFile(compiled.file).text), compiled.file) << "and back";
    EXPECT_EQ(compiled.warnings,
              Lines{"l:15: no log codes of equipment id 5: its width makes no request"});
}

TEST(MaskList, NamesTheLineOfAnError) {
    const std::string hex16380(32760, '1');
    const std::pair<std::string, std::string> cases[] = {
        {"\n0x1000\nfoo 1 # x\n",
         "l:3: unknown item (there are log codes, width, events on, messages on, timestamp, raw): "
         "foo 1"},
        {"0x10G0", "l:1: not a log code such as 0x117C or a range such as 0xB0C0-0xB0CF: 0x10G0"},
        {"width 1 8\n\nwidth 1 8", "l:3: equipment id 1 has a width from line 1 already: 1 8"},
        {"width 1 4097",
         "l:1: width takes an equipment id (0 to 13) and a number of bits (1 to 4096): 1 4097"},
        // With its check sequence B8 16 and 0x7E the first is as long as the daemon reads.
        {"raw 60" + hex16380 + "\nraw 6011" + hex16380,
         "l:2: raw: a frame of 16385 bytes; the daemon reads frames up to 16384"},
    };
    for (const auto& [list, message] : cases) {
        try {
            Compile(list);
            ADD_FAILURE() << "no error: " << message;
        } catch (const ToolError& error) {
            EXPECT_EQ(error.what(), message);
        }
    }
}

TEST(MaskPrint, PointsOutDamageAndListsTheRest) {
    const std::string good = HexFrame("1D");  // 4 bytes
    const std::pair<std::string, Lines> cases[] = {
        {Hex("60 00 00 7E") + good + Hex("60 7E"),
         {"offset 0: bad check sequence", "offset 8: bad check sequence"}},
        {Hex("73000000 03000000 0E000000 08000000 01 00 00 7E"),
         {"offset 0: bad check sequence",
          "offset 0: equipment id 14 is above 13: the daemon does not keep its mask"}},
    };
    for (const auto& [file, findings] : cases) {
        EXPECT_EQ(PrintMaskFile(file).findings, findings);
        EXPECT_EQ(ListMaskFile(file).findings, findings);
    }
    // What is good goes into a list all the same, codes or raw.
    const std::string kept = SetHex("01", "1000", "0080") + SetHex("01", "0800", "01") +
                             SetHex("04", "0800", "00") + SetHex("0E", "0800", "01");
    const std::string damaged = Hex("73000000 03000000 02000000 08000000 03 00 00 7E") + "~x";
    EXPECT_EQ(Compile(ListMaskFile(kept + damaged).text), kept);
}

}  // namespace
