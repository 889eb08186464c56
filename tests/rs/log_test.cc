// The log, the message catalogue, result-code texts and debug facilities.
#include <fstream>
#include <gtest/gtest.h>
#include <string>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "rs_test_support.h"

namespace {

using namespace rs_test;

TEST(RsLogTest, DebugRecordsNeedTheSwitchOtherSeveritiesAreAlwaysWritten) {
    LogCapture capture;
    EXPECT_EQ(LumLog(LUM_LOG_DEBUG, 0, nullptr, 2, 1, "hidden %d", 1), 0);
    EXPECT_EQ(LumLog(LUM_LOG_DEBUG, 1, nullptr, 2, 2, "trace %d", 2), 0);
    for (int32_t severity = 2; severity <= 5; ++severity)
        EXPECT_EQ(LumLog(severity, 0, nullptr, 3, 7, "at %d", severity), 0);
    EXPECT_EQ(capture.records,
              (std::vector<std::string>{"1 2/2 trace 2", "2 3/7 at 2", "3 3/7 at 3", "4 3/7 at 4",
                                        "5 3/7 at 5"}));
}

// The catalogue text replaces the caller's format only when it takes the
// same arguments; anything else would read arguments that were not passed.
// Without a sink, records go to the file named by LUM_LOG_FILE, which a
// process opens once: the writing happens in a child.
TEST(RsLogTest, RecordsWithoutASinkGoWholeLinesToTheLogFile) {
    std::string path = testing::TempDir() + "lum_rs_log_" + std::to_string(getpid());
    pid_t child = fork();
    if (child == 0) {
        setenv("LUM_LOG_FILE", path.c_str(), 1);
        std::thread other([] { LumLog(4, 1, nullptr, 2, 1, "from %s", "a thread"); });
        LumLog(2, 0, nullptr, 2, 2, "progress %d", 42);
        other.join();
        _exit(0);
    }
    int status = 0;
    waitpid(child, &status, 0);
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    std::ifstream file(path);
    std::string line, all;
    int lines = 0;
    while (std::getline(file, line)) {
        ++lines;
        all += line + "\n";
    }
    EXPECT_EQ(lines, 2) << all;
    EXPECT_NE(all.find("progress 42"), std::string::npos) << all;
    EXPECT_NE(all.find("from a thread"), std::string::npos) << all;
    unlink(path.c_str());
}

TEST(RsCatalogTest, FileTextsReplaceDefaultsAndAMissingFileGivesTheDefaults) {
    TempDir dir;
    LumCatalog *catalog = open_catalog(dir, "demo",
                                       "# messages of the demo\n"
                                       "2 14 Replaced %s %d\n"
                                       "2 14 Region %s has %d pages\r\n"
                                       "2 15 Wrong arguments %d\n"
                                       "not a message\n");
    ASSERT_NE(catalog, nullptr);
    LogCapture capture;
    LumLog(LUM_LOG_FAILURE, 1, catalog, 2, 14, "default %s %d", "r1", 3);
    LumLog(LUM_LOG_FAILURE, 1, catalog, 2, 15, "default %s", "kept");
    LumLog(LUM_LOG_FAILURE, 1, catalog, 2, 99, "not in the file");
    EXPECT_EQ(capture.records,
              (std::vector<std::string>{"4 2/14 Region r1 has 3 pages", "4 2/15 default kept",
                                        "4 2/99 not in the file"}));

    // No file in the directory, and no directory at all.
    const std::optional<std::string> paths[] = {dir.path(), std::nullopt};
    for (const auto &path : paths) {
        ScopedEnv catalog_path("LUM_CATALOG_PATH", path);
        LumCatalog *empty = nullptr;
        ASSERT_EQ(LumI18nCatalogOpen(nullptr, "absent", &empty), 0);
        ASSERT_NE(empty, nullptr);
        char text[32];
        EXPECT_EQ(LumI18nMessageGet(empty, 2, 14, "default", text, sizeof text), 0);
        EXPECT_STREQ(text, "default");
    }
}

TEST(RsResultCodeTest, RegisteredCodesGiveTheirTextsOthersAStableUnknownText) {
    TempDir dir;
    LumCatalog *catalog = open_catalog(dir, "codes", "9 2 Translated second\n");
    static const LumRCEntry kTable[] = {
        {-7401, 9, 1, "First failure"}, {-7402, 9, 2, "Second failure"}, {-7403, 9, 3, nullptr}};
    ASSERT_EQ(LumRCRegister(catalog, 3, kTable), 0);
    EXPECT_STREQ(LumRCToString(-7401), "First failure");
    EXPECT_STREQ(LumRCToString(-7402), "Translated second");
    EXPECT_STREQ(LumRCToString(-7403), "Unknown error -7403");

    const char *unknown = LumRCToString(-492);
    EXPECT_STREQ(unknown, "Unknown error -492");
    for (int32_t code = 100000; code < 101000; ++code)
        LumRCToString(code); // the interned texts grow
    EXPECT_STREQ(unknown, "Unknown error -492");
    EXPECT_EQ(LumRCToString(-492), unknown);
}

TEST(RsDebugFacilityTest, LumDebugSwitchesOnAtRegistrationAndSetSwitchesAtRunTime) {
    static int32_t listed = 0, unlisted = 0, twin = 0;
    ScopedEnv debug("LUM_DEBUG", "other, dbg_listed ,more");
    EXPECT_EQ(LumDebugFacilityRegister("dbg_listed", &listed), 0);
    EXPECT_EQ(LumDebugFacilityRegister("dbg_unlisted", &unlisted), 0);
    EXPECT_EQ(LumDebugFacilityRegister("dbg_unlisted", &twin), 0);
    EXPECT_EQ(listed, 1);
    EXPECT_EQ(unlisted, 0);

    // Owners read their word without a lock while it may be switched.
    std::thread reader([] {
        for (int i = 0; i < 1000; ++i)
            (void)__atomic_load_n(&twin, __ATOMIC_RELAXED);
    });
    EXPECT_EQ(LumDebugFacilitySet("dbg_unlisted", 7), 0);
    reader.join();
    EXPECT_EQ(unlisted, 1);
    EXPECT_EQ(twin, 1);
    EXPECT_EQ(LumDebugFacilitySet("dbg_unlisted", 0), 0); // and off again
    EXPECT_EQ(unlisted + twin, 0);
    EXPECT_EQ(LumDebugFacilitySet("dbg_nobody", 1), ENOENT);
}

} // namespace
