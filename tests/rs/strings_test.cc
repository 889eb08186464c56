// Paths, environment expansion and UTF-8/UTF-16 conversion.
#include <gtest/gtest.h>

#include "rs_test_support.h"

namespace {

using rs_test::ScopedEnv;

TEST(RsConstructPathTest, JoinsUpToTheNullArgumentWithinTheSize) {
    char buffer[8];
    EXPECT_EQ(LumConstructPath(buffer, sizeof buffer, "/data", "\\", nullptr), 0);
    EXPECT_STREQ(buffer, "/data\\");
    EXPECT_EQ(LumConstructPath(buffer, sizeof buffer, "/dat", "a/", "x", nullptr), 0);
    EXPECT_STREQ(buffer, "/data/x"); // seven bytes and the NUL: an exact fit
    EXPECT_EQ(LumConstructPath(buffer, sizeof buffer, "/data/", "xy", nullptr), ENAMETOOLONG);
    EXPECT_STREQ(buffer, "");
}

// Expands `text`: the result, or "<rc>" for a failure (after which the
// output must be null).
std::string expand(const char *text) {
    char *expanded = reinterpret_cast<char *>(1);
    const int32_t rc = LumEnvExpandString(text, &expanded);
    if (rc != 0)
        return "<" + std::to_string(rc) + (expanded ? ", not null>" : ">");
    std::string result(expanded);
    lum_free(expanded);
    return result;
}

TEST(RsEnvExpandTest, ExpandsBothReferenceForms) {
    ScopedEnv home("LUMT_HOME", "/srv/lum");
    ScopedEnv unset("LUMT_UNSET", std::nullopt);
    EXPECT_EQ(expand("$LUMT_HOME/data"), "/srv/lum/data");
    EXPECT_EQ(expand("${LUMT_HOME}x"), "/srv/lumx");
    EXPECT_EQ(expand("[$LUMT_UNSET][${LUMT_UNSET}]"), "[][]");
    EXPECT_EQ(expand("cost $$5, $ 1, $1, end$"), "cost $5, $ 1, $1, end$");
    EXPECT_EQ(expand(""), "");
}

TEST(RsEnvExpandTest, MalformedBracesAreRejected) {
    const std::string einval = "<" + std::to_string(EINVAL) + ">";
    EXPECT_EQ(expand("${LUMT_HOME"), einval);
    EXPECT_EQ(expand("a${}"), einval);
    EXPECT_EQ(expand("${A-B}"), einval);
}

TEST(RsWideStringTest, RoundTripsIncludingASurrogatePair) {
    const char *text = "a\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80"; // a, e-acute, euro, U+1F600
    uint16_t *wide = nullptr;
    ASSERT_EQ(LumWStringStrToWStr(text, &wide), 0);
    EXPECT_EQ(std::u16string(reinterpret_cast<char16_t *>(wide)),
              (std::u16string{0x61, 0xE9, 0x20AC, 0xD83D, 0xDE00}));
    char *back = nullptr;
    ASSERT_EQ(LumWStringWStrToStr(wide, &back), 0);
    EXPECT_STREQ(back, text);
    lum_free(wide);
    lum_free(back);
}

TEST(RsWideStringTest, InvalidUtf8IsRejected) {
    const char *const kInvalid[] = {
        "\xC0\xAF",         // overlong '/'
        "\xE0\x80\xAF",     // overlong '/', three bytes
        "\xED\xA0\x80",     // a surrogate encoded in UTF-8
        "\xF4\x90\x80\x80", // above U+10FFFF
        "ok\xE2\x82",       // truncated at the end
        "\xE2\x82z",        // truncated before another character
        "\x80",             // a continuation byte alone
        "\xF8\x88\x80\x80\x80",
    };
    for (const char *text : kInvalid) {
        uint16_t *wide = reinterpret_cast<uint16_t *>(1);
        EXPECT_EQ(LumWStringStrToWStr(text, &wide), EILSEQ) << testing::PrintToString(text);
        EXPECT_EQ(wide, nullptr);
    }
}

TEST(RsWideStringTest, UnpairedSurrogatesAreRejected) {
    const std::u16string kInvalid[] = {{0xD800, u'a'}, {u'a', 0xD800}, {0xDC00}, {0xDE00, 0xD83D}};
    for (const std::u16string &wide : kInvalid) {
        char *text = reinterpret_cast<char *>(1);
        EXPECT_EQ(LumWStringWStrToStr(reinterpret_cast<const uint16_t *>(wide.c_str()), &text),
                  EILSEQ);
        EXPECT_EQ(text, nullptr);
    }
}

} // namespace
