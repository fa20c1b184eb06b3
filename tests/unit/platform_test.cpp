// The host's stand-ins for the platform's log and properties.
#include <android/log.h>
#include <cutils/properties.h>
#include <gtest/gtest.h>

#include <cstring>

#include "tests/support/bytes.h"
#include "tests/unit/support/temp_dir.h"

namespace {

TEST(Platform, LogHasOneLineForEachMessageAtItsLevel) {
    const std::string all = "VDIWEFVDIWEF";
    const std::string x5000(5000, 'x');
    const struct {
        const char* name;
        std::string script, text;
        std::string levels;  // under the daemon's tag, then under the library's
    } kRows[] = {
        {"standard error, twice", "$child 100%s 1 && $child 100%s 1", "100%s", all + all},
        {"file is appended to",
         "export QUILLOD_LOG_FILE=f; $child x 1 && $child x 1 2>&- && cat f >&2", "x", all + all},
        {"newlines become blanks, but not at the end", "$child '\na\n\n' 1", " a", all},
        {"cut to 4096 bytes", "$child " + x5000 + " 1", x5000, all},
        {"full pipe, given up",
         "($child " + x5000 +
             " 9; echo $? >r) 2>&1 | (until test -s r; do :; done);"
             "grep -q 2 r",
         "", ""},
        {"unset", ": >log.tag.quillod; echo s >log.tag.libquillod; echo E >log.tag; $child x 1",
         "x", "EFEF"},
    };
    for (const auto& row : kRows) {
        SCOPED_TRACE(row.name);
        const TempDir dir;
        dir.HoldProperties();
        const std::string prepare = "cd " + dir.Path() + " && child='" LOG_CHILD "' && ";
        EXPECT_EQ(0, system((prepare + "(" + row.script + ") 2>out").c_str()));
        std::string levels;
        std::ifstream out(dir / "out");
        for (std::string line; std::getline(out, line);) {
            EXPECT_TRUE(Matches(line, "^[0-9-]{5} [0-9:.]{12} +[0-9]+ +[0-9]+ [A-Z] [a-z]+: "));
            const size_t header = line.find(": ", 19) + 2;
            EXPECT_EQ(line, line.substr(0, header) + row.text.substr(0, 4095 - header));
            levels += line[31];
        }
        EXPECT_EQ(row.levels, levels);
    }
}

TEST(Platform, PropertyIsItsFileCutTo91Bytes) {
    const TempDir dir;
    dir.HoldProperties();
    const auto get = [](const char* key, const char* fallback) {
        std::string value(PROPERTY_VALUE_MAX + 8, '#');
        const int len = property_get(key, value.data(), fallback);
        EXPECT_EQ("########", value.substr(PROPERTY_VALUE_MAX));
        EXPECT_EQ(static_cast<size_t>(len), strlen(value.c_str()));
        return value.substr(0, static_cast<size_t>(len));
    };
    const std::string x91(91, 'x');
    const std::pair<std::string, std::string> kRows[] = {{"true\n", "true"},
                                                         {" true \n\n", " true \n"},
                                                         {"", ""},
                                                         {x91 + "\n", x91},
                                                         {x91 + "z", x91}};
    for (const auto& [content, value] : kRows) {
        dir.Store("a.key", content);
        EXPECT_EQ(value, get("a.key", "unset"));
    }
    for (const char* key : {"a", "", "..", "./a.key", "/etc/hostname"})
        EXPECT_EQ("unset", get(key, "unset")) << key;
    EXPECT_EQ(x91, get("a", (x91 + "z").c_str()));
    EXPECT_EQ("", get("a", nullptr));
}

}  // namespace
