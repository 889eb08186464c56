// Properties and command-line options: definitions, typed values, text and
// file settings, and argv after parsing.
#include <gtest/gtest.h>

#include "rs_test_support.h"

namespace {

LumValue boolean_value(int32_t value) {
    LumValue record{};
    record.type = LUM_VALUE_BOOLEAN;
    record.value.boolean = value;
    return record;
}

LumValue string_value(const char *text) {
    LumValue record{};
    record.type = LUM_VALUE_STRING;
    record.value.string.text = text;
    record.value.string.length = static_cast<uint32_t>(strlen(text));
    return record;
}

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

    int32_t boolean(const char *name) {
        LumValue value{};
        EXPECT_EQ(LumPropMgrGetValue(properties_, name, &value), 0);
        EXPECT_EQ(value.type, LUM_VALUE_BOOLEAN);
        return value.value.boolean;
    }
    std::string text(const char *name) {
        LumValue value{};
        EXPECT_EQ(LumPropMgrGetValue(properties_, name, &value), 0);
        EXPECT_EQ(value.type, LUM_VALUE_STRING);
        return std::string(value.value.string.text, value.value.string.length);
    }

    LumPropMgr *properties_ = nullptr;
};

TEST_F(RsPropertiesTest, DefinitionsKeepTypedCopiesOfTheirDefaults) {
    EXPECT_EQ(boolean("Store.Verify"), 1);
    EXPECT_EQ(text("Store.Mode"), "fast");
    const LumValue off = boolean_value(0);
    EXPECT_EQ(LumPropMgrDefineWithFlags(properties_, "Store.Verify", "", &off, 0), EEXIST);
    LumValue bad = off;
    bad.type = 5;
    EXPECT_EQ(LumPropMgrDefineWithFlags(properties_, "Store.Other", "", &bad, 0), EINVAL);
    LumValue value{};
    EXPECT_EQ(LumPropMgrGetValue(properties_, "Store.Missing", &value), ENOENT);
    EXPECT_EQ(LumPropMgrSetGroup(properties_, "Store.Verify", "Store"), 0);
    EXPECT_EQ(LumPropMgrSetGroup(properties_, "Store.Missing", "Store"), ENOENT);
}

TEST_F(RsPropertiesTest, ValuesMustMatchTheType) {
    const LumValue off = boolean_value(0);
    EXPECT_EQ(LumPropMgrSetValue(properties_, "Store.Verify", &off), 0);
    EXPECT_EQ(boolean("Store.Verify"), 0);
    EXPECT_EQ(LumPropMgrSetValue(properties_, "Store.Mode", &off), EINVAL);
    EXPECT_EQ(text("Store.Mode"), "fast");
    // A string value is `length` bytes, not up to a NUL.
    LumValue part = string_value("slowest");
    part.value.string.length = 4;
    EXPECT_EQ(LumPropMgrSetValue(properties_, "Store.Mode", &part), 0);
    EXPECT_EQ(text("Store.Mode"), "slow");
}

TEST_F(RsPropertiesTest, TextSetsBooleansFromTheirWords) {
    for (const char *word : {"0", "false", "No", "OFF"}) {
        ASSERT_EQ(LumPropMgrSetText(properties_, "Store.Verify", word), 0) << word;
        EXPECT_EQ(boolean("Store.Verify"), 0) << word;
    }
    for (const char *word : {"1", "TRUE", "yes", "On"}) {
        ASSERT_EQ(LumPropMgrSetText(properties_, "Store.Verify", word), 0) << word;
        EXPECT_EQ(boolean("Store.Verify"), 1) << word;
    }
    EXPECT_EQ(LumPropMgrSetText(properties_, "Store.Verify", "maybe"), EINVAL);
    EXPECT_EQ(LumPropMgrSetText(properties_, "Store.Verify", ""), EINVAL);
    EXPECT_EQ(LumPropMgrSetText(properties_, "Store.Missing", "1"), ENOENT);
    EXPECT_EQ(LumPropMgrSetText(properties_, "Store.Mode", "any text"), 0);
    EXPECT_EQ(text("Store.Mode"), "any text");
}

