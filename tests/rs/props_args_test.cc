// Properties and the command-line options that set them.
#include <gtest/gtest.h>

#include "rs_test_support.h"

namespace {

using namespace rs_test;

// Store.Verify, a boolean of default 1, and Store.Mode, a string.
class RsPropertiesTest : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_EQ(LumPropMgrCreate(&properties_), 0);
        const LumValue on = boolean_value(1);
        ASSERT_EQ(LumPropMgrDefineWithFlags(properties_, "Store.Verify", "Verify", &on, 0x30), 0);
        char text[] = "fast";
        const LumValue mode = string_value(text);
        ASSERT_EQ(LumPropMgrDefineWithFlags(properties_, "Store.Mode", nullptr, &mode, 0), 0);
        text[0] = 'l'; // the manager keeps a copy
    }
    void TearDown() override { LumPropMgrDestroy(properties_); }

    LumValue value(const char *name) {
        LumValue current{};
        EXPECT_EQ(LumPropMgrGetValue(properties_, name, &current), 0);
        return current;
    }
    int32_t boolean(const char *name) { return value(name).value.boolean; }
    std::string text(const char *name) {
        const LumValue current = value(name);
        return std::string(current.value.string.text, current.value.string.length);
    }

    LumPropMgr *properties_ = nullptr;
};

TEST_F(RsPropertiesTest, DefineGetSetAndGroupKeepTypedCopies) {
    EXPECT_EQ(value("Store.Verify").type, LUM_VALUE_BOOLEAN);
    EXPECT_EQ(boolean("Store.Verify"), 1);
    EXPECT_EQ(value("Store.Mode").type, LUM_VALUE_STRING);
    EXPECT_EQ(text("Store.Mode"), "fast");
    const LumValue off = boolean_value(0);
    EXPECT_EQ(LumPropMgrDefineWithFlags(properties_, "Store.Verify", "", &off, 0), EEXIST);
    LumValue missing{};
    EXPECT_EQ(LumPropMgrGetValue(properties_, "Store.Missing", &missing), ENOENT);
    EXPECT_EQ(LumPropMgrSetGroup(properties_, "Store.Verify", "Store"), 0);
    EXPECT_EQ(LumPropMgrSetGroup(properties_, "Store.Missing", "Store"), ENOENT);

    EXPECT_EQ(LumPropMgrSetValue(properties_, "Store.Verify", &off), 0);
    EXPECT_EQ(boolean("Store.Verify"), 0);
    EXPECT_EQ(LumPropMgrSetValue(properties_, "Store.Mode", &off), EINVAL);
    LumValue part = string_value("slowest"); // `length` bytes, not up to a NUL
    part.value.string.length = 4;
    EXPECT_EQ(LumPropMgrSetValue(properties_, "Store.Mode", &part), 0);
    EXPECT_EQ(text("Store.Mode"), "slow");

    // Alternating, so that each word changes the value.
    static const std::pair<const char *, int32_t> kWords[] = {{"1", 1},  {"false", 0}, {"TRUE", 1},
                                                              {"No", 0}, {"yes", 1},   {"OFF", 0},
                                                              {"On", 1}, {"0", 0}};
    for (const auto &[word, meaning] : kWords) {
        ASSERT_EQ(LumPropMgrSetText(properties_, "Store.Verify", word), 0) << word;
        EXPECT_EQ(boolean("Store.Verify"), meaning) << word;
    }
    EXPECT_EQ(LumPropMgrSetText(properties_, "Store.Verify", "maybe"), EINVAL);
}

TEST_F(RsPropertiesTest, FileLoadingAppliesGoodLinesAndReportsTheBadOnes) {
    TempDir dir;
    const std::string path = dir.write("store.properties", "  # settings\n"
                                                           "  Store.Mode =  careful  # comment\n"
                                                           "no equals sign\n"
                                                           "Store.Unknown=1\n"
                                                           "\n"
                                                           "Store.Verify= off\n");
    LogCapture capture;
    EXPECT_EQ(LumPropMgrLoadFile(properties_, path.c_str()), EINVAL);
    EXPECT_EQ(text("Store.Mode"), "careful");
    EXPECT_EQ(boolean("Store.Verify"), 0);
    const auto &records = capture.records;
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(records[0].find("4 "), 0u) << records[0];
    EXPECT_NE(records[0].find(", line 3:"), std::string::npos) << records[0];
    EXPECT_NE(records[1].find(", line 4:"), std::string::npos) << records[1];
    EXPECT_EQ(LumPropMgrLoadFile(properties_, (dir.path() + "/absent").c_str()), ENOENT);
}

TEST_F(RsPropertiesTest, OptionAssignsItsValueAndIsRemovedFromArgv) {
    LumArgMgr *options = nullptr;
    ASSERT_EQ(LumArgMgrCreate(properties_, &options), 0);
    const LumValue off = boolean_value(0);
    ASSERT_EQ(LumArgMgrDefineWithFlags(options, "-regionnoverifyonrecovery", "Store.Verify",
                                       "Do not verify", LUM_OPTION_FLAG, &off, 0),
              0);
    char prog[] = "prog", other[] = "-v", option[] = "-regionnoverifyonrecovery", data[] = "data",
         prefix[] = "-regionnoverify";
    char *argv[] = {prog, other, option, data, prefix, nullptr};
    int argc = 5;
    EXPECT_EQ(LumArgMgrParse(options, &argc, argv), 0);
    EXPECT_EQ(argc, 4);
    EXPECT_EQ(std::vector<char *>(argv, argv + 5),
              (std::vector<char *>{prog, other, data, prefix, nullptr}));
    EXPECT_EQ(boolean("Store.Verify"), 0);
    LumArgMgrDestroy(options);
}

} // namespace
