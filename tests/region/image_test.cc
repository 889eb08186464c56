// The image: limits and their rounding, commit steps, shrinking, the soft
// limit, and the undoing of a failed creation.
#include <cstring>

#include "region_fixture.h"

using lumtest::LogCapture;
using lumtest::MallocFailure;
using lumtest::PlatformGuard;
using lumtest::VmRecorder;

TEST_F(RegionTest, HardLimitRoundsUpToWholeMiB) {
    EXPECT_EQ(Create(1, kMiB)->hard_limit, kMiB);
    EXPECT_EQ(Create(kMiB, kMiB)->hard_limit, kMiB);
    EXPECT_EQ(Create(kMiB + 1, kMiB)->hard_limit, 2 * kMiB);
}

TEST_F(RegionTest, ZeroHardLimitCannotBeReserved) {
    LumRegion *region = reinterpret_cast<LumRegion *>(1);
    void *base = reinterpret_cast<void *>(1);
    EXPECT_EQ(LumRegionCreate("zero", LUM_REGION_VOLATILE, 0, kMiB, 0, 0, nullptr, &region, &base),
              LUM_RC_RESERVE);
    EXPECT_EQ(region, reinterpret_cast<LumRegion *>(1)) << "out words stay untouched on failure";
    EXPECT_EQ(base, reinterpret_cast<void *>(1));
}

TEST_F(RegionTest, SoftLimitRoundsUpToAPage) {
    LumRegion *region = Create(kMiB, 1);
    EXPECT_EQ(region->soft_limit, Page());
    EXPECT_EQ(region->used, Page()) << "the header fits one page";
}

TEST_F(RegionTest, SoftLimitNearFourGiBStaysTheLastPage) {
    LumRegion *region = Create(kMiB, 0xFFFFFFFF);
    EXPECT_EQ(region->soft_limit, ~(Page() - 1));
}

TEST_F(RegionTest, NewRegionUsesOnePageAndCommitsOneMiB) {
    LumRegion *region = Create(4 * kMiB, 4 * kMiB);
    EXPECT_EQ(region->used, (2088 + Page() - 1) & ~(Page() - 1));
    EXPECT_EQ(region->committed, kMiB);
}

TEST_F(RegionTest, GrowingWithinAMiBCommitsNothing) {
    LumRegion *region = Create(4 * kMiB, 4 * kMiB);
    VmRecorder vm;
    ASSERT_EQ(_LumImageSetSize(region, kMiB - Page()), 0);
    ASSERT_EQ(_LumImageSetSize(region, kMiB), 0);
    EXPECT_TRUE(vm.commits.empty());
    ASSERT_EQ(_LumImageSetSize(region, kMiB + Page()), 0);
    ASSERT_EQ(vm.commits.size(), 1u);
    EXPECT_EQ(vm.commits[0].address, region->base + kMiB);
    EXPECT_EQ(vm.commits[0].length, kMiB);
    EXPECT_EQ(region->committed, 2 * kMiB);
    EXPECT_EQ(region->used, kMiB + Page());
}

TEST_F(RegionTest, SettingThePresentSizeCallsNoPlatform) {
    LumRegion *region = Create(4 * kMiB, 4 * kMiB);
    VmRecorder vm;
    ASSERT_EQ(_LumImageSetSize(region, region->used), 0);
    EXPECT_TRUE(vm.commits.empty());
    EXPECT_TRUE(vm.decommits.empty());
}

TEST_F(RegionTest, SizeRoundsUpToAPage) {
    LumRegion *region = Create(4 * kMiB, 4 * kMiB);
    ASSERT_EQ(_LumImageSetSize(region, 3 * Page() + 1), 0);
    EXPECT_EQ(region->used, 4 * Page());
}

