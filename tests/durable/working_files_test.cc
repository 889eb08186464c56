// Persistent regions on disk: the working files of a new region, the dirty
// maps, and what close and drop leave behind.
#include <array>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <fstream>
#include <unistd.h>

#include "persistent_fixture.h"

using lumtest::FileFaults;

namespace {

using Names = std::vector<std::string>;
const Names kWorkingFiles = {"p_0.chk", "p_1.chk", "p_0.log", "p_1.log"};

// The files of region "p" in `dir` that exist: working files, tab, new tab.
Names Existing(const std::string &dir) {
    Names found;
    for (const char *file : {"p_0.chk", "p_1.chk", "p_0.log", "p_1.log", "p.tab", "p.tabnew"})
        if (lumtest::FileExists(dir + file))
            found.push_back(file);
    return found;
}

} // namespace

TEST_F(PersistentTest, NewRegionHasEmptyWorkingFilesAllPagesDirtyAndMarksEachPageTouched) {
    LumRegion *region = CreatePersistent();
    EXPECT_EQ(Existing(dir_.path()), kWorkingFiles);
    for (const auto &file : kWorkingFiles)
        EXPECT_TRUE(Read(file).empty()) << file;
    for (DirtyMap *map : region->dirty_map) {
        ASSERT_EQ(map->page_count, static_cast<int32_t>(4 * kMiB / Page()));
        for (int32_t page = 0; page < map->page_count; ++page)
            ASSERT_TRUE(_LumDirtyMapTest(map, page)) << page;
    }
    EXPECT_EQ(region->log_buffer->used, 12u + 12u + 2088u) << "LOG_SIZE and the header's LOG_DATA";

    // A change marks every page it touches, in both maps, and logs one
    // record per mark.
    ASSERT_EQ(_LumImageSetSize(region, 4 * Page()), 0);
    for (int parity = 0; parity < 2; ++parity)
        _LumDirtyMapFill(region, parity, 0);
    uint32_t before = region->log_buffer->used;
    Change(region, 2 * Page() - 1, 2, 1); // across the boundary of pages 1 and 2
    Change(region, 4 * Page() - 1, 1, 2); // the last byte of page 3
    for (DirtyMap *map : region->dirty_map) {
        for (uint32_t page = 0; page < 5; ++page)
            EXPECT_EQ(_LumDirtyMapTest(map, page), page == 0 || page == 4 ? 0 : 1) << page;
    }
    EXPECT_EQ(region->log_buffer->used, before + 16 + 16);
    EXPECT_EQ(LumRegionClose(region), 0);
}

TEST_F(PersistentTest, CreatingOverAnOldRegionEmptiesItsWorkingFilesAndDropRemovesAll) {
    for (const auto &file : kWorkingFiles)
        std::ofstream(Path(file)) << "old contents";
    std::ofstream(Path("p.tab")) << "old snapshot";
    LumRegion *region = CreatePersistent();
    for (const auto &file : kWorkingFiles)
        EXPECT_TRUE(Read(file).empty()) << file;
    auto tab = Read("p.tab");
    EXPECT_EQ(std::string(tab.begin(), tab.end()), "old snapshot");
    EXPECT_EQ(LumRegionDrop(region), 0);
    EXPECT_EQ(Existing(dir_.path()), Names{}) << "the tab goes too";
}

TEST_F(PersistentTest, FailedCreateRemovesTheWorkingFilesAgain) {
    for (std::string fail_open : {"", "p_0.log"}) {
        bool soft_limit = fail_open.empty(); // else one file cannot be created
        SCOPED_TRACE(soft_limit ? "soft limit below the header" : "a file cannot be created");
        FileFaults faults;
        faults.fail_open_suffix = fail_open;
        LumRegion *region = nullptr;
        void *base;
        EXPECT_EQ(LumRegionCreate("p", LUM_REGION_PERSISTENT, kMiB, soft_limit ? 0 : kMiB, 0, 0,
                                  dir_.path().c_str(), &region, &base),
                  soft_limit ? LUM_RC_SOFT_LIMIT : LUM_RC_FILE_CREATE);
        EXPECT_EQ(region, nullptr);
        EXPECT_EQ(faults.opens, 4) << "all four are created all the same";
        EXPECT_EQ(Existing(dir_.path()), Names{});
    }
}

