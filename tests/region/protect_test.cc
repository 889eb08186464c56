// Page protection: which regions protect, which pages, and its failures.
#include <cstring>
#include <tuple>

#include "region_fixture.h"

using lumtest::FaultsInChild;

// A region that does not protect never calls the platform, not even to allocate.
TEST_F(RegionTest, OnlyProtectingRegionsRefuseStoresAndCallThePlatform) {
    const int32_t rows[][2] = {{1, 0}, {0, 1}, {0, 0}}; // protect, Region.ProtectAll
    for (const auto &[protect, all] : rows) {
        SCOPED_TRACE(testing::Message() << "protect " << protect << ", all " << all);
        region_protect_all = all;
        LumRegion *region = Create(kMiB, kMiB, protect);
        uint8_t *word = region->base + region_header::kSegmentCount;
        EXPECT_EQ(FaultsInChild([&] { *word = 1; }), protect || all);
        lumtest::VmRecorder vm;
        LumSegment *segment = NewSegment(region, 65536);
        EXPECT_EQ(LumMemFree(segment, AllocLogged(segment, 64)), 0);
        EXPECT_EQ(LumSegmentDrop(segment), 0);
        EXPECT_EQ(vm.protects.empty(), !(protect || all));
        region_protect_all = 0;
        Close(region);
    }
}

TEST_F(RegionTest, ProtectionCoversEveryPageTheRangeTouches) {
    LumRegion *region = Create(kMiB, kMiB, 1);
    ASSERT_EQ(_LumImageSetSize(region, 4 * Page()), 0);
    lumtest::VmRecorder vm;
    _LumPageProtect(region, region->base + Page() + Page() / 2, Page());
    _LumPageUnprotect(region, region->base + 3 * Page() - 1, 1);
    using Call = std::tuple<void *, size_t, int>;
    std::vector<Call> calls;
    for (const lumtest::VmCall &call : vm.protects)
        calls.emplace_back(call.address, call.length, call.writable);
    EXPECT_EQ(calls, (std::vector<Call>{{region->base + Page(), 2 * Page(), 0},
                                        {region->base + 2 * Page(), Page(), 1}}));
}

// Rather than close an allocation under its host, the region stops protecting.
TEST_F(RegionTest, TooManyOpenAllocationsEndProtectionForTheRegion) {
    LumRegion *region = Create(kMiB, kMiB, 1);
    LumSegment *segment = NewSegment(region, 65536);
    std::vector<void *> chunks(kOpenChunkSlots + 1);
    for (void *&chunk : chunks)
        ASSERT_EQ(LumMemAlloc(segment, 64, &chunk), 0);
    for (void *chunk : chunks)
        LumMemLog(segment, chunk);
    EXPECT_FALSE(FaultsInChild([&] {
        for (void *chunk : chunks)
            memset(chunk, 1, 64);
    }));
    LumSegmentClose(segment);
}

TEST_F(RegionTest, AFailedProtectionChangeIsReportedOncePerRegion) {
    lumtest::PlatformGuard guard;
    lum_platform.protect = [](void *, size_t, int) { return EACCES; };
    lumtest::LogCapture log;
    for (const char *name : {"first", "second"}) {
        LumRegion *region = Create(kMiB, kMiB, 1, name); // protects its header
        _LumPageProtect(region, region->base, 1);
    }
    std::string reason = strerror(EACCES);
    EXPECT_EQ(log.Lines(),
              (std::vector<std::string>{
                  "5 3/14 Failed to change the page protection of region first: " + reason,
                  "5 3/14 Failed to change the page protection of region second: " + reason}));
}
