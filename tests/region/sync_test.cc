// Snapshots: every failure of a sync and what it leaves on disk, and
// LumRegionSyncAll's checks of its target directory.
#include <cstring>
#include <filesystem>

#include "persistent_fixture.h"

using lumtest::FileFaults;
using lumtest::LogCapture;

namespace {

std::string Upper(std::string text) {
    for (char &c : text)
        c = static_cast<char>(toupper(static_cast<unsigned char>(c)));
    return text;
}

} // namespace

class SyncTest : public PersistentTest {
  protected:
    void SetUp() override {
        region_ = CreatePersistent();
        ASSERT_EQ(_LumImageSetSize(region_, 2 * Page()), 0);
        Change(region_, Page(), 64, 0x77);
        ASSERT_EQ(_LumRegionSync(region_, dir_.path().c_str()), 0);
        old_tab_ = Read("p.tab");
    }
    void TearDown() override {
        if (region_) {
            EXPECT_EQ(LumRegionDrop(region_), 0);
        }
    }

    // Syncs with a fault and checks the result, the report and the files.
    void ExpectFailedSync(int32_t rc, uint32_t message_id, bool tabnew_stays, bool tab_stays) {
        LogCapture log;
        EXPECT_EQ(_LumRegionSync(region_, dir_.path().c_str()), rc);
        EXPECT_EQ(region_->sync_failed, 1);
        if (message_id != 0) {
            EXPECT_EQ(log.Find(2, message_id).size(), 1u);
        } else {
            EXPECT_TRUE(log.Records().empty());
        }
        EXPECT_EQ(Exists("p.tabnew"), tabnew_stays);
        EXPECT_EQ(Exists("p.tab"), tab_stays);
        if (tab_stays) {
            EXPECT_EQ(Read("p.tab"), old_tab_) << "the old snapshot is intact";
        }
        for (const char *file : {"p_0.chk", "p_1.chk", "p_0.log", "p_1.log"})
            EXPECT_TRUE(Exists(file)) << file;
    }

    LumRegion *region_ = nullptr;
    std::vector<uint8_t> old_tab_;
};

TEST_F(SyncTest, SnapshotIsTheImageBehindAHeaderAndForcedToDisk) {
    FileFaults faults;
    ASSERT_EQ(_LumRegionSync(region_, dir_.path().c_str()), 0);
    EXPECT_EQ(faults.fsyncs, 1);
    auto tab = Read("p.tab");
    ASSERT_EQ(tab.size(), region_->used);
    EXPECT_EQ(ImageLoad32(&tab[file_header::kGeneration]), 1u);
    EXPECT_EQ(memcmp(tab.data() + 32, region_->base + 32, region_->used - 32), 0);
    EXPECT_EQ(region_->sync_failed, 0);
    EXPECT_EQ(region_->generation.load(), 0u) << "a sync leaves the generation alone";
}

TEST_F(SyncTest, FailedOpenLeavesTheOldSnapshot) {
    FileFaults faults;
    faults.fail_open_suffix = ".tabnew";
    ExpectFailedSync(EACCES, 21, false, true);
}

TEST_F(SyncTest, FailedHeaderDeletesTheNewFile) {
    FileFaults faults;
    faults.fail_write_at = 1;
    ExpectFailedSync(ENOSPC, 22, false, true);
}

TEST_F(SyncTest, FailedBodyDeletesTheNewFile) {
    FileFaults faults;
    faults.fail_write_at = 2;
    ExpectFailedSync(ENOSPC, 23, false, true);
}

TEST_F(SyncTest, ShortBodyWithoutErrnoGivesGeneralFailure) {
    FileFaults faults;
    faults.fail_write_at = 2;
    faults.short_write = true;
    errno = 0;
    ExpectFailedSync(LUM_RC_FAILURE, 23, false, true);
}

TEST_F(SyncTest, FailedRenameKeepsTheCompleteNewFile) {
    {
        FileFaults faults;
        faults.fail_rename = true;
        ExpectFailedSync(EXDEV, 0, true, false);
    }
    EXPECT_EQ(Read("p.tabnew").size(), region_->used);
    ASSERT_EQ(_LumRegionSync(region_, dir_.path().c_str()), 0) << "the next sync starts again";
    EXPECT_FALSE(Exists("p.tabnew"));
    EXPECT_EQ(region_->sync_failed, 0);
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
    std::string home = region_home;
    EXPECT_EQ(LumRegionSyncAll(home.c_str()), LUM_RC_BAD_PATH);
    EXPECT_EQ(LumRegionSyncAll((home + "///").c_str()), LUM_RC_BAD_PATH);
    std::string no_separator = home.substr(0, home.size() - 1);
    EXPECT_EQ(LumRegionSyncAll(no_separator.c_str()), LUM_RC_BAD_PATH);
    // Another spelling of the same name, where the file system has one.
    std::string upper = Upper(no_separator);
    std::string parent = upper.substr(0, upper.rfind('/'));
    if (std::filesystem::exists(parent)) {
        std::filesystem::create_directory(upper);
        EXPECT_EQ(LumRegionSyncAll(upper.c_str()), LUM_RC_BAD_PATH);
        std::filesystem::remove(upper);
    }
}

TEST_F(SyncTest, SyncAllCreatesOneMissingLevelAndWritesEverySnapshot) {
    std::string target = dir_.path() + "snapshots";
    ASSERT_EQ(LumRegionSyncAll(target.c_str()), 0);
    auto tab = lumtest::ReadFile(target + "/p.tab");
    ASSERT_EQ(tab.size(), region_->used);
    EXPECT_EQ(Read("p.tab"), old_tab_) << "the region's own snapshot is not touched";
    EXPECT_EQ(LumRegionSyncAll((dir_.path() + "missing/twice").c_str()), ENOENT);
}

TEST_F(SyncTest, SyncAllExpandsTheEnvironment) {
    setenv("LUM_SYNC_TEST_DIR", dir_.path().c_str(), 1);
    ASSERT_EQ(LumRegionSyncAll("${LUM_SYNC_TEST_DIR}expanded/"), 0);
    EXPECT_TRUE(Exists("expanded/p.tab"));
    unsetenv("LUM_SYNC_TEST_DIR");
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
