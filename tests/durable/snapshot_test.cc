// Snapshots: what a close leaves when a step of its sync fails, and LumRegionSyncAll.
#include <cstring>
#include <tuple>
#include <sys/stat.h>

#include "persistent_fixture.h"

namespace {

using Names = std::vector<std::string>;
const Names kWorkingFiles = {"p_0.chk", "p_1.chk", "p_0.log", "p_1.log"};

Names Existing(const std::string &dir, const std::string &name = "p") {
    Names found;
    for (const char *suffix : {"_0.chk", "_1.chk", "_0.log", "_1.log", ".tab", ".tabnew"})
        if (std::filesystem::exists(dir + name + suffix))
            found.push_back(name + suffix);
    return found;
}

int FailingFsync(int) {
    return errno = EIO, -1;
}
int FailingDirectoryFsync(int fd) {
    struct stat info;
    if (fstat(fd, &info) == 0 && S_ISDIR(info.st_mode))
        return errno = EIO, -1;
    return lum_platform_system.fsync(fd);
}
int FailingClose(int fd) {
    lum_platform_system.close(fd); // closed all the same
    return errno = EIO, -1;
}

} // namespace

// A failed step keeps the working files and the old snapshot whole: beside the
// new one after a failed rename, replaced when only the directory fsync failed.
TEST_F(PersistentTest, CloseKeepsTheWorkingFilesWhenAnyStepOfItsSyncFails) {
    using Fails = int (*)(int);
    // what, failing open, failing write, short write, failing rename, fsync, close, rc, report
    const std::tuple<const char *, const char *, int, bool, bool, Fails, Fails, int32_t, uint32_t>
        rows[] = {
            {"none", "", 0, false, false, nullptr, nullptr, 0, 0},
            {"open", ".tabnew", 0, false, false, nullptr, nullptr, EACCES, 21},
            {"header", "", 1, false, false, nullptr, nullptr, ENOSPC, 22},
            {"body", "", 2, false, false, nullptr, nullptr, ENOSPC, 23},
            {"short body without errno", "", 2, true, false, nullptr, nullptr, LUM_RC_FAILURE, 23},
            {"fsync", "", 0, false, false, FailingFsync, nullptr, EIO, 23},
            {"close", "", 0, false, false, nullptr, FailingClose, EIO, 23},
            {"rename", "", 0, false, true, nullptr, nullptr, EXDEV, 0},
            {"directory", "", 0, false, false, FailingDirectoryFsync, nullptr, EIO, 31},
        };
    for (auto [what, open_suffix, write_at, short_write, rename, fsync, close, rc, report] : rows) {
        SCOPED_TRACE(what);
        LumRegion *region = CreatePersistent();
        ASSERT_EQ(_LumImageSetSize(region, 2 * Page()), 0);
        ASSERT_EQ(_LumRegionSync(region, dir_.path().c_str()), 0);
        auto old_tab = Read("p.tab");
        Change(region, Page(), 64, 0x77);
        std::vector<uint8_t> image(region->base, region->base + region->used);
        lumtest::FileFaults faults;
        faults.fail_open_suffix = open_suffix;
        faults.fail_write_at = write_at;
        faults.short_write = short_write;
        faults.fail_rename = rename;
        lum_platform.fsync = fsync ? fsync : lum_platform.fsync;
        lum_platform.close = close ? close : lum_platform.close;
        lumtest::LogCapture log;
        errno = 0;
        EXPECT_EQ(LumRegionClose(region), rc);
        EXPECT_EQ(log.Records().size(), report ? 1u : 0u);
        EXPECT_EQ(log.Find(2, report).size(), report ? 1u : 0u);
        Names left = rc == 0 ? Names{} : kWorkingFiles;
        left.push_back("p.tab");
        if (rename)
            left.push_back("p.tabnew");
        EXPECT_EQ(Existing(dir_.path()), left);
        auto tab = Read(left.back());
        ASSERT_EQ(tab.size(), 2 * Page());
        EXPECT_EQ(ImageLoad32(&tab[file_header::kGeneration]), 1u);
        bool written = rc == 0 || rename || fsync == FailingDirectoryFsync;
        if (rename) {
            EXPECT_EQ(Read("p.tab"), old_tab);
        }
        EXPECT_EQ(memcmp(&tab[32], written ? &image[32] : &old_tab[32], 2 * Page() - 32), 0);
    }
}

