// Mutexes, events, threads and per-thread exceptions.
#include <chrono>
#include <gtest/gtest.h>
#include <pthread.h>
#include <thread>

#include "rs_test_support.h"

namespace {

TEST(RsMutexTest, ExcludesOtherThreadsAndItsHolderMayDestroyIt) {
    LumMutex *mutex = nullptr;
    ASSERT_EQ(LumMutexCreate("RegionOpen", &mutex), 0);
    long counter = 0; // a data race here fails under ThreadSanitizer
    auto count = [&] {
        for (int i = 0; i < 20000; ++i) {
            LumMutexLock(mutex);
            ++counter;
            LumMutexUnlock(mutex);
        }
    };
    std::thread first(count), second(count);
    first.join();
    second.join();
    EXPECT_EQ(counter, 40000);
    ASSERT_EQ(LumMutexLock(mutex), 0);
    EXPECT_EQ(LumMutexDestroy(mutex), 0); // AddressSanitizer reports a leak if it stays
}

TEST(RsEventTest, SignalBeforeTheWaitIsKeptForOneWaitThenTheWaitTimesOut) {
    LumEvent *event = nullptr;
    ASSERT_EQ(LumEventCreate(&event), 0);
    LumEventSignal(event);
    LumEventSignal(event);
    EXPECT_EQ(LumEventTimedWait(event, 0), 0);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(LumEventTimedWait(event, 50), ETIMEDOUT);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(50));
    EXPECT_EQ(LumEventDestroy(event), 0);
}

// What the worker sees; an entry function receives only its word.
LumEvent *started, *wake;
char worker_name[16];

uintptr_t worker(uintptr_t word) {
    pthread_getname_np(pthread_self(), worker_name, sizeof worker_name);
    while (LumThreadShouldContinue(word)) {
        LumEventSignal(started);
        LumEventTimedWait(wake, 10000);
    }
    return 0;
}

TEST(RsThreadTest, NamedThreadRunsUntilAskedToStopAndIsJoined) {
    ASSERT_EQ(LumEventCreate(&started), 0);
    ASSERT_EQ(LumEventCreate(&wake), 0);
    LumThread *thread = nullptr;
    ASSERT_EQ(LumThreadSpawn("REGIONCHKPT-and-more", worker, 0, 0, &thread), 0);
    ASSERT_EQ(LumEventTimedWait(started, 10000), 0);
    EXPECT_STREQ(worker_name, "REGIONCHKPT-and");

    EXPECT_EQ(LumThreadScheduleStop(thread), 0);
    LumEventSignal(wake); // wakes the waiting worker, which then stops
    EXPECT_EQ(LumThreadJoin(thread), 0);
    LumEventDestroy(started);
    LumEventDestroy(wake);
}

TEST(RsExceptionTest, RaiseRecordsLogsAndCallsTheHandlerUntilCleared) {
    std::vector<std::pair<uint32_t, std::string>> seen; // calling thread, message
    LumThreadExceptionSetHandler(
        [](void *context, const LumException *exception) {
            static_cast<decltype(seen) *>(context)->push_back(
                {LumThreadGetID(), exception->message});
        },
        &seen);
    rs_test::LogCapture capture;
    LumValue value = rs_test::string_value("Invalid chunk, and bytes past the length");
    value.value.string.length = 13;
    const uint32_t self = LumThreadGetID();
    EXPECT_EQ(LumThreadExceptionRaise(self, "RegionHash", nullptr, 0, 0, "Insert failed", &value,
                                      nullptr, 0, nullptr),
              0);
    LumThreadExceptionSetHandler(nullptr, nullptr);

    LumException pending{};
    ASSERT_EQ(LumThreadExceptionGet(&pending), 0);
    EXPECT_EQ(pending.thread_id, self);
    EXPECT_STREQ(pending.class_name, "RegionHash");
    EXPECT_STREQ(pending.message, "Insert failed");
    EXPECT_STREQ(pending.value, "Invalid chunk");
    EXPECT_EQ(seen, (decltype(seen){{self, "Insert failed"}}));

    EXPECT_EQ(capture.records, (std::vector<std::string>{
                                   "4 0/0 Exception RegionHash: Insert failed (Invalid chunk)"}));

    std::thread([] {
        LumException other{};
        EXPECT_EQ(LumThreadExceptionGet(&other), ENOENT); // pending in the raising thread only
    }).join();
    LumThreadExceptionClear();
    EXPECT_EQ(LumThreadExceptionGet(&pending), ENOENT);
}

} // namespace
