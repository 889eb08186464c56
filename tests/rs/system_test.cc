// Memory and per-thread exceptions. Mutexes, events and threads are tested
// with the library's checkpoint thread in the start-up test, which also
// fails the allocations of the locale, the catalogue, the mutex, the event
// and the thread in turn.
#include <functional>
#include <gtest/gtest.h>
#include <thread>

#include "rs_test_support.h"

namespace {

// Runs `make`, frees what it made, and gives its result; -1 when success and
// a made string do not go together.
template <class T> std::function<int32_t()> Freed(int32_t (*make)(T **)) {
    return [make] {
        T *made = reinterpret_cast<T *>(1);
        int32_t rc = make(&made);
        bool agree = (rc == 0) == (made != nullptr);
        if (rc == 0)
            lum_free(made);
        return agree ? rc : -1;
    };
}

// A scheduled lum_malloc failure gives ENOMEM and no string, once. Under
// AddressSanitizer a leak on a failure path fails the run.
TEST(RsMemoryTest, StringOperationsReportNoMemoryOnce) {
    static const uint16_t kWideA[] = {'a', 0};
    const std::function<int32_t()> operations[] = {
        Freed<char>([](char **text) { return LumEnvExpandString("a$b", text); }),
        Freed<uint16_t>([](uint16_t **wide) { return LumWStringStrToWStr("abc", wide); }),
        Freed<char>([](char **text) { return LumWStringWStrToStr(kWideA, text); }),
    };
    for (const auto &operation : operations) {
        lum_malloc_fail_at(1);
        EXPECT_EQ(operation(), ENOMEM);
        EXPECT_EQ(operation(), 0);
    }
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