TEST_F(RegionTest, SoftLimitAllowsEqualAndRefusesOneByteMore) {
    LumRegion *region = Create(4 * kMiB, 2 * kMiB);
    EXPECT_EQ(_LumImageSetSize(region, 2 * kMiB), 0);
    LogCapture log;
    EXPECT_EQ(_LumImageSetSize(region, 2 * kMiB + 1), LUM_RC_SOFT_LIMIT);
    EXPECT_EQ(region->used, 2 * kMiB);
    EXPECT_EQ(region->committed, 2 * kMiB);
    auto reports = log.Find(2, 29);
    ASSERT_EQ(reports.size(), 1u);
    EXPECT_EQ(reports[0].severity, 4);
    EXPECT_EQ(reports[0].text, "Soft limit exceeded for region : test");
}

TEST_F(RegionTest, SizeNearFourGiBIsRefusedNotWrapped) {
    LumRegion *region = Create(4 * kMiB, 4 * kMiB);
    uint32_t used = region->used;
    EXPECT_EQ(_LumImageSetSize(region, 0xFFFFFFFF), LUM_RC_SOFT_LIMIT);
    EXPECT_EQ(region->used, used);
}

TEST_F(RegionTest, SoftLimitAboveHardGrowsToTheReservationThenFailsToExtend) {
    LumRegion *region = Create(2 * kMiB, 8 * kMiB);
    EXPECT_EQ(_LumImageSetSize(region, 2 * kMiB), 0);
    EXPECT_EQ(_LumImageSetSize(region, 2 * kMiB + 1), LUM_RC_EXTEND);
    EXPECT_EQ(region->used, 2 * kMiB);
    EXPECT_EQ(region->committed, 2 * kMiB);
}

TEST_F(RegionTest, FailedCommitChangesNothingAndLogsNothing) {
    LumRegion *region = Create(8 * kMiB, 8 * kMiB);
    VmRecorder vm;
    vm.fail_commit = true;
    LogCapture log;
    EXPECT_EQ(_LumImageSetSize(region, 3 * kMiB), LUM_RC_EXTEND);
    EXPECT_EQ(region->used, Page());
    EXPECT_EQ(region->committed, kMiB);
    EXPECT_TRUE(log.Records().empty());
}

TEST_F(RegionTest, ShrinkingDecommitsWholeMiBsAndTheMemoryComesBackZero) {
    LumRegion *region = Create(8 * kMiB, 8 * kMiB);
    ASSERT_EQ(_LumImageSetSize(region, 3 * kMiB), 0);
    memset(region->base + 2 * kMiB, 0xAB, kMiB);
    {
        VmRecorder vm;
        ASSERT_EQ(_LumImageSetSize(region, kMiB + Page()), 0);
        ASSERT_EQ(vm.decommits.size(), 1u);
        EXPECT_EQ(vm.decommits[0].address, region->base + 2 * kMiB);
        EXPECT_EQ(vm.decommits[0].length, kMiB);
    }
    EXPECT_EQ(region->committed, 2 * kMiB);
    ASSERT_EQ(_LumImageSetSize(region, 3 * kMiB), 0);
    for (uint32_t at = 2 * kMiB; at < 3 * kMiB; at += 4096)
        ASSERT_EQ(region->base[at], 0) << "at " << at;
}

TEST_F(RegionTest, SizeZeroDecommitsEverything) {
    LumRegion *region = Create(4 * kMiB, 4 * kMiB);
    ASSERT_EQ(_LumImageSetSize(region, 2 * kMiB), 0);
    ASSERT_EQ(_LumImageSetSize(region, 0), 0);
    EXPECT_EQ(region->used, 0u);
    EXPECT_EQ(region->committed, 0u);
    EXPECT_TRUE(lumtest::FaultsInChild([&] { region->base[0] = 1; }));
    ASSERT_EQ(_LumImageSetSize(region, Page()), 0) << "the region can grow again";
}

