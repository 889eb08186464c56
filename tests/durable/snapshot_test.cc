// Snapshots: every failure of a sync and what it leaves on disk, and
// LumRegionSyncAll's checks of its target directory.
#include <algorithm>
#include <cctype>
#include <cstring>
#include <filesystem>

#include "persistent_fixture.h"

using lumtest::FileFaults;
using lumtest::LogCapture;

// A snapshot's bytes with the header's timestamp cleared: two snapshots of
// one image differ there when a second boundary passes between them.
static std::vector<uint8_t> Unstamped(std::vector<uint8_t> bytes) {
    memset(&bytes[file_header::kTimestamp], 0, 4);
    return bytes;
}

// Every test starts from a region with a snapshot: the image behind a
// header, forced to disk. A sync leaves the generation alone.
class SyncTest : public PersistentTest {
  protected:
    void SetUp() override {
        region_ = CreatePersistent();
        ASSERT_EQ(_LumImageSetSize(region_, 2 * Page()), 0);
        Change(region_, Page(), 64, 0x77);
        FileFaults faults;
        ASSERT_EQ(_LumRegionSync(region_, dir_.path().c_str()), 0);
        EXPECT_EQ(faults.fsyncs, 1);
        old_tab_ = Read("p.tab");
        ASSERT_EQ(old_tab_.size(), region_->used);
        EXPECT_EQ(ImageLoad32(&old_tab_[file_header::kGeneration]), 1u);
        EXPECT_EQ(memcmp(&old_tab_[32], region_->base + 32, region_->used - 32), 0);
        EXPECT_EQ(region_->sync_failed, 0);
        EXPECT_EQ(region_->generation.load(), 0u);
    }
    void TearDown() override {
        if (region_) {
            EXPECT_EQ(LumRegionDrop(region_), 0);
        }
    }

    LumRegion *region_ = nullptr;
    std::vector<uint8_t> old_tab_;
};

// Each failing step of a sync gives its result and its report (an id in set
// 2, or none) and leaves the working files. The old snapshot survives all
// but a failed rename, which leaves the complete new file instead. The next
// sync starts again.
TEST_F(SyncTest, FailedStepKeepsASnapshotAndTheNextSyncStartsAgain) {
    struct Row {
        const char *what, *open_suffix;
        int write_at;
        bool short_write, rename;
        int32_t rc;
        uint32_t report;
    };
    const Row rows[] = {
        {"open", ".tabnew", 0, false, false, EACCES, 21},
        {"header", "", 1, false, false, ENOSPC, 22},
        {"body", "", 2, false, false, ENOSPC, 23},
        {"short body without errno", "", 2, true, false, LUM_RC_FAILURE, 23},
        {"rename", "", 0, false, true, EXDEV, 0},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.what);
        {
            FileFaults faults;
            faults.fail_open_suffix = row.open_suffix;
            faults.fail_write_at = row.write_at;
            faults.short_write = row.short_write;
            faults.fail_rename = row.rename;
            LogCapture log;
            errno = 0;
            EXPECT_EQ(_LumRegionSync(region_, dir_.path().c_str()), row.rc);
            EXPECT_EQ(region_->sync_failed, 1);
            EXPECT_EQ(log.Records().size(), row.report ? 1u : 0u);
            EXPECT_EQ(log.Find(2, row.report).size(), row.report ? 1u : 0u);
        }
        EXPECT_EQ(Exists("p.tab"), !row.rename);
        EXPECT_EQ(Exists("p.tabnew"), row.rename);
        EXPECT_EQ(Unstamped(Read(row.rename ? "p.tabnew" : "p.tab")), Unstamped(old_tab_));
        for (const char *file : {"p_0.chk", "p_1.chk", "p_0.log", "p_1.log"})
            EXPECT_TRUE(Exists(file)) << file;
        ASSERT_EQ(_LumRegionSync(region_, dir_.path().c_str()), 0);
        EXPECT_FALSE(Exists("p.tabnew"));
        EXPECT_EQ(region_->sync_failed, 0);
        EXPECT_EQ(Unstamped(Read("p.tab")), Unstamped(old_tab_));
    }
}

