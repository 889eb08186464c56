// Page protection: which pages the two calls touch, when they call the
// platform at all, and that a protected page really refuses a store.
#include "region_fixture.h"

using lumtest::FaultsInChild;
using lumtest::VmRecorder;

TEST_F(RegionTest, ProtectedRegionRefusesStoresUntilUnprotected) {
    LumRegion *region = Create(kMiB, kMiB, /*protect=*/1);
    uint8_t *word = region->base + region_header::kSegmentCount;
    EXPECT_TRUE(FaultsInChild([&] { *word = 1; })) << "the header is read-only after creation";
    _LumPageUnprotect(region, word, 4);
    EXPECT_FALSE(FaultsInChild([&] { *word = 1; }));
    _LumPageProtect(region, word, 4);
    EXPECT_TRUE(FaultsInChild([&] { *word = 1; }));
    EXPECT_EQ(*word, 0) << "reads work on a protected page";
}

TEST_F(RegionTest, ProtectionCoversEveryPageTheRangeTouches) {
    LumRegion *region = Create(kMiB, kMiB, 1);
    ASSERT_EQ(_LumImageSetSize(region, 4 * Page()), 0);
    VmRecorder vm;
    _LumPageProtect(region, region->base + Page() + Page() / 2, Page());
    _LumPageUnprotect(region, region->base + 3 * Page() - 1, 1);
    ASSERT_EQ(vm.protects.size(), 2u);
    EXPECT_EQ(vm.protects[0].address, region->base + Page());
    EXPECT_EQ(vm.protects[0].length, 2 * Page());
    EXPECT_EQ(vm.protects[0].writable, 0);
    EXPECT_EQ(vm.protects[1].address, region->base + 2 * Page());
    EXPECT_EQ(vm.protects[1].length, Page());
    EXPECT_EQ(vm.protects[1].writable, 1);
}

TEST_F(RegionTest, UnprotectedRegionNeverCallsThePlatform) {
    LumRegion *region = Create(kMiB, kMiB, 0);
    VmRecorder vm;
    _LumPageUnprotect(region, region->base, Page());
    _LumPageProtect(region, region->base, Page());
    EXPECT_TRUE(vm.protects.empty());
}

// Switches Region.ProtectAll on for one scope.
struct ProtectAllOn {
    ProtectAllOn() { region_protect_all = 1; }
    ~ProtectAllOn() { region_protect_all = 0; }
};

TEST_F(RegionTest, ProtectAllActsOnEveryRegion) {
    ProtectAllOn protect_all;
    LumRegion *region = Create(kMiB, kMiB, 0);
    EXPECT_EQ(region->protect, 0) << "the handle keeps its own switch";
    EXPECT_TRUE(FaultsInChild([&] { region->base[0] = 1; }));
    _LumPageUnprotect(region, region->base, 1);
    EXPECT_FALSE(FaultsInChild([&] { region->base[0] = 1; }));
}
