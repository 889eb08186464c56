// lum_malloc and its failure countdown, the failure paths of every operation
// that hands out a record, the block helpers, and result-code texts.
#include <atomic>
#include <functional>
#include <gtest/gtest.h>
#include <thread>

#include "rs_test_support.h"

namespace {

using rs_test::MallocFailure;

TEST(RsMallocFailureTest, TheNthCallFailsOnce) {
    MallocFailure failure(3);
    void *first = lum_malloc(8);
    void *second = lum_malloc(8);
    void *third = lum_malloc(8);
    void *fourth = lum_malloc(8);
    EXPECT_NE(first, nullptr);
    EXPECT_NE(second, nullptr);
    EXPECT_EQ(third, nullptr);
    EXPECT_NE(fourth, nullptr);
    lum_malloc_fail_at(1);
    lum_malloc_fail_at(0); // cancels
    void *fifth = lum_malloc(0);
    EXPECT_NE(fifth, nullptr);
    for (void *block : {first, second, fourth, fifth})
        lum_free(block);
}

TEST(RsMallocFailureTest, ExactlyOneOfManyConcurrentCallsFails) {
    MallocFailure failure(500);
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < 250; ++i) {
                void *block = lum_malloc(16);
                failures += block == nullptr;
                lum_free(block);
            }
        });
    }
    for (auto &thread : threads)
        thread.join();
    EXPECT_EQ(failures.load(), 1);
}

uintptr_t idle_thread(uintptr_t) {
    return 0;
}

// Each operation that hands out a record, run to success and cleaned up.
const std::vector<std::pair<const char *, std::function<int32_t()>>> &record_operations() {
    static const std::vector<std::pair<const char *, std::function<int32_t()>>> operations = {
        {"LumI18nLocaleCreate",
         [] {
             LumLocale *locale = nullptr;
             return LumI18nLocaleCreate(0, 0, 0, 0, &locale);
         }},
        {"LumI18nCatalogOpen",
         [] {
             rs_test::TempDir dir;
             dir.write("m.cat", "1 1 text\n");
             rs_test::ScopedEnv path("LUM_CATALOG_PATH", dir.path());
             LumCatalog *catalog = nullptr;
             const int32_t rc = LumI18nCatalogOpen(nullptr, "m", &catalog);
             return rc == 0 || catalog == nullptr ? rc : -1;
         }},
        {"LumPropMgrCreate",
         [] {
             LumPropMgr *manager = nullptr;
             const int32_t rc = LumPropMgrCreate(&manager);
             LumPropMgrDestroy(manager);
             return rc;
         }},
        {"LumArgMgrCreate",
         [] {
             // Made at the first, successful run, so the failure reaches the
             // argument manager.
             static LumPropMgr *const properties = [] {
                 LumPropMgr *created = nullptr;
                 LumPropMgrCreate(&created);
                 return created;
             }();
             LumArgMgr *manager = nullptr;
             const int32_t rc = LumArgMgrCreate(properties, &manager);
             LumArgMgrDestroy(manager);
             return rc;
         }},
        {"LumMutexCreate",
         [] {
             LumMutex *mutex = nullptr;
             const int32_t rc = LumMutexCreate("m", &mutex);
             LumMutexDestroy(mutex);
             return rc;
         }},
        {"LumEventCreate",
         [] {
             LumEvent *event = nullptr;
             const int32_t rc = LumEventCreate(&event);
             LumEventDestroy(event);
             return rc;
         }},
        {"LumThreadSpawn",
         [] {
             LumThread *thread = nullptr;
             const int32_t rc = LumThreadSpawn("idle", idle_thread, 0, 0, &thread);
             return rc == 0 ? LumThreadJoin(thread) : rc;
         }},
        {"LumEnvExpandString",
         [] {
             char *expanded = nullptr;
             const int32_t rc = LumEnvExpandString("a$b", &expanded);
             lum_free(expanded);
             return rc;
         }},
        {"LumWStringStrToWStr",
         [] {
             uint16_t *wide = nullptr;
             const int32_t rc = LumWStringStrToWStr("abc", &wide);
             lum_free(wide);
             return rc;
         }},
        {"LumWStringWStrToStr",
         [] {
             const uint16_t wide[] = {'a', 0};
             char *text = nullptr;
             const int32_t rc = LumWStringWStrToStr(wide, &text);
             lum_free(text);
             return rc;
         }},
    };
    return operations;
}

// Under AddressSanitizer a leak on a failure path fails the run.
TEST(RsMallocFailureTest, EveryRecordOperationReportsNoMemory) {
    for (const auto &[name, operation] : record_operations()) {
        SCOPED_TRACE(name);
        EXPECT_EQ(operation(), 0);
        MallocFailure failure(1);
        EXPECT_EQ(operation(), ENOMEM);
    }
}

TEST(RsResultCodeTest, RegisteredCodesGiveCatalogueOrDefaultTexts) {
    rs_test::TempDir dir;
    LumCatalog *catalog = rs_test::open_catalog(dir, "codes", "9 2 Translated second\n");
    static const LumRCEntry kTable[] = {
        {-7401, 9, 1, "First failure"}, {-7402, 9, 2, "Second failure"}, {-7403, 9, 3, nullptr}};
    ASSERT_EQ(LumRCRegister(catalog, 3, kTable), 0);
    EXPECT_STREQ(LumRCToString(-7401), "First failure");
    EXPECT_STREQ(LumRCToString(-7402), "Translated second");
    EXPECT_STREQ(LumRCToString(-7403), "Unknown error -7403");

    static const LumRCEntry kAgain[] = {{-7401, 9, 1, "First failure, again"}};
    ASSERT_EQ(LumRCRegister(nullptr, 1, kAgain), 0);
    EXPECT_STREQ(LumRCToString(-7401), "First failure, again");
}

TEST(RsResultCodeTest, UnknownCodesGiveOneStableTextEach) {
    const char *first = LumRCToString(-492);
    EXPECT_STREQ(first, "Unknown error -492");
    EXPECT_STREQ(LumRCToString(12), "Unknown error 12");
    for (int32_t code = 100000; code < 101000; ++code)
        LumRCToString(code); // make the table grow
    EXPECT_EQ(LumRCToString(-492), first);
    EXPECT_STREQ(first, "Unknown error -492");
}

} // namespace