TEST_F(RegionTest, FailedDecommitIsReportedAndTheShrinkGoesOn) {
    LumRegion *region = Create(4 * kMiB, 4 * kMiB);
    ASSERT_EQ(_LumImageSetSize(region, 3 * kMiB), 0);
    VmRecorder vm;
    vm.fail_decommit = true;
    LogCapture log;
    EXPECT_EQ(_LumImageSetSize(region, Page()), 0);
    EXPECT_EQ(region->used, Page());
    EXPECT_EQ(region->committed, kMiB);
    auto reports = log.Find(3, 1);
    ASSERT_EQ(reports.size(), 1u);
    EXPECT_EQ(reports[0].severity, 5);
    char expected[96];
    snprintf(expected, sizeof expected, "VF error %p %u %u", static_cast<void *>(region->base),
             3 * kMiB, kMiB);
    EXPECT_EQ(reports[0].text, expected);
    vm.fail_decommit = false;
    EXPECT_EQ(_LumImageSetSize(region, 3 * kMiB), 0) << "a later commit of the range works";
}

TEST_F(RegionTest, SetSoftLimitAcceptsBothBoundsAndRefusesBeyond) {
    LumRegion *region = Create(4 * kMiB, 2 * kMiB);
    ASSERT_EQ(_LumImageSetSize(region, kMiB), 0);
    EXPECT_EQ(LumRegionSetSoftLimit(region, 4 * kMiB + 1), LUM_RC_SOFT_ABOVE_HARD);
    EXPECT_EQ(LumRegionSetSoftLimit(region, kMiB - 1), LUM_RC_SOFT_BELOW_USED);
    EXPECT_EQ(region->soft_limit, 2 * kMiB);
    EXPECT_EQ(LumRegionSetSoftLimit(region, kMiB), 0);
    EXPECT_EQ(LumRegionSetSoftLimit(region, 4 * kMiB), 0);
}

TEST_F(RegionTest, UnroundedSoftLimitStopsAtTheLastWholePage) {
    LumRegion *region = Create(4 * kMiB, 2 * kMiB);
    ASSERT_EQ(LumRegionSetSoftLimit(region, 3 * Page() - 1), 0);
    EXPECT_EQ(_LumImageSetSize(region, 2 * Page()), 0);
    EXPECT_EQ(_LumImageSetSize(region, 2 * Page() + 1), LUM_RC_SOFT_LIMIT);
}

// Each allocation and each reservation of _LumImageCreate may fail; every
// failure leaves nothing behind (the asan preset checks for leaks) and no
// handle out.
TEST(ImageCreate, EveryFailureUndoesWhatWasDone) {
    for (uint32_t nth = 1; nth <= 3; ++nth) {
        LumRegion *region = reinterpret_cast<LumRegion *>(1);
        MallocFailure failure(nth);
        EXPECT_EQ(_LumImageCreate("fail", LUM_REGION_VOLATILE, kMiB, kMiB, 0, 0, nullptr, &region),
                  LUM_RC_NO_MEMORY)
            << "allocation " << nth;
        EXPECT_EQ(region, nullptr);
    }
    PlatformGuard guard;
    lum_platform.reserve = [](size_t) -> void * { return nullptr; };
    LumRegion *region = reinterpret_cast<LumRegion *>(1);
    EXPECT_EQ(_LumImageCreate("fail", LUM_REGION_VOLATILE, kMiB, kMiB, 0, 0, nullptr, &region),
              LUM_RC_RESERVE);
    EXPECT_EQ(region, nullptr);
}

TEST(ImageCreate, FailedCreateIsRetriedCleanly) {
    LumRegion *region = nullptr;
    void *base = nullptr;
    {
        MallocFailure failure(1);
        EXPECT_EQ(LumRegionCreate("retry", LUM_REGION_VOLATILE, kMiB, kMiB, 0, 0, nullptr, &region,
                                  &base),
                  LUM_RC_NO_MEMORY);
    }
    ASSERT_EQ(
        LumRegionCreate("retry", LUM_REGION_VOLATILE, kMiB, kMiB, 0, 0, nullptr, &region, &base),
        0);
    EXPECT_EQ(base, region->base);
    EXPECT_EQ(LumRegionClose(region), 0);
}