TEST_F(SyncTest, DropAfterAFailedSyncKeepsTheWorkingFilesOnly) {
    {
        FileFaults faults;
        faults.fail_open_suffix = ".tabnew";
        EXPECT_NE(_LumRegionSync(region_, dir_.path().c_str()), 0);
    }
    EXPECT_EQ(LumRegionDrop(region_), 0);
    region_ = nullptr;
    EXPECT_FALSE(Exists("p.tab"));
    for (const char *file : {"p_0.chk", "p_1.chk", "p_0.log", "p_1.log"})
        EXPECT_TRUE(Exists(file)) << file;
}

TEST_F(SyncTest, SyncAllRefusesTheDataDirectoryByName) {
    std::string home = region_home, no_separator = home.substr(0, home.size() - 1);
    for (const std::string &path : {home, home + "///", no_separator})
        EXPECT_EQ(LumRegionSyncAll(path.c_str()), LUM_RC_BAD_PATH) << path;
    // Another spelling of the same name, where the file system has one.
    std::string upper = no_separator;
    std::transform(upper.begin(), upper.end(), upper.begin(), ::toupper);
    std::string parent = upper.substr(0, upper.rfind('/'));
    if (std::filesystem::exists(parent)) {
        std::filesystem::create_directory(upper);
        EXPECT_EQ(LumRegionSyncAll(upper.c_str()), LUM_RC_BAD_PATH);
        std::filesystem::remove(upper);
    }
}

TEST_F(SyncTest, SyncAllExpandsTheEnvironmentAndCreatesOneMissingLevel) {
    setenv("LUM_SYNC_TEST_DIR", dir_.path().c_str(), 1);
    ASSERT_EQ(LumRegionSyncAll("${LUM_SYNC_TEST_DIR}snapshots"), 0);
    unsetenv("LUM_SYNC_TEST_DIR");
    EXPECT_EQ(Read("snapshots/p.tab").size(), region_->used);
    EXPECT_EQ(Read("p.tab"), old_tab_) << "the region's own snapshot is not touched";
    EXPECT_EQ(LumRegionSyncAll((dir_.path() + "missing/twice").c_str()), ENOENT);
}

TEST_F(SyncTest, SyncAllReturnsTheFirstFailureAndSyncsTheOthers) {
    LumRegion *second = CreatePersistent("q");
    LumRegion *third = CreatePersistent("r");
    std::string target = dir_.path() + "all/";
    {
        FileFaults faults;
        faults.fail_open_suffix = "q.tabnew";
        EXPECT_EQ(LumRegionSyncAll(target.c_str()), EACCES);
    }
    EXPECT_TRUE(lumtest::FileExists(target + "p.tab"));
    EXPECT_FALSE(lumtest::FileExists(target + "q.tab"));
    EXPECT_TRUE(lumtest::FileExists(target + "r.tab"));
    EXPECT_EQ(second->sync_failed, 1);
    EXPECT_EQ(third->sync_failed, 0);
    EXPECT_EQ(LumRegionDrop(second), 0);
    EXPECT_EQ(LumRegionDrop(third), 0);
}

TEST_F(SyncTest, SyncAllWithABadPathTouchesNoRegion) {
    EXPECT_EQ(LumRegionSyncAll(""), ENOENT) << "an empty path fails as a missing one does";
    EXPECT_EQ(LumRegionSyncAll("\xff\xfe"), EILSEQ);
    EXPECT_EQ(LumRegionSyncAll(nullptr), LUM_RC_FAILURE);
    EXPECT_EQ(region_->sync_failed, 0);
}

TEST(PathStrip, RemovesTrailingSeparatorsButNeverTheFirstCharacter) {
    const std::pair<const char *, const char *> cases[] = {
        {"/data///", "/data"}, {"/data", "/data"}, {"/", "/"}, {"//", "/"}, {"", ""}};
    for (auto [path, expected] : cases) {
        char *stripped = nullptr;
        ASSERT_EQ(_LumPathStrip(path, &stripped), 0) << path;
        EXPECT_STREQ(stripped, expected) << path;
        lum_free(stripped);
    }
}

TEST(PathCheckHome, RefusesTheHomeNameInAnyCase) {
    EXPECT_EQ(_LumPathCheckHome("/Data/Home/", "/data/home"), LUM_RC_BAD_PATH);
    EXPECT_EQ(_LumPathCheckHome("/data/home//", "/data/home"), LUM_RC_BAD_PATH);
    EXPECT_EQ(_LumPathCheckHome("/data/home/", "/data/home/other"), 0);
    EXPECT_EQ(_LumPathCheckHome("/data/home/", "/data/./home"), 0) << "names, not directories";
}
