// The log, the message catalogue and debug facilities: records as the sink
// and the default destinations receive them.
#include <gtest/gtest.h>
#include <regex>
#include <thread>

#include "rs_test_support.h"

namespace {

using rs_test::LogCapture;
using rs_test::ScopedEnv;
using rs_test::TempDir;

// "<UTC time with ms> <severity> <thread id> " at the start of a default line.
const char kLinePrefix[] = "[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3}Z ";

std::vector<std::string> lines_of(const std::string &path) {
    std::ifstream file(path);
    std::vector<std::string> lines;
    for (std::string line; std::getline(file, line);)
        lines.push_back(line);
    return lines;
}

TEST(RsLogTest, DebugRecordsNeedTheSwitchOtherSeveritiesAreAlwaysWritten) {
    LogCapture capture;
    EXPECT_EQ(LumLog(LUM_LOG_DEBUG, 0, nullptr, 2, 1, "hidden %d", 1), 0);
    EXPECT_EQ(LumLog(LUM_LOG_DEBUG, 1, nullptr, 2, 2, "trace %d", 2), 0);
    for (int32_t severity : {LUM_LOG_PROGRESS, 3, LUM_LOG_FAILURE, LUM_LOG_ERROR})
        EXPECT_EQ(LumLog(severity, 0, nullptr, 3, 7, "severity %d", severity), 0);

    const auto records = capture.records();
    ASSERT_EQ(records.size(), 5u);
    EXPECT_EQ(records[0].text, "trace 2");
    EXPECT_EQ(records[0].severity, LUM_LOG_DEBUG);
    EXPECT_EQ(records[4].text, "severity 5");
    EXPECT_EQ(records[4].set, 3u);
    EXPECT_EQ(records[4].id, 7u);
}

TEST(RsLogTest, LongMessagesAreTruncated) {
    LogCapture capture;
    const std::string big(10000, 'x');
    LumLog(LUM_LOG_FAILURE, 1, nullptr, 0, 0, "%s", big.c_str());
    ASSERT_EQ(capture.records().size(), 1u);
    EXPECT_EQ(capture.records()[0].text, big.substr(0, 4095));
}

TEST(RsLogTest, SinkMayReplaceItselfWhileReceivingARecord) {
    static int calls;
    calls = 0;
    LumLogSetSink(
        [](void *, int32_t, uint32_t, uint32_t, const char *) {
            ++calls;
            LumLogSetSink(nullptr, nullptr);
        },
        nullptr);
    LumLog(LUM_LOG_PROGRESS, 1, nullptr, 0, 0, "first");
    LogCapture capture;
    LumLog(LUM_LOG_PROGRESS, 1, nullptr, 0, 0, "second");
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(capture.records().size(), 1u);
}

// The default destination is chosen once per process, so each of these
// tests logs in a new process: a death-test child that re-runs the test from
// the start. The parent's temporary directory reaches the child through
// LUMT_LOG_DIR, so that the child writes where the parent reads.
class RsLogDestinationTest : public ::testing::Test {
  protected:
    void SetUp() override {
        GTEST_FLAG_SET(death_test_style, "threadsafe");
        if (const char *inherited = std::getenv("LUMT_LOG_DIR")) {
            directory_ = inherited;
            return;
        }
        dir_.emplace();
        directory_ = dir_->path();
        published_.emplace("LUMT_LOG_DIR", directory_);
    }

    std::string directory_;

