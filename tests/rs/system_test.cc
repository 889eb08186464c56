// Memory and per-thread exceptions. Mutexes, events and threads are tested
// with the library's checkpoint thread in the start-up test, which also
// fails the allocations of the locale, the catalogue, the mutex, the event
// and the thread in turn.
#include <gtest/gtest.h>
#include <thread>

#include "rs_test_support.h"

namespace {

// Fails the first lum_malloc of `make`: ENOMEM and no string; the next
// call works. Under AddressSanitizer a leak on the failure path fails the run.
template <class T> void ExpectNoMemoryOnce(int32_t (*make)(T **)) {
    T *made = reinterpret_cast<T *>(1);
    lum_malloc_fail_at(1);
    EXPECT_EQ(make(&made), ENOMEM);
    EXPECT_EQ(made, nullptr);
    EXPECT_EQ(make(&made), 0);
    lum_free(made);
}

TEST(RsMemoryTest, StringOperationsReportNoMemoryOnce) {
    static const uint16_t kWideA[] = {'a', 0};
    ExpectNoMemoryOnce<char>([](char **text) { return LumEnvExpandString("a$b", text); });
    ExpectNoMemoryOnce<uint16_t>([](uint16_t **wide) { return LumWStringStrToWStr("abc", wide); });
    ExpectNoMemoryOnce<char>([](char **text) { return LumWStringWStrToStr(kWideA, text); });
}

// A raise is logged, handed to the handler, and pending in the raising
// thread alone until cleared. The value's text is its first `length` bytes.
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
    EXPECT_EQ(std::string(pending.class_name) + "|" + pending.message + "|" + pending.value,
              "RegionHash|Insert failed|Invalid chunk");
    std::thread([] {
        LumException other{};
        EXPECT_EQ(LumThreadExceptionGet(&other), ENOENT);
    }).join();
    LumThreadExceptionClear();
    EXPECT_EQ(LumThreadExceptionGet(&pending), ENOENT);
}

} // namespace
