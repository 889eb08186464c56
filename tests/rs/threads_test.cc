// Mutexes, events, threads and per-thread exceptions.
#include <atomic>
#include <chrono>
#include <gtest/gtest.h>
#include <pthread.h>
#include <thread>

#include "rs_test_support.h"

namespace {

using Clock = std::chrono::steady_clock;

TEST(RsMutexTest, ExcludesOtherThreads) {
    LumMutex *mutex = nullptr;
    ASSERT_EQ(LumMutexCreate("counter", &mutex), 0);
    long counter = 0; // a data race here fails under ThreadSanitizer
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < 10000; ++i) {
                LumMutexLock(mutex);
                ++counter;
                LumMutexUnlock(mutex);
            }
        });
    }
    for (auto &thread : threads)
        thread.join();
    EXPECT_EQ(counter, 40000);
    EXPECT_EQ(LumMutexDestroy(mutex), 0);
}

TEST(RsMutexTest, MisuseGivesErrorsInsteadOfHangs) {
    LumMutex *mutex = nullptr;
    ASSERT_EQ(LumMutexCreate("m", &mutex), 0);
    ASSERT_EQ(LumMutexLock(mutex), 0);
    EXPECT_EQ(LumMutexLock(mutex), EDEADLK);
    std::thread([&] { EXPECT_EQ(LumMutexUnlock(mutex), EPERM); }).join();
    EXPECT_EQ(LumMutexUnlock(mutex), 0);
    EXPECT_EQ(LumMutexUnlock(mutex), EPERM);
    EXPECT_EQ(LumMutexDestroy(mutex), 0);
    EXPECT_EQ(LumMutexLock(nullptr), EINVAL);
    EXPECT_EQ(LumMutexUnlock(nullptr), EINVAL);
    EXPECT_EQ(LumMutexDestroy(nullptr), 0);
}

TEST(RsMutexTest, HolderMayDestroyIt) {
    LumMutex *mutex = nullptr;
    ASSERT_EQ(LumMutexCreate("RegionOpen", &mutex), 0);
    ASSERT_EQ(LumMutexLock(mutex), 0);
    EXPECT_EQ(LumMutexDestroy(mutex), 0);
}

TEST(RsMutexTest, MutexHeldByAnotherThreadIsNotDestroyed) {
    LumMutex *mutex = nullptr;
    LumEvent *locked = nullptr, *release = nullptr;
    ASSERT_EQ(LumMutexCreate("m", &mutex), 0);
    ASSERT_EQ(LumEventCreate(&locked), 0);
    ASSERT_EQ(LumEventCreate(&release), 0);
    std::thread holder([&] {
        LumMutexLock(mutex);
        LumEventSignal(locked);
        LumEventTimedWait(release, 10000);
        LumMutexUnlock(mutex);
    });
    ASSERT_EQ(LumEventTimedWait(locked, 10000), 0);
    EXPECT_EQ(LumMutexDestroy(mutex), EBUSY);
    LumEventSignal(release);
    holder.join();
    EXPECT_EQ(LumMutexDestroy(mutex), 0);
    LumEventDestroy(locked);
    LumEventDestroy(release);
}

TEST(RsEventTest, SignalWithoutWaiterIsKeptForOneWait) {
    LumEvent *event = nullptr;
    ASSERT_EQ(LumEventCreate(&event), 0);
    LumEventSignal(event);
    LumEventSignal(event);
    EXPECT_EQ(LumEventTimedWait(event, 0), 0);
    const auto start = Clock::now();
    EXPECT_EQ(LumEventTimedWait(event, 50), ETIMEDOUT);
    EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(50));
    EXPECT_EQ(LumEventDestroy(event), 0);
}

TEST(RsEventTest, SignalWakesAWaitingThread) {
    LumEvent *event = nullptr;
    ASSERT_EQ(LumEventCreate(&event), 0);
    int32_t rc = -1;
    std::thread waiter([&] { rc = LumEventTimedWait(event, 10000); });
    LumEventSignal(event);
    waiter.join();
    EXPECT_EQ(rc, 0);
    LumEventDestroy(event);
}

// What the worker thread reports; an entry function receives only its word.
struct WorkerProbe {
    LumEvent *started = nullptr;
    LumEvent *wake = nullptr;
    char name[16] = "";
    std::atomic<int> passes{0};
} probe;

uintptr_t worker(uintptr_t word) {
    pthread_getname_np(pthread_self(), probe.name, sizeof probe.name);
    while (LumThreadShouldContinue(word)) {
        ++probe.passes;
        LumEventSignal(probe.started);
        LumEventTimedWait(probe.wake, 10000);
    }
    return 0;
}

