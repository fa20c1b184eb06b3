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
        std::string script, text;
        std::string levels;  // under the daemon's tag, then under the library's
    } kRows[] = {
        {"$child 100%s 1 && $child 100%s 1", "100%s", all + all},
        {"export QUILLOD_LOG_FILE=f; $child x 1 && $child x 1 2>&- && cat f >&2", "x", all + all},
        {"$child '\na\n\n' 1", " a", all},
        {"$child " + x5000 + " 1", x5000, all},
        {"($child " + x5000 + " 9; echo $? >r) 2>&1 | (until test -s r; do :; done); grep -q 2 r",
         "", ""},  // a full pipe is given up
        {": >log.tag.quillod; echo s >log.tag.libquillod; echo E >log.tag; $child x 1", "x",
         "EFEF"},
    };
    for (const auto& row : kRows) {
        SCOPED_TRACE(row.script.substr(0, 80));
        const TempDir dir;
        dir.HoldProperties();
        const std::string prepare = "cd " + dir.Path() + " && child='" LOG_CHILD "' && ";
        EXPECT_EQ(0, system((prepare + "(" + row.script + ") 2>out").c_str()));
        std::string levels;
        std::ifstream out(dir / "out");
        for (std::string line; std::getline(out, line); levels += line[31]) {
            EXPECT_TRUE(Matches(line, "^[0-9-]{5} [0-9:.]{12} +[0-9]+ +[0-9]+ [A-Z] [a-z]+: "));
            const size_t header = line.find(": ", 19) + 2;
            EXPECT_EQ(line, line.substr(0, header) + row.text.substr(0, 4095 - header));
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
