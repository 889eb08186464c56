// Persistent regions on disk: the working files of a new region, the dirty
// maps, and what close and drop leave behind.
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <unistd.h>

#include "persistent_fixture.h"

using lumtest::FileFaults;
using lumtest::MallocFailure;

namespace {

const char *const kWorkingFiles[] = {"p_0.chk", "p_1.chk", "p_0.log", "p_1.log"};

void WriteFile(const std::string &path, const std::string &content) {
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    ASSERT_EQ(write(fd, content.data(), content.size()), static_cast<ssize_t>(content.size()));
    close(fd);
}

bool AllBitsSet(DirtyMap *map) {
    for (int32_t page = 0; page < map->page_count; ++page) {
        if (!_LumDirtyMapTest(map, page))
            return false;
    }
    return true;
}

} // namespace

TEST_F(PersistentTest, NewRegionHasFourEmptyWorkingFilesAndAllPagesDirty) {
    LumRegion *region = CreatePersistent();
    for (const char *file : kWorkingFiles) {
        EXPECT_TRUE(Exists(file)) << file;
        EXPECT_TRUE(Read(file).empty()) << file;
    }
    EXPECT_FALSE(Exists("p.tab"));
    EXPECT_EQ(region->used, Page());
    EXPECT_EQ(region->committed, kMiB);
    EXPECT_EQ(region->dirty_map[0]->page_count, static_cast<int32_t>(4 * kMiB / Page()));
    EXPECT_TRUE(AllBitsSet(region->dirty_map[0]));
    EXPECT_TRUE(AllBitsSet(region->dirty_map[1]));
    EXPECT_EQ(region->log_buffer->used, 12u + 12u + 2088u) << "LOG_SIZE and the header's LOG_DATA";
    LumRegionInfo info;
    LumRegionGetInfo(region, &info);
    EXPECT_EQ(info.checkpointing, 1);
    EXPECT_EQ(info.segment_count, 0u);
    EXPECT_EQ(LumRegionClose(region), 0);
}

TEST_F(PersistentTest, CreatingOverAnOldRegionEmptiesItsWorkingFilesAndKeepsItsTab) {
    for (const char *file : kWorkingFiles)
        WriteFile(Path(file), "old contents");
    WriteFile(Path("p.tab"), "old snapshot");
    LumRegion *region = CreatePersistent();
    for (const char *file : kWorkingFiles)
        EXPECT_TRUE(Read(file).empty()) << file;
    auto tab = Read("p.tab");
    EXPECT_EQ(std::string(tab.begin(), tab.end()), "old snapshot");
    EXPECT_EQ(LumRegionDrop(region), 0);
}

TEST_F(PersistentTest, SoftLimitBelowTheHeaderRemovesTheFilesAgain) {
    LumRegion *region = nullptr;
    void *base;
    EXPECT_EQ(LumRegionCreate("p", LUM_REGION_PERSISTENT, kMiB, 0, 0, 0, dir_.path().c_str(),
                              &region, &base),
              LUM_RC_SOFT_LIMIT);
    EXPECT_EQ(region, nullptr);
    for (const char *file : kWorkingFiles)
        EXPECT_FALSE(Exists(file)) << file;
}

TEST_F(PersistentTest, OneFileThatCannotBeCreatedUndoesAllFour) {
    FileFaults faults;
    faults.fail_open_suffix = "p_0.log";
    LumRegion *region = nullptr;
    void *base;
    EXPECT_EQ(LumRegionCreate("p", LUM_REGION_PERSISTENT, kMiB, kMiB, 0, 0, dir_.path().c_str(),
                              &region, &base),
              LUM_RC_FILE_CREATE);
    EXPECT_EQ(faults.opens, 4) << "the fourth file is created all the same";
    for (const char *file : kWorkingFiles)
        EXPECT_FALSE(Exists(file)) << file;
}

