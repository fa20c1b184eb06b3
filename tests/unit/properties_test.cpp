#include <cutils/properties.h>
#include <gtest/gtest.h>

#include <cstring>

#include "tests/unit/support/property_dir.h"

namespace {

// What property_get left in a buffer of the full size; fails when it wrote behind it.
std::string Get(const char* key, const char* defaultValue) {
    char buffer[PROPERTY_VALUE_MAX + 8];
    memset(buffer, '#', sizeof(buffer));
    const int len = property_get(key, buffer, defaultValue);
    EXPECT_EQ(std::string(buffer + PROPERTY_VALUE_MAX, 8), "########");
    EXPECT_EQ(static_cast<size_t>(len), strnlen(buffer, PROPERTY_VALUE_MAX));
    return buffer;
}

TEST(PropertyGet, ValueIsTheFileCutTo91Bytes) {
    const PropertyDir properties;
    const std::string x90(90, 'x'), x91(91, 'x');
    const struct {
        const char* name;
        std::string content, expected;
    } kRows[] = {
        {"one trailing newline goes", "true\n", "true"},
        {"only one, and no blanks", " true \n\n", " true \n"},
        {"empty is a value", "", ""},
        {"longest with its newline", x91 + "\n", x91},
        {"91 bytes, the last a trailing newline", x90 + "\n", x90},
        {"91st byte a newline, not trailing", x90 + "\nz", x90 + "\n"},
        {"too long", x91 + "z", x91},
    };
    for (const auto& row : kRows) {
        std::ofstream(properties / "a.key") << row.content;
        EXPECT_EQ(Get("a.key", "unset"), row.expected) << row.name;
    }
    for (const char* key : {"a", "", "..", "./a.key", "/etc/hostname"})
        EXPECT_EQ(Get(key, "unset"), "unset") << key;
    EXPECT_EQ(Get("a", (x91 + "z").c_str()), x91);
    EXPECT_EQ(Get("a", nullptr), "");
}

}  // namespace
