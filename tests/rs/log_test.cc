// The log, the message catalogue, result-code texts, debug facilities and
// per-thread exceptions.
#include <algorithm>
#include <fstream>
#include <gtest/gtest.h>
#include <sstream>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "rs_test_support.h"

namespace {

using namespace rs_test;

// Severity 1 needs its switch. A catalogue text replaces the format only
// when it takes the same arguments (others would read arguments never
// passed); a later line wins. Without the file or directory, defaults stand.
TEST(RsLogTest, RecordsFollowTheSwitchAndTakeCatalogueTextsOfTheSameArguments) {
    TempDir dir;
    LumCatalog *catalog = open_catalog(dir, "demo",
                                       "# messages of the demo\n2 14 Replaced %s %d\n"
                                       "2 14 Region %s has %d pages\r\n"
                                       "2 15 Wrong arguments %d\nnot a message\n");
    ASSERT_NE(catalog, nullptr);
    LogCapture capture;
    LumLog(LUM_LOG_DEBUG, 0, catalog, 2, 14, "hidden %s %d", "r0", 0);
    LumLog(LUM_LOG_DEBUG, 1, nullptr, 2, 2, "trace %d", 2);
    for (int32_t severity = 2; severity <= 5; ++severity)
        LumLog(severity, 0, nullptr, 3, 7, "at %d", severity);
    LumLog(LUM_LOG_FAILURE, 1, catalog, 2, 14, "default %s %d", "r1", 3);
    LumLog(LUM_LOG_FAILURE, 1, catalog, 2, 15, "default %s", "kept");
    EXPECT_EQ(capture.Lines(),
              (std::vector<std::string>{"1 2/2 trace 2", "2 3/7 at 2", "3 3/7 at 3", "4 3/7 at 4",
                                        "5 3/7 at 5", "4 2/14 Region r1 has 3 pages",
                                        "4 2/15 default kept"}));
    for (const auto &path :
         {std::optional<std::string>(dir.path()), std::optional<std::string>()}) {
        ScopedEnv catalog_path("LUM_CATALOG_PATH", path);
        LumCatalog *empty = nullptr;
        ASSERT_EQ(LumI18nCatalogOpen(nullptr, "absent", &empty), 0);
        char text[32];
        EXPECT_EQ(LumI18nMessageGet(empty, 2, 14, "default", text, sizeof text), 0);
        EXPECT_STREQ(text, "default");
    }
}

// LUM_LOG_FILE is read once per process: a child writes, from two threads.
TEST(RsLogTest, RecordsWithoutASinkGoWholeLinesToTheLogFile) {
    TempDir dir;
    std::string path = dir.path() + "log";
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
    std::ostringstream file;
    file << std::ifstream(path).rdbuf();
    std::string all = file.str();
    EXPECT_EQ(std::ranges::count(all, '\n'), 2) << all;
    EXPECT_NE(all.find("progress 42"), std::string::npos) << all;
    EXPECT_NE(all.find("from a thread"), std::string::npos) << all;
}

// The text of an unknown code stays where it is while more are made.
TEST(RsResultCodeTest, RegisteredCodesGiveTheirTextsOthersAStableUnknownText) {
    TempDir dir;
    static const LumRCEntry kTable[] = {
        {-7401, 9, 1, "First failure"}, {-7402, 9, 2, "Second failure"}, {-7403, 9, 3, nullptr}};
    ASSERT_EQ(LumRCRegister(open_catalog(dir, "codes", "9 2 Translated second\n"), 3, kTable), 0);
    EXPECT_STREQ(LumRCToString(-7401), "First failure");
    EXPECT_STREQ(LumRCToString(-7402), "Translated second");
    const char *unknown = LumRCToString(-7403);
    for (int32_t code = 100000; code < 101000; ++code)
        LumRCToString(code);
    EXPECT_EQ(LumRCToString(-7403), unknown);
    EXPECT_STREQ(unknown, "Unknown error -7403");
}

// A set switches every facility of the name while its owner may be reading.
TEST(RsDebugFacilityTest, LumDebugSwitchesOnAtRegistrationAndSetSwitchesAtRunTime) {
    static int32_t listed = 0, unlisted = 0, twin = 0;
    ScopedEnv debug("LUM_DEBUG", "other, dbg_listed ,more");
    EXPECT_EQ(LumDebugFacilityRegister("dbg_listed", &listed), 0);
    EXPECT_EQ(LumDebugFacilityRegister("dbg_unlisted", &unlisted), 0);
    EXPECT_EQ(LumDebugFacilityRegister("dbg_unlisted", &twin), 0);
    EXPECT_EQ(std::pair(listed, unlisted), std::pair(1, 0));
    std::thread reader([] {
        for (int i = 0; i < 1000; ++i)
            (void)__atomic_load_n(&twin, __ATOMIC_RELAXED);
    });
    EXPECT_EQ(LumDebugFacilitySet("dbg_unlisted", 7), 0);
    reader.join();
    EXPECT_EQ(unlisted + twin, 2);
    EXPECT_EQ(LumDebugFacilitySet("dbg_nobody", 1), ENOENT);
}

// A raise is logged, handed to the handler, and pending in its own thread
// alone until cleared.
TEST(RsExceptionTest, RaiseRecordsLogsAndCallsTheHandlerUntilCleared) {
    std::vector<std::string> seen;
    LumThreadExceptionSetHandler(
        [](void *context, const LumException *exception) {
            static_cast<std::vector<std::string> *>(context)->push_back(exception->message);
        },
        &seen);
    rs_test::LogCapture capture;
    LumValue value{LUM_VALUE_STRING, 0, {.string = {"Invalid chunk, and more", 13}}};
    const uint32_t self = LumThreadGetID();
    EXPECT_EQ(LumThreadExceptionRaise(self, "RegionHash", nullptr, 0, 0, "Insert failed", &value,
                                      nullptr, 0, nullptr),
              0);
    LumThreadExceptionSetHandler(nullptr, nullptr);
    EXPECT_EQ(seen, std::vector<std::string>{"Insert failed"});
    EXPECT_EQ(capture.Lines(), std::vector<std::string>{
                                   "4 0/0 Exception RegionHash: Insert failed (Invalid chunk)"});
    LumException pending{};
    ASSERT_EQ(LumThreadExceptionGet(&pending), 0);
    EXPECT_EQ(pending.thread_id, self);
    std::thread([] { EXPECT_EQ(lumtest::TakeException(), ""); }).join();
    EXPECT_EQ(lumtest::TakeException(), "RegionHash|Insert failed|Invalid chunk");
    EXPECT_EQ(lumtest::TakeException(), "") << "cleared";
}

} // namespace
