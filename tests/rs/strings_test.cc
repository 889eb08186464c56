// Paths, environment expansion and UTF-8/UTF-16 conversion, and their
// allocation failures.
#include <gtest/gtest.h>

#include "rs_test_support.h"

namespace {

using rs_test::ScopedEnv;

TEST(RsConstructPathTest, JoinsUpToTheNullArgumentWithinTheSize) {
    char buffer[8];
    EXPECT_EQ(LumConstructPath(buffer, sizeof buffer, "/dat", "a/", "x", nullptr), 0);
    EXPECT_STREQ(buffer, "/data/x"); // seven bytes and the NUL: an exact fit
    EXPECT_EQ(LumConstructPath(buffer, sizeof buffer, "/data/", "xy", nullptr), ENAMETOOLONG);
    EXPECT_STREQ(buffer, "");
}

TEST(RsEnvExpandTest, ExpandsBothFormsAndRejectsAnUnclosedBrace) {
    ScopedEnv home("LUMT_HOME", "/srv/lum");
    ScopedEnv unset("LUMT_UNSET", std::nullopt);
    static const std::pair<const char *, const char *> kCases[] = {
        {"$LUMT_HOME/data", "/srv/lum/data"},
        {"${LUMT_HOME}x", "/srv/lumx"},
        {"[$LUMT_UNSET][${LUMT_UNSET}]", "[][]"},
        {"cost $$5, $ 1, $1, end$", "cost $5, $ 1, $1, end$"},
        {"${LUMT_HOME", nullptr}, // EINVAL, and no string
        {"a${}", nullptr},
        {"${A-B}", nullptr},
    };
    for (const auto &[text, expected] : kCases) {
        char *expanded = nullptr;
        EXPECT_EQ(LumEnvExpandString(text, &expanded), expected ? 0 : EINVAL) << text;
        EXPECT_STREQ(expanded, expected) << text;
        lum_free(expanded);
    }
}

// Each class of invalid input is refused with no string.
TEST(RsWideStringTest, ConvertsValidTextBothWaysAndRefusesEachClassOfInvalidInput) {
    const std::pair<const char *, std::u16string> utf8[] = {
        {"a\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80", {0x61, 0xE9, 0x20AC, 0xD83D, 0xDE00}},
        {"\xC0\xAF", {}},         // overlong '/'
        {"\xED\xA0\x80", {}},     // a surrogate encoded in UTF-8
        {"\xF4\x90\x80\x80", {}}, // above U+10FFFF
        {"ok\xE2\x82", {}},       // truncated by the end of the text
        {"\x80", {}},             // a continuation byte alone
        {"\xF8\x88\x80\x80", {}}, // no lead byte of any length
    };
    for (const auto &[text, expected] : utf8) {
        SCOPED_TRACE(testing::PrintToString(text));
        uint16_t *wide = reinterpret_cast<uint16_t *>(1);
        ASSERT_EQ(LumWStringStrToWStr(text, &wide), expected.empty() ? EILSEQ : 0);
        if (expected.empty()) {
            EXPECT_EQ(wide, nullptr);
            continue;
        }
        EXPECT_EQ(std::u16string(reinterpret_cast<char16_t *>(wide)), expected);
        char *back = nullptr;
        EXPECT_EQ(LumWStringWStrToStr(wide, &back), 0);
        EXPECT_STREQ(back, text);
        lum_free(wide);
        lum_free(back);
    }
    for (const std::u16string &wide :
         {std::u16string{u'a', 0xD800}, std::u16string{0xDC00, u'a'}}) {
        char *text = reinterpret_cast<char *>(1);
        EXPECT_EQ(LumWStringWStrToStr(reinterpret_cast<const uint16_t *>(wide.c_str()), &text),
                  EILSEQ);
        EXPECT_EQ(text, nullptr);
    }
}

// The first lum_malloc of `make` fails: ENOMEM and no string; the next works.
template <class T> void ExpectNoMemoryOnce(int32_t (*make)(T **)) {
    T *made = reinterpret_cast<T *>(1);
    lum_malloc_fail_at(1);
    EXPECT_EQ(make(&made), ENOMEM);
    EXPECT_EQ(made, nullptr);
    EXPECT_EQ(make(&made), 0);
    lum_free(made);
}

TEST(RsMemoryTest, StringOperationsReportNoMemoryOnce) {
    static const uint16_t kWideA[] = {'a', 0};
    ExpectNoMemoryOnce<char>([](char **text) { return LumEnvExpandString("a$b", text); });
    ExpectNoMemoryOnce<uint16_t>([](uint16_t **wide) { return LumWStringStrToWStr("abc", wide); });
    ExpectNoMemoryOnce<char>([](char **text) { return LumWStringWStrToStr(kWideA, text); });
}

} // namespace