TEST_F(RsPropertiesTest, FileLoadingAppliesGoodLinesAndReportsTheFirstBadOne) {
    rs_test::TempDir dir;
    const std::string path = dir.write("store.properties", "# settings\n"
                                                           "  Store.Mode =  careful  # comment\n"
                                                           "no equals sign\n"
                                                           "Store.Unknown=1\n"
                                                           "\n"
                                                           "Store.Verify= off\n");
    rs_test::LogCapture capture;
    EXPECT_EQ(LumPropMgrLoadFile(properties_, path.c_str()), EINVAL);
    EXPECT_EQ(text("Store.Mode"), "careful");
    EXPECT_EQ(boolean("Store.Verify"), 0);
    const auto records = capture.records();
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(records[0].severity, LUM_LOG_FAILURE);
    EXPECT_NE(records[0].text.find("line 3"), std::string::npos) << records[0].text;
    EXPECT_NE(records[1].text.find("line 4"), std::string::npos) << records[1].text;

    EXPECT_EQ(LumPropMgrLoadFile(properties_, dir.file("absent").c_str()), ENOENT);
}

class RsOptionsTest : public RsPropertiesTest {
  protected:
    void SetUp() override {
        RsPropertiesTest::SetUp();
        ASSERT_EQ(LumArgMgrCreate(properties_, &options_), 0);
        const LumValue off = boolean_value(0);
        ASSERT_EQ(LumArgMgrDefineWithFlags(options_, "-regionnoverifyonrecovery", "Store.Verify",
                                           "Do not verify", LUM_OPTION_FLAG, &off, 0),
                  0);
    }
    void TearDown() override {
        LumArgMgrDestroy(options_);
        RsPropertiesTest::TearDown();
    }

    // Parses `arguments` and gives what stays in argv.
    std::vector<std::string> parse(std::vector<std::string> arguments, int32_t expected_rc = 0) {
        std::vector<char *> argv;
        for (std::string &argument : arguments)
            argv.push_back(argument.data());
        argv.push_back(nullptr);
        int argc = static_cast<int>(arguments.size());
        EXPECT_EQ(LumArgMgrParse(options_, &argc, argv.data()), expected_rc);
        EXPECT_EQ(argv[static_cast<size_t>(argc)], nullptr);
        return std::vector<std::string>(argv.begin(), argv.begin() + argc);
    }

    LumArgMgr *options_ = nullptr;
};

TEST_F(RsOptionsTest, GivenOptionAssignsItsValueAndLeavesTheRestInOrder) {
    const auto rest = parse({"prog", "-v", "-regionnoverifyonrecovery", "data", "-regionnoverify"});
    EXPECT_EQ(rest, (std::vector<std::string>{"prog", "-v", "data", "-regionnoverify"}));
    EXPECT_EQ(boolean("Store.Verify"), 0);
}

TEST_F(RsOptionsTest, ArgumentsWithoutOptionsChangeNothing) {
    EXPECT_EQ(parse({"prog", "data"}), (std::vector<std::string>{"prog", "data"}));
    EXPECT_EQ(boolean("Store.Verify"), 1);
}

TEST_F(RsOptionsTest, OptionOfAMissingPropertyStaysAndIsReported) {
    char mode[] = "quick";
    const LumValue quick = string_value(mode);
    ASSERT_EQ(
        LumArgMgrDefineWithFlags(options_, "-orphan", "Store.None", "", LUM_OPTION_FLAG, &quick, 0),
        0);
    ASSERT_EQ(
        LumArgMgrDefineWithFlags(options_, "-quick", "Store.Mode", "", LUM_OPTION_FLAG, &quick, 0),
        0);
    mode[0] = 'Q'; // the option keeps a copy
    const auto rest = parse({"prog", "-orphan", "-quick", "-regionnoverifyonrecovery"}, ENOENT);
    EXPECT_EQ(rest, (std::vector<std::string>{"prog", "-orphan"}));
    EXPECT_EQ(text("Store.Mode"), "quick");
    EXPECT_EQ(boolean("Store.Verify"), 0);
}

TEST_F(RsOptionsTest, DefinitionsAreChecked) {
    const LumValue on = boolean_value(1);
    EXPECT_EQ(LumArgMgrDefineWithFlags(options_, "-regionnoverifyonrecovery", "Store.Verify", "",
                                       LUM_OPTION_FLAG, &on, 0),
              EEXIST);
    EXPECT_EQ(LumArgMgrDefineWithFlags(options_, "-x", "Store.Verify", "", 2, &on, 0), EINVAL);
    EXPECT_EQ(LumArgMgrDefineWithFlags(options_, "-x", "Store.Verify", "", LUM_OPTION_FLAG, &on, 1),
              EINVAL);
}

} // namespace