TEST(RsThreadTest, NamedThreadRunsUntilAskedToStop) {
    probe.passes = 0;
    ASSERT_EQ(LumEventCreate(&probe.started), 0);
    ASSERT_EQ(LumEventCreate(&probe.wake), 0);
    LumThread *thread = nullptr;
    ASSERT_EQ(LumThreadSpawn("REGIONCHKPT-and-more", worker, 0, 0, &thread), 0);
    ASSERT_EQ(LumEventTimedWait(probe.started, 10000), 0);
    EXPECT_STREQ(probe.name, "REGIONCHKPT-and");
    EXPECT_EQ(probe.passes.load(), 1);

    EXPECT_EQ(LumThreadScheduleStop(thread), 0);
    LumEventSignal(probe.wake);
    EXPECT_EQ(LumThreadJoin(thread), 0);
    LumEventDestroy(probe.started);
    LumEventDestroy(probe.wake);
}

TEST(RsThreadTest, ReservedArgumentsMustBeZero) {
    LumThread *thread = nullptr;
    EXPECT_EQ(LumThreadSpawn("t", worker, 1, 0, &thread), EINVAL);
    EXPECT_EQ(LumThreadSpawn("t", worker, 0, 1, &thread), EINVAL);
    EXPECT_EQ(thread, nullptr);
    EXPECT_EQ(LumThreadShouldContinue(0), 0);
}

class RsExceptionTest : public ::testing::Test {
  protected:
    void TearDown() override {
        LumThreadExceptionSetHandler(nullptr, nullptr);
        LumThreadExceptionClear();
    }

    struct Seen {
        int calls = 0;
        uint32_t caller = 0;
        LumException exception{};
    };
    static void handler(void *context, const LumException *exception) {
        auto *seen = static_cast<Seen *>(context);
        ++seen->calls;
        seen->caller = LumThreadGetID();
        seen->exception = *exception;
    }
};

TEST_F(RsExceptionTest, RaiseRecordsLogsAndCallsTheHandler) {
    Seen seen;
    LumThreadExceptionSetHandler(handler, &seen);
    rs_test::LogCapture capture;
    LumValue value{};
    value.type = LUM_VALUE_STRING;
    value.value.string.text = "Invalid chunk, and bytes past the length";
    value.value.string.length = 13;
    const uint32_t self = LumThreadGetID();
    EXPECT_EQ(LumThreadExceptionRaise(self, "RegionHash", nullptr, 0, 0, "Insert failed", &value,
                                      nullptr, 0, nullptr),
              0);

    LumException pending{};
    ASSERT_EQ(LumThreadExceptionGet(&pending), 0);
    EXPECT_EQ(pending.thread_id, self);
    EXPECT_STREQ(pending.class_name, "RegionHash");
    EXPECT_STREQ(pending.message, "Insert failed");
    EXPECT_STREQ(pending.value, "Invalid chunk");
    EXPECT_EQ(seen.calls, 1);
    EXPECT_EQ(seen.caller, self);
    EXPECT_STREQ(seen.exception.value, "Invalid chunk");

    const auto records = capture.records();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].severity, LUM_LOG_FAILURE);
    EXPECT_EQ(records[0].text, "Exception RegionHash: Insert failed (Invalid chunk)");

    std::thread([] {
        LumException other{};
        EXPECT_EQ(LumThreadExceptionGet(&other), ENOENT); // pending in the raising thread only
    }).join();
    LumThreadExceptionClear();
    EXPECT_EQ(LumThreadExceptionGet(&pending), ENOENT);
}

TEST_F(RsExceptionTest, CatalogueTextAndLongFieldsAreLoggedAndCut) {
    rs_test::TempDir dir;
    LumCatalog *catalog = rs_test::open_catalog(dir, "exc", "7 3 Translated failure\n");
    rs_test::LogCapture capture;
    const std::string long_message(1000, 'm');
    LumValue flag{};
    flag.type = LUM_VALUE_BOOLEAN;
    flag.value.boolean = -3;
    LumThreadExceptionRaise(LumThreadGetID(), "AClassNameLongerThanThirtyOneBytes", catalog, 7, 3,
                            long_message.c_str(), &flag, "reghash.cc", 42, "insert");

    LumException pending{};
    ASSERT_EQ(LumThreadExceptionGet(&pending), 0);
    EXPECT_STREQ(pending.class_name, "AClassNameLongerThanThirtyOneBy");
    EXPECT_EQ(std::string(pending.message), long_message.substr(0, 255));
    EXPECT_STREQ(pending.value, "-3");
    ASSERT_EQ(capture.records().size(), 1u);
    EXPECT_EQ(capture.records()[0].text, "Exception AClassNameLongerThanThirtyOneBy: Translated "
                                         "failure (-3) at reghash.cc:42 in insert");
}

} // namespace
