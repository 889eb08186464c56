// Failure paths: every operation that hands out a record under a scheduled
// lum_malloc failure, and arguments that operations must refuse.
#include <functional>
#include <gtest/gtest.h>

#include "rs_test_support.h"

namespace {

uintptr_t idle_thread(uintptr_t) {
    return 0;
}

// Runs `make`, which fills a T * and returns a result code, and releases what
// it made; -1 unless there is a record exactly when the result is 0.
template <class T, class Make, class Release>
std::function<int32_t()> made(Make make, Release release) {
    return [=] {
        T *record = reinterpret_cast<T *>(1);
        const int32_t rc = make(&record);
        if (rc == 0 && record)
            release(record);
        return (rc == 0) == (record != nullptr) ? rc : -1;
    };
}

const uint16_t kWideA[] = {'a', 0};

void kept(void *) {} // locales and catalogues live as long as the process

struct RecordOperation {
    const char *name;
    uint32_t failing_call; // of lum_malloc, counted from the start of `run`
    std::function<int32_t()> run;
};

const RecordOperation kRecordOperations[] = {
    {"LumI18nLocaleCreate", 1,
     made<LumLocale>([](LumLocale **l) { return LumI18nLocaleCreate(0, 0, 0, 0, l); }, kept)},
    {"LumI18nCatalogOpen", 1,
     made<LumCatalog>([](LumCatalog **c) { return LumI18nCatalogOpen(nullptr, "m", c); }, kept)},
    {"LumPropMgrCreate", 1, made<LumPropMgr>(LumPropMgrCreate, LumPropMgrDestroy)},
    {"LumArgMgrCreate", 2, // the first call makes its property manager
     [] {
         LumPropMgr *properties = nullptr;
         LumPropMgrCreate(&properties);
         const int32_t rc = made<LumArgMgr>(
             [&](LumArgMgr **m) { return LumArgMgrCreate(properties, m); }, LumArgMgrDestroy)();
         LumPropMgrDestroy(properties);
         return rc;
     }},
    {"LumMutexCreate", 1,
     made<LumMutex>([](LumMutex **m) { return LumMutexCreate("m", m); }, LumMutexDestroy)},
    {"LumEventCreate", 1, made<LumEvent>(LumEventCreate, LumEventDestroy)},
    {"LumThreadSpawn", 1,
     made<LumThread>([](LumThread **t) { return LumThreadSpawn("idle", idle_thread, 0, 0, t); },
                     LumThreadJoin)},
    {"LumEnvExpandString", 1,
     made<char>([](char **text) { return LumEnvExpandString("a$b", text); }, lum_free)},
    {"LumWStringStrToWStr", 1,
     made<uint16_t>([](uint16_t **wide) { return LumWStringStrToWStr("abc", wide); }, lum_free)},
    {"LumWStringWStrToStr", 1,
     made<char>([](char **text) { return LumWStringWStrToStr(kWideA, text); }, lum_free)},
};

// The scheduled call fails, once. Under AddressSanitizer a leak on a failure
// path fails the run.
TEST(RsMallocFailureTest, EveryRecordOperationReportsNoMemoryOnce) {
    rs_test::TempDir dir;
    dir.write("m.cat", "1 1 text\n");
    rs_test::ScopedEnv path("LUM_CATALOG_PATH", dir.path());
    for (const RecordOperation &operation : kRecordOperations) {
        SCOPED_TRACE(operation.name);
        rs_test::MallocFailure failure(operation.failing_call);
        EXPECT_EQ(operation.run(), ENOMEM);
        EXPECT_EQ(operation.run(), 0);
    }
}

TEST(RsArgumentsTest, ReservedOrMissingArgumentsAreRefused) {
    LumLocale *locale = nullptr;
    LumThread *thread = nullptr;
    EXPECT_EQ(LumI18nLocaleCreate(0, 0, 1, 0, &locale), EINVAL);
    EXPECT_EQ(LumThreadSpawn("t", idle_thread, 1, 0, &thread), EINVAL);
    EXPECT_EQ(LumThreadSpawn("t", idle_thread, 0, 1, &thread), EINVAL);
    EXPECT_EQ(LumMutexLock(nullptr), EINVAL);
    EXPECT_EQ(LumEventSignal(nullptr), EINVAL);
}

} // namespace
