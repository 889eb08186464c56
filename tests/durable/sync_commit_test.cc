// Region.SyncCommit: which file each step forces, and what a failed force does.
#include <tuple>

#include "persistent_fixture.h"

namespace {

// The data forces by descriptor; those whose bit (1 << n for the n-th, from
// 1) is set, or every directory force, fail.
struct Forces {
    std::vector<int> data;
    int directories = 0;
    uint32_t fail_data = 0;
    bool fail_directory = false;
} forces;

int RecordDataForce(int fd) {
    forces.data.push_back(fd);
    if (forces.fail_data >> forces.data.size() & 1)
        return errno = EIO, -1;
    return lum_platform_system.fdatasync(fd);
}

int RecordDirectoryForce(int fd) { // the library forces files only through fdatasync
    ++forces.directories;
    if (forces.fail_directory)
        return errno = EIO, -1;
    return lum_platform_system.fsync(fd);
}

} // namespace

class SyncCommitTest : public PersistentTest {
  protected:
    void SetUp() override {
        forces = {};
        lum_platform.fdatasync = RecordDataForce;
        lum_platform.fsync = RecordDirectoryForce;
    }
    void TearDown() override { region_sync_commit = 0; }
    static LumLogState LogState(LumRegion *region) {
        LumLogState state{};
        EXPECT_EQ(LumRegionGetLogState(region, &state), 0);
        return state;
    }
    lumtest::PlatformGuard guard_;
};

// On, the directory is forced at create, the log at each commit and the chk
// file before the commit that acknowledges it. The host sees a failed log in
// the log state, from the first failed log of a run; the chk file's failed
// force keeps its checkpoint unacknowledged.
TEST_F(SyncCommitTest, EachForceComesBeforeWhatItCoversAndAFailedOneIsSeen) {
    const std::tuple<const char *, int32_t, uint32_t, bool, bool, bool> rows[] = {
        // what, sync, data forces to fail, log failed, checkpoint acknowledged,
        // log still failing after the acknowledgement
        {"no failure", 1, 0, false, true, false},
        {"the commit's force", 1, 1 << 1, true, true, false},
        {"the chk file's force", 1, 1 << 2, false, false, false},
        {"the commit's and the next log's force", 1, 1 << 1 | 1 << 3, true, true, true},
        {"the log write, property off", 0, 0, true, true, false},
    };
    for (auto [what, sync, fail_data, log_failed, acknowledged, still_failing] : rows) {
        SCOPED_TRACE(what);
        region_sync_commit = sync;
        forces = {};
        LumRegion *region = CreatePersistent(what);
        EXPECT_EQ(forces.directories, sync);
        ASSERT_EQ(LumRegionCheckpoint(region), 0);
        LumRegionCommit(region);
        forces = {};
        forces.fail_data = fail_data;
        Change(region, 3000, 8, 2);
        uint32_t generation = region->generation;
        int log = region->log_fd[generation % 2];
        {
            lumtest::FileFaults faults;
            faults.fail_write_at = sync ? 0 : 1;
            LumRegionCommit(region);
        }
        EXPECT_EQ(LogState(region).failed, log_failed ? 1 : 0);
        EXPECT_EQ(LogState(region).failed_since, log_failed ? generation : 0);
        EXPECT_EQ(LumRegionCheckpoint(region) == 0, acknowledged);
        int chk = region->chk_fd[region->generation % 2];
        LumRegionCommit(region);
        int next_log = region->log_fd[region->generation % 2];
        if (fail_data == 0) {
            EXPECT_EQ(forces.data, sync ? (std::vector{log, chk, next_log}) : std::vector<int>{});
        }
        auto records =
            ParseLog(Read(std::string(what) + (region->generation % 2 ? "_1" : "_0") + ".log"));
        EXPECT_EQ(std::ranges::count(records, LOG_CHECKPOINT, &ParsedRecord::type),
                  acknowledged ? 1 : 0);
        EXPECT_EQ(LogState(region).failed, still_failing ? 1 : 0) << "the next log takes commits";
        EXPECT_EQ(LogState(region).failed_since, still_failing ? generation : 0);
        EXPECT_EQ(LumRegionDrop(region), 0);
    }
    region_sync_commit = 1;
    forces.fail_directory = true;
    LumRegion *region;
    void *base;
    EXPECT_EQ(LumRegionCreate("nodir", LUM_REGION_PERSISTENT, 4 * kMiB, 4 * kMiB, 0, 0,
                              dir_.path().c_str(), &region, &base),
              LUM_RC_FILE_CREATE);
    EXPECT_FALSE(Exists("nodir_0.log"));
    LumLogState state;
    EXPECT_EQ(LumRegionGetLogState(nullptr, &state), LUM_RC_FAILURE);
}