TEST_F(PersistentTest, DurabilityRecordsThatCannotBeHadGiveNoMemory) {
    LumRegion *region = reinterpret_cast<LumRegion *>(1);
    EXPECT_EQ(
        _LumImageCreate("p", LUM_REGION_PERSISTENT, 0, kMiB, 0, 0, dir_.path().c_str(), &region),
        LUM_RC_NO_MEMORY)
        << "a map of no pages";
    EXPECT_EQ(region, nullptr);
    // Handle, mutex, two maps, buffer record and data, mutex: each may fail.
    for (uint32_t nth = 1;; ++nth) {
        MallocFailure failure(nth);
        region = reinterpret_cast<LumRegion *>(1);
        int32_t rc = _LumImageCreate("p", LUM_REGION_PERSISTENT, kMiB, kMiB, 0, 0,
                                     dir_.path().c_str(), &region);
        if (rc == 0) {
            EXPECT_GE(nth, 8u);
            _LumImageDestroy(region);
            break;
        }
        EXPECT_EQ(rc, LUM_RC_NO_MEMORY) << "allocation " << nth;
        EXPECT_EQ(region, nullptr);
    }
}

TEST_F(PersistentTest, CloseLeavesOnlyTheSnapshot) {
    LumRegion *region = CreatePersistent();
    ASSERT_EQ(_LumImageSetSize(region, 3 * Page()), 0);
    Change(region, 2 * Page() + 10, 100, 0x5C);
    region->generation = 6;
    std::vector<uint8_t> image(region->base, region->base + region->used);
    ASSERT_EQ(LumRegionClose(region), 0);

    auto tab = Read("p.tab");
    ASSERT_EQ(tab.size(), 3 * Page());
    EXPECT_EQ(memcmp(tab.data(),
                     "LSB\0"
                     "010\0",
                     8),
              0);
    EXPECT_EQ(ImageLoad32(&tab[file_header::kGeneration]), 7u) << "generation + 1";
    EXPECT_EQ(ImageLoad32(&tab[file_header::kPageSize]), Page());
    EXPECT_EQ(memcmp(tab.data() + 32, image.data() + 32, image.size() - 32), 0);
    for (const char *file : kWorkingFiles)
        EXPECT_FALSE(Exists(file)) << file;
    EXPECT_FALSE(Exists("p.tabnew"));
}

TEST_F(PersistentTest, DropLeavesNoFile) {
    WriteFile(Path("p.tab"), "old snapshot");
    LumRegion *region = CreatePersistent();
    EXPECT_EQ(LumRegionDrop(region), 0);
    for (const char *file : {"p_0.chk", "p_1.chk", "p_0.log", "p_1.log", "p.tab"})
        EXPECT_FALSE(Exists(file)) << file;
}

TEST_F(PersistentTest, CloseWhoseSyncFailsKeepsTheWorkingFiles) {
    LumRegion *region = CreatePersistent();
    FileFaults faults;
    faults.fail_open_suffix = ".tabnew";
    EXPECT_EQ(LumRegionClose(region), EACCES);
    for (const char *file : kWorkingFiles)
        EXPECT_TRUE(Exists(file)) << file;
    EXPECT_FALSE(Exists("p.tab"));
}

TEST_F(PersistentTest, MarksSetOneBitPerPageTouchedInBothMaps) {
    LumRegion *region = CreatePersistent();
    ASSERT_EQ(_LumImageSetSize(region, 4 * Page()), 0);
    for (int parity = 0; parity < 2; ++parity)
        _LumDirtyMapFill(region, parity, 0);
    uint32_t before = region->log_buffer->used;

    Change(region, 2 * Page() - 1, 2, 1); // across the boundary of pages 1 and 2
    Change(region, 4 * Page() - 1, 1, 2); // the last byte of page 3
    for (DirtyMap *map : region->dirty_map) {
        EXPECT_FALSE(_LumDirtyMapTest(map, 0));
        EXPECT_TRUE(_LumDirtyMapTest(map, 1));
        EXPECT_TRUE(_LumDirtyMapTest(map, 2));
        EXPECT_TRUE(_LumDirtyMapTest(map, 3));
        EXPECT_FALSE(_LumDirtyMapTest(map, 4));
    }
    EXPECT_EQ(region->log_buffer->used, before + 16 + 16) << "one record per mark";
    EXPECT_EQ(LumRegionClose(region), 0);
}