// Bad targets make and open nothing; a good one is expanded and made one
// level deep, and the first failure is the result.
TEST_F(PersistentTest, SyncAllSyncsEveryRegionIntoTheExpandedPathAndReturnsTheFirstFailure) {
    LumRegion *regions[] = {CreatePersistent(), CreatePersistent("q"), CreatePersistent("r")};
    std::string too_long = dir_.path() + std::string(kPathBufferSize - dir_.path().size() - 9, 'd');
    {
        lumtest::FileFaults faults;
        EXPECT_EQ(LumRegionSyncAll(too_long.c_str()), LUM_RC_BAD_PATH);
        EXPECT_FALSE(std::filesystem::exists(too_long));
        EXPECT_EQ(LumRegionSyncAll(""), ENOENT) << "an empty path fails as a missing one does";
        EXPECT_EQ(LumRegionSyncAll("\xff\xfe"), EILSEQ);
        EXPECT_EQ(LumRegionSyncAll(nullptr), LUM_RC_FAILURE);
        EXPECT_EQ(std::make_pair(faults.opens, regions[0]->sync_failed), std::make_pair(0, 0));
        EXPECT_EQ(_LumRegionSync(regions[0], (too_long + "/").c_str()), LUM_RC_BAD_PATH);
        EXPECT_EQ(std::make_pair(faults.opens, regions[0]->sync_failed), std::make_pair(0, 1));
    }
    setenv("LUM_SYNC_TEST_DIR", dir_.path().c_str(), 1);
    {
        lumtest::FileFaults faults; // p fails at its open, q and r at their renames
        faults.fail_open_suffix = "p.tabnew";
        faults.fail_rename = true;
        EXPECT_EQ(LumRegionSyncAll("${LUM_SYNC_TEST_DIR}all"), EACCES) << "the first failure";
    }
    {
        lumtest::FileFaults faults;
        faults.fail_open_suffix = "q.tabnew";
        EXPECT_EQ(LumRegionSyncAll("${LUM_SYNC_TEST_DIR}all"), EACCES);
    }
    unsetenv("LUM_SYNC_TEST_DIR");
    EXPECT_EQ(Read("all/p.tab").size(), regions[0]->used);
    EXPECT_EQ(std::make_pair(Exists("all/q.tab"), Exists("all/r.tab")),
              std::make_pair(false, true));
    EXPECT_EQ(std::make_pair(regions[1]->sync_failed, regions[2]->sync_failed),
              std::make_pair(1, 0));
    EXPECT_FALSE(Exists("p.tab")) << "the region's own snapshot is not touched";
    EXPECT_EQ(LumRegionSyncAll((dir_.path() + "missing/twice").c_str()), ENOENT);
    EXPECT_EQ(LumRegionSyncAll((std::string(region_home) + "//").c_str()), LUM_RC_BAD_PATH);
    EXPECT_EQ(LumRegionSyncAll(dir_.path().c_str()), LUM_RC_BAD_PATH) << "the regions' own";
    EXPECT_EQ(_LumPathCheckHome("/Data/Home/", "/data/home"), LUM_RC_BAD_PATH);
    for (auto [path, expected] : {std::pair{"/data///", "/data"}, {"/", "/"}, {"//", "/"}}) {
        char *stripped = nullptr;
        ASSERT_EQ(_LumPathStrip(path, &stripped), 0);
        EXPECT_STREQ(stripped, expected) << "trailing separators go, the first character stays";
        lum_free(stripped);
    }
    for (LumRegion *region : regions)
        EXPECT_EQ(LumRegionDrop(region), 0);
    EXPECT_EQ(Existing(dir_.path(), "q"), (Names{"q_0.chk", "q_1.chk", "q_0.log", "q_1.log"}))
        << "a drop after a failed sync keeps the working files";
    EXPECT_EQ(Existing(dir_.path(), "r"), Names{});
}
