// Memory and per-thread exceptions (mutexes, events and threads are tested
// with the checkpoint thread, in the start-up test).
#include <gtest/gtest.h>
#include <thread>

#include "rs_test_support.h"

namespace {

// The first lum_malloc of `make` fails: ENOMEM and no string; the next works.
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
