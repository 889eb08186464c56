// Properties: typed copies, values from text and from property files
// (options are tested with the library's own, in the start-up test).
#include <gtest/gtest.h>

#include "rs_test_support.h"

namespace {

// "<type> <value>" of a property.
std::string Shown(const LumPropMgr *properties, const char *name) {
    LumValue value{};
    EXPECT_EQ(LumPropMgrGetValue(properties, name, &value), 0);
    if (value.type == LUM_VALUE_BOOLEAN)
        return "4 " + std::to_string(value.value.boolean);
    return "7 " + std::string(value.value.string.text, value.value.string.length);
}

// A property file applies its good lines and reports the others.
TEST(RsPropertiesTest, ValuesAreTypedCopiesSetDirectlyFromTextOrFromAFile) {
    LumPropMgr *properties = nullptr;
    ASSERT_EQ(LumPropMgrCreate(&properties), 0);
    const LumValue on{LUM_VALUE_BOOLEAN, 0, {.boolean = 1}};
    char text[] = "fast, or not";
    const LumValue mode{LUM_VALUE_STRING, 0, {.string = {text, 4}}};
    ASSERT_EQ(LumPropMgrDefineWithFlags(properties, "Store.Verify", "Verify", &on, 0x30), 0);
    ASSERT_EQ(LumPropMgrDefineWithFlags(properties, "Store.Mode", nullptr, &mode, 0), 0);
    text[0] = 'l';
    EXPECT_EQ(Shown(properties, "Store.Verify") + ", " + Shown(properties, "Store.Mode"),
              "4 1, 7 fast");
    EXPECT_EQ(LumPropMgrSetValue(properties, "Store.Mode", &on), EINVAL);
    EXPECT_EQ(LumPropMgrSetGroup(properties, "Store.Missing", "Store"), ENOENT);
    // Alternating, so that each word changes the value.
    const std::pair<const char *, int32_t> words[] = {{"No", 0}, {"yes", 1}, {"OFF", 0},
                                                      {"On", 1}, {"0", 0},   {"TRUE", 1}};
    for (auto [word, meaning] : words) {
        ASSERT_EQ(LumPropMgrSetText(properties, "Store.Verify", word), 0) << word;
        EXPECT_EQ(Shown(properties, "Store.Verify"), "4 " + std::to_string(meaning)) << word;
    }
    EXPECT_EQ(LumPropMgrSetText(properties, "Store.Verify", "maybe"), EINVAL);

    rs_test::TempDir dir;
    const std::string path =
        dir.Write("store.properties", "  # settings\n  Store.Mode =  careful  # comment\n"
                                      "no equals sign\nStore.Unknown=1\n\nStore.Verify= off\n");
    rs_test::LogCapture capture;
    EXPECT_EQ(LumPropMgrLoadFile(properties, path.c_str()), EINVAL);
    EXPECT_EQ(Shown(properties, "Store.Mode") + ", " + Shown(properties, "Store.Verify"),
              "7 careful, 4 0");
    const std::string report = "4 0/0 Property file " + path + ", line ";
    EXPECT_EQ(capture.Lines(), (std::vector<std::string>{report + "3: not a valid setting",
                                                         report + "4: unknown property"}));
    EXPECT_EQ(LumPropMgrLoadFile(properties, (dir.path() + "absent").c_str()), ENOENT);
    LumPropMgrDestroy(properties);
}

} // namespace