  private:
    std::optional<TempDir> dir_;
    std::optional<ScopedEnv> published_;
};

TEST_F(RsLogDestinationTest, RecordIsOneStampedLineOnStderr) {
    const std::string pattern =
        std::string("^") + kLinePrefix + "FAILURE [0-9]+ disk full, code -19\n$";
    EXPECT_EXIT(
        {
            ScopedEnv no_file("LUM_LOG_FILE", std::nullopt);
            LumLog(LUM_LOG_FAILURE, 1, nullptr, 0, 0, "disk %s, code %d\n", "full", -19);
            std::exit(0);
        },
        ::testing::ExitedWithCode(0), pattern);
}

constexpr int kLogThreads = 4;
constexpr int kRecordsPerThread = 200;

// Logs from several threads at once into the file named by LUM_LOG_FILE.
void log_from_threads(const std::string &path) {
    ScopedEnv file("LUM_LOG_FILE", path);
    const std::string padding(1500, '.');
    std::vector<std::thread> threads;
    for (int t = 0; t < kLogThreads; ++t) {
        threads.emplace_back([&padding, t] {
            for (int r = 0; r < kRecordsPerThread; ++r)
                LumLog(LUM_LOG_ERROR, 1, nullptr, 0, 0, "t%d r%d %s", t, r, padding.c_str());
        });
    }
    for (auto &thread : threads)
        thread.join();
}

TEST_F(RsLogDestinationTest, ThreadsAppendWholeLinesToTheLogFile) {
    const std::string path = directory_ + "/run.log";
    EXPECT_EXIT(
        {
            log_from_threads(path);
            std::exit(0);
        },
        ::testing::ExitedWithCode(0), "");

    const std::regex line(std::string(kLinePrefix) + "ERROR [0-9]+ t[0-9] r[0-9]+ \\.{1500}");
    const auto lines = lines_of(path);
    ASSERT_EQ(lines.size(), size_t{kLogThreads * kRecordsPerThread});
    for (const std::string &text : lines)
        ASSERT_TRUE(std::regex_match(text, line)) << text.substr(0, 80);
}

class RsCatalogTest : public ::testing::Test {
  protected:
    TempDir dir_;
};

TEST_F(RsCatalogTest, FileTextsReplaceDefaultsWhenTheyTakeTheSameArguments) {
    LumCatalog *catalog = rs_test::open_catalog(dir_, "demo",
                                                "# messages of the demo\n"
                                                "\n"
                                                "2 14 Region %s has %d pages\n"
                                                "2 15 Wrong arguments %d\n"
                                                "not a message\n"
                                                "2 x 16 bad id\n"
                                                "2 17\n"
                                                "  3 1 first\n"
                                                "3 1 second\r\n");
    ASSERT_NE(catalog, nullptr);
    LogCapture capture;
    LumLog(LUM_LOG_FAILURE, 1, catalog, 2, 14, "default %s %d", "r1", 3);
    LumLog(LUM_LOG_FAILURE, 1, catalog, 2, 15, "default %s", "kept");
    LumLog(LUM_LOG_FAILURE, 1, catalog, 2, 99, "not in the file");
    const auto records = capture.records();
    ASSERT_EQ(records.size(), 3u);
    EXPECT_EQ(records[0].text, "Region r1 has 3 pages");
    EXPECT_EQ(records[1].text, "default kept");
    EXPECT_EQ(records[2].text, "not in the file");

    char text[32];
    EXPECT_EQ(LumI18nMessageGet(catalog, 3, 1, "fallback", text, sizeof text), 0);
    EXPECT_STREQ(text, "second");
    EXPECT_EQ(LumI18nMessageGet(catalog, 2, 17, "fallback", text, sizeof text), 0);
    EXPECT_STREQ(text, "fallback");
}

TEST_F(RsCatalogTest, MissingFileGivesAnEmptyCatalogue) {
    auto expect_empty_catalog = [] {
        LumCatalog *catalog = nullptr;
        ASSERT_EQ(LumI18nCatalogOpen(nullptr, "absent", &catalog), 0);
        ASSERT_NE(catalog, nullptr);
        char text[16];
        LumI18nMessageGet(catalog, 1, 1, "default", text, sizeof text);
        EXPECT_STREQ(text, "default");
    };
    {
        ScopedEnv path("LUM_CATALOG_PATH", dir_.path());
        expect_empty_catalog();
    }
    ScopedEnv no_path("LUM_CATALOG_PATH", std::nullopt);
    expect_empty_catalog();
}

TEST_F(RsCatalogTest, MessagesAreCutAtACharacterBoundary) {
    const char *const kText = "a\xC3\xB1o\xC3\xB1o"; // "añoño", 7 bytes
    char text[8];
    EXPECT_EQ(LumI18nMessageGet(nullptr, 4, 1, kText, text, 8), 0);
    EXPECT_STREQ(text, kText);
    // Five bytes would end inside the second "ñ".
    EXPECT_EQ(LumI18nMessageGet(nullptr, 4, 1, kText, text, 6), 0);
    EXPECT_STREQ(text, "a\xC3\xB1o");
}

TEST_F(RsCatalogTest, LocaleReservedWordsMustBeZero) {
    LumLocale *locale = nullptr;
    EXPECT_EQ(LumI18nLocaleCreate(0, 0, 1, 0, &locale), EINVAL);
    EXPECT_EQ(locale, nullptr);
}

TEST(RsDebugFacilityTest, LumDebugListSwitchesFacilitiesOnAtRegistration) {
    static int32_t listed = 0, unlisted = 0;
    ScopedEnv debug("LUM_DEBUG", "other, dbg_listed ,more");
    EXPECT_EQ(LumDebugFacilityRegister("dbg_listed", &listed), 0);
    EXPECT_EQ(LumDebugFacilityRegister("dbg_unlisted", &unlisted), 0);
    EXPECT_EQ(listed, 1);
    EXPECT_EQ(unlisted, 0);
}

TEST(RsDebugFacilityTest, SetSwitchesEveryFacilityOfTheNameWhileOthersRead) {
    static int32_t first = 0, second = 0;
    ScopedEnv debug("LUM_DEBUG", std::nullopt);
    LumDebugFacilityRegister("dbg_shared", &first);
    LumDebugFacilityRegister("dbg_shared", &second);
    std::thread reader([] {
        while (__atomic_load_n(&second, __ATOMIC_RELAXED) == 0) {
        }
    });
    EXPECT_EQ(LumDebugFacilitySet("dbg_shared", 7), 0);
    reader.join();
    EXPECT_EQ(first, 1);
    EXPECT_EQ(LumDebugFacilitySet("dbg_shared", 0), 0);
    EXPECT_EQ(second, 0);
    EXPECT_EQ(LumDebugFacilitySet("dbg_nobody", 1), ENOENT);
}

TEST(RsVersionInfoTest, LookupFindsTheStringByLibraryName) {
    EXPECT_EQ(LumVersionInfoRegister("libdemo: 0.1.0"), 0);
    EXPECT_STREQ(LumVersionInfoLookup("libdemo"), "libdemo: 0.1.0");
    EXPECT_EQ(LumVersionInfoLookup("libdem"), nullptr);
    EXPECT_EQ(LumVersionInfoUnregister("libdemo: 0.1.0"), 0);
    EXPECT_EQ(LumVersionInfoLookup("libdemo"), nullptr);
    EXPECT_EQ(LumVersionInfoUnregister("libdemo: 0.1.0"), ENOENT);
}

} // namespace
