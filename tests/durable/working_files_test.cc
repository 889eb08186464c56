// The dirty maps of a new region, and the header of every file.
#include <array>
#include <fcntl.h>
#include <unistd.h>

#include "persistent_fixture.h"

// Both chk files of a new region are empty: each map is set to its last bit.
TEST_F(PersistentTest, NewRegionMarksEveryPageOfTheReservationInBothMaps) {
    LumRegion *region = CreatePersistent();
    for (DirtyMap *map : region->dirty_map) {
        ASSERT_EQ(static_cast<uint32_t>(map->page_count), region->hard_limit / region_page_size);
        for (uint32_t page = 0; page < static_cast<uint32_t>(map->page_count); ++page)
            ASSERT_EQ(_LumDirtyMapTest(map, page), 1) << page;
    }
    EXPECT_EQ(LumRegionClose(region), 0);
}

TEST_F(PersistentTest, FileHeaderHoldsMagicVersionGenerationTimeAndPageSize) {
    int fd = lum_platform.open(Path("h").c_str(), O_RDWR | O_CREAT | O_TRUNC, 0600);
    ASSERT_GT(fd, 0);
    ASSERT_EQ(_LumFileHeaderWriteStamped(fd, 0x01020304, 0x11223344, 0), 0);
    std::array<uint8_t, 32> header, expected{'L', 'S', 'B', 0, '0', '1', '0', 0, 4, 3, 2, 1};
    ASSERT_EQ(_LumFileHeaderRead(fd, header.data()), 0);
    ImageStore32(&expected[12], 0x11223344);
    ImageStore32(&expected[16], Page()); // then 12 reserved bytes of zero
    EXPECT_EQ(header, expected);
    lumtest::FileFaults faults;
    faults.fail_write_at = 1;
    faults.short_write = true;
    EXPECT_EQ(_LumFileHeaderWriteStamped(fd, 1, 0, 0), LUM_RC_FAILURE);
    close(fd);
}