TEST(DirtyMap, TestGivesOneOrZeroAndTakeClearsOnlyTheAskedBits) {
    DirtyMap *map = _LumDirtyMapAlloc(33);
    ASSERT_NE(map, nullptr);
    EXPECT_EQ(map->page_count, 33);
    EXPECT_EQ(map->Words()[0], 0u);
    EXPECT_EQ(map->Words()[1], 0u);
    _LumDirtyMapSet(map, 31);
    _LumDirtyMapSet(map, 5);
    EXPECT_EQ(_LumDirtyMapTest(map, 31), 1);
    EXPECT_EQ(_LumDirtyMapTest(map, 30), 0);
    EXPECT_EQ(_LumDirtyMapTake(map, 0, 0x80000001u), 0x80000000u);
    EXPECT_EQ(map->Words()[0], 1u << 5);
    EXPECT_EQ(_LumDirtyMapAlloc(0), nullptr);
    lum_free(map);
}

TEST(DirtyMap, VolatileRegionMarksNothing) {
    LumRegion *region;
    void *base;
    ASSERT_EQ(LumRegionCreate("v", LUM_REGION_VOLATILE, kMiB, kMiB, 0, 0, nullptr, &region, &base),
              0);
    _LumImageMarkDirty(region, region->base, 10); // no maps, no buffer: must not touch them
    EXPECT_EQ(region->dirty_map[0], nullptr);
    EXPECT_EQ(region->log_buffer, nullptr);
    EXPECT_EQ(LumRegionClose(region), 0);
}

TEST_F(PersistentTest, FileHeaderHoldsMagicVersionGenerationTimeAndPageSize) {
    int fd = lum_platform.open(Path("h").c_str(), O_RDWR | O_CREAT | O_TRUNC, 0600);
    ASSERT_GT(fd, 0);
    time_t before = time(nullptr);
    ASSERT_EQ(_LumFileHeaderWrite(fd, 0x01020304), 0);
    uint8_t header[32];
    ASSERT_EQ(_LumFileHeaderRead(fd, header), 0);
    EXPECT_EQ(memcmp(header,
                     "LSB\0"
                     "010\0"
                     "\x04\x03\x02\x01",
                     12),
              0);
    uint32_t stamp = ImageLoad32(header + 12);
    EXPECT_GE(stamp, static_cast<uint32_t>(before));
    EXPECT_LE(stamp, static_cast<uint32_t>(time(nullptr)));
    EXPECT_EQ(ImageLoad32(header + 16), Page());
    for (int i = 20; i < 32; ++i)
        EXPECT_EQ(header[i], 0) << i;
    {
        FileFaults faults;
        faults.fail_write_at = 1;
        faults.short_write = true;
        EXPECT_EQ(_LumFileHeaderWrite(fd, 1), LUM_RC_FAILURE);
    }
    ASSERT_EQ(ftruncate(fd, 31), 0);
    EXPECT_EQ(_LumFileHeaderRead(fd, header), LUM_RC_FAILURE) << "a short header";
    close(fd);
}

TEST_F(PersistentTest, PositionedWriteSurvivesVanishedMemory) {
    LumRegion *region = CreatePersistent();
    ASSERT_EQ(_LumImageSetSize(region, 2 * kMiB), 0);
    ASSERT_EQ(_LumImageSetSize(region, Page()), 0); // decommits the second MiB
    int fd = region->chk_fd[0];
    errno = 0;
    EXPECT_EQ(_LumPwrite(fd, region->base + kMiB, Page(), Page()), -1);
    EXPECT_EQ(errno, EFAULT);
    EXPECT_EQ(_LumPwrite(fd, region->base, Page(), Page()), static_cast<ssize_t>(Page()));
    uint8_t back[16];
    EXPECT_EQ(_LumPread(fd, back, sizeof back, Page()), -1) << "the working file is write-only";
    EXPECT_EQ(LumRegionClose(region), 0);
}