TEST_F(PersistentTest, DurabilityRecordsThatCannotBeHadGiveNoMemory) {
    // Each allocation fails in turn: handle, mutex, two maps, buffer record
    // and data, mutex.
    for (uint32_t nth = 1;; ++nth) {
        lumtest::MallocFailure failure(nth);
        LumRegion *region = reinterpret_cast<LumRegion *>(1);
        int32_t rc = _LumImageCreate("p", LUM_REGION_PERSISTENT, kMiB, kMiB, 0, 0,
                                     dir_.path().c_str(), &region);
        if (rc == 0) {
            EXPECT_GE(nth, 8u);
            _LumImageDestroy(region);
            break;
        }
        EXPECT_EQ(rc, LUM_RC_NO_MEMORY) << "allocation " << nth;
        EXPECT_EQ(region, nullptr) << "allocation " << nth;
    }
}

// Close syncs the image to p.tab (sync_test.cc checks the snapshot) and
// deletes the working files; when that sync fails it returns the error and
// keeps them.
TEST_F(PersistentTest, CloseLeavesOnlyTheSnapshotOrOnlyTheWorkingFilesIfItsSyncFails) {
    for (bool fail : {true, false}) {
        SCOPED_TRACE(fail ? "failed sync" : "sync");
        LumRegion *region = CreatePersistent();
        ASSERT_EQ(_LumImageSetSize(region, 3 * Page()), 0);
        Change(region, 2 * Page() + 10, 100, 0x5C);
        std::vector<uint8_t> image(region->base, region->base + region->used);
        FileFaults faults;
        faults.fail_open_suffix = fail ? ".tabnew" : "";
        EXPECT_EQ(LumRegionClose(region), fail ? EACCES : 0);
        EXPECT_EQ(Existing(dir_.path()), fail ? kWorkingFiles : Names{"p.tab"});
        if (fail)
            continue;
        auto tab = Read("p.tab");
        ASSERT_EQ(tab.size(), 3 * Page());
        EXPECT_EQ(memcmp(tab.data() + 32, image.data() + 32, image.size() - 32), 0);
    }
}

TEST(DirtyMap, TestGivesOneOrZeroAndTakeClearsOnlyTheAskedBits) {
    DirtyMap *map = _LumDirtyMapAlloc(33);
    ASSERT_NE(map, nullptr);
    EXPECT_EQ(map->Words()[0] | map->Words()[1], 0u) << "a new map is clear";
    _LumDirtyMapSet(map, 31);
    _LumDirtyMapSet(map, 5);
    EXPECT_EQ(_LumDirtyMapTest(map, 31), 1);
    EXPECT_EQ(_LumDirtyMapTest(map, 30), 0);
    EXPECT_EQ(_LumDirtyMapTake(map, 0, 0x80000001u), 0x80000000u);
    EXPECT_EQ(map->Words()[0], 1u << 5);
    lum_free(map);
}

TEST_F(PersistentTest, FileHeaderHoldsMagicVersionGenerationTimeAndPageSize) {
    int fd = lum_platform.open(Path("h").c_str(), O_RDWR | O_CREAT | O_TRUNC, 0600);
    ASSERT_GT(fd, 0);
    uint32_t before = static_cast<uint32_t>(time(nullptr));
    ASSERT_EQ(_LumFileHeaderWrite(fd, 0x01020304), 0);
    std::array<uint8_t, 32> header, expected{'L', 'S', 'B', 0, '0', '1', '0', 0, 4, 3, 2, 1};
    ASSERT_EQ(_LumFileHeaderRead(fd, header.data()), 0);
    uint32_t stamp = ImageLoad32(&header[12]);
    EXPECT_GE(stamp, before);
    EXPECT_LE(stamp, static_cast<uint32_t>(time(nullptr)));
    ImageStore32(&expected[12], stamp);
    ImageStore32(&expected[16], Page()); // then 12 reserved bytes of zero
    EXPECT_EQ(header, expected);
    {
        FileFaults faults;
        faults.fail_write_at = 1;
        faults.short_write = true;
        EXPECT_EQ(_LumFileHeaderWrite(fd, 1), LUM_RC_FAILURE);
    }
    ASSERT_EQ(ftruncate(fd, 31), 0);
    EXPECT_EQ(_LumFileHeaderRead(fd, header.data()), LUM_RC_FAILURE) << "a short header";
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
