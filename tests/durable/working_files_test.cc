// The durability records of a new handle: each comes from lum_malloc, and the
// failure of any gives 12 and leaves nothing.
#include "persistent_fixture.h"

TEST_F(PersistentTest, DurabilityRecordsThatCannotBeHadGiveNoMemory) {
    for (uint32_t nth = 1;; ++nth) {
        lumtest::MallocFailure failure(nth);
        LumRegion *region = reinterpret_cast<LumRegion *>(1);
        int32_t rc = _LumImageCreate("p", LUM_REGION_PERSISTENT, kMiB, kMiB, 0, 0,
                                     dir_.path().c_str(), &region);
        if (rc == 0) {
            EXPECT_GE(nth, 8u) << "handle, mutex, two maps, buffer record and data, mutex";
            _LumImageDestroy(region);
            break;
        }
        EXPECT_EQ(rc, LUM_RC_NO_MEMORY) << nth;
        EXPECT_EQ(region, nullptr) << nth;
    }
}

// Both chk files of a new region are empty, so every page of the
// reservation differs from both: each map is set up to its last bit.
TEST_F(PersistentTest, NewRegionMarksEveryPageOfTheReservationInBothMaps) {
    LumRegion *region = CreatePersistent();
    for (DirtyMap *map : region->dirty_map) {
        ASSERT_EQ(static_cast<uint32_t>(map->page_count), region->hard_limit / region_page_size);
        for (uint32_t page = 0; page < static_cast<uint32_t>(map->page_count); ++page)
            ASSERT_EQ(_LumDirtyMapTest(map, page), 1) << page;
    }
    EXPECT_EQ(LumRegionClose(region), 0);
}
