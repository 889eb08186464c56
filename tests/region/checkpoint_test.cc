// Commit and checkpoint: the generations, states and files through the
// sequence of a region's life, every failure with the generation rule it
// follows, offline and online, and a writer that commits while checkpoints
// run, whose files must replay to its image.
#include <atomic>
#include <cerrno>
#include <cstring>
#include <functional>
#include <random>
#include <thread>

#include "persistent_fixture.h"

using lumtest::FileFaults;
using lumtest::LogCapture;

namespace {

// Runs a function once, in the middle of the next checkpoint: at its first
// page write to the chk file of `parity`, after the header went out.
class DuringCheckpoint {
  public:
    DuringCheckpoint(LumRegion *region, int parity, std::function<void()> action)
        : fd_(region->chk_fd[parity]), action_(std::move(action)) {
        active_ = this;
        lum_platform.pwrite = Pwrite;
    }
    ~DuringCheckpoint() { active_ = nullptr; }
    int page_writes = 0;

  private:
    static ssize_t Pwrite(int fd, const void *buffer, size_t count, off_t offset) {
        if (active_ && fd == active_->fd_ && count != file_header::kSize) {
            if (active_->page_writes++ == 0)
                active_->action_();
        }
        return lum_platform_system.pwrite(fd, buffer, count, offset);
    }
    static inline DuringCheckpoint *active_;
    int fd_;
    std::function<void()> action_;
    lumtest::PlatformGuard guard_;
};

struct Generations {
    uint32_t generation, next, flushed, state;
    bool operator==(const Generations &) const = default;
};

std::ostream &operator<<(std::ostream &out, const Generations &g) {
    return out << "{" << g.generation << ", " << g.next << ", " << g.flushed << ", " << g.state
               << "}";
}

Generations Of(const LumRegion *region) {
    return {region->generation.load(), region->next_generation.load(),
            region->flushed_generation.load(), region->checkpoint_state.load()};
}

std::vector<uint32_t> TypesOf(const std::vector<ParsedRecord> &records, size_t last) {
    std::vector<uint32_t> types;
    for (size_t i = records.size() - std::min(last, records.size()); i < records.size(); ++i)
        types.push_back(records[i].type);
    return types;
}

int32_t Checkpoint(LumRegion *region) {
    LumMutexLock(region->mutex);
    int32_t rc = _LumRegionCheckpoint(region);
    LumMutexUnlock(region->mutex);
    return rc;
}

// The image that the acknowledged chk file of `generation` and the logs of
// that generation and the next restore: pages from the file, then every
// record up to each log's last LOG_COMMIT.
std::vector<uint8_t> Restore(const std::vector<uint8_t> &chk,
                             const std::vector<std::vector<uint8_t>> &logs, uint32_t generation) {
    std::vector<uint8_t> image = chk;
    for (const auto &log : logs) {
        if (log.size() <= file_header::kSize ||
            ImageLoad32(&log[file_header::kGeneration]) != generation++)
            break;
        auto records = ParseLog(log);
        size_t end = records.size();
        while (end > 0 && records[end - 1].type != LOG_COMMIT)
            --end;
        for (size_t i = 0; i < end; ++i) {
            const ParsedRecord &record = records[i];
            if (record.type == LOG_SIZE)
                image.resize(record.value);
            if (record.type == LOG_DATA)
                memcpy(image.data() + record.value, record.payload.data(), record.length);
        }
    }
    return image;
}

} // namespace

class CheckpointTest : public PersistentTest {
  protected:
    void SetUp() override {
        region_ = CreatePersistent();
        segment_ = {region_, nullptr};
        ASSERT_EQ(_LumImageSetSize(region_, 4 * Page()), 0);
    }
    void TearDown() override {
        if (region_) {
            EXPECT_EQ(LumRegionDrop(region_), 0);
        }
    }
    void Write(uint32_t page, int32_t value) {
        LumMemLogCpyInt(&segment_, region_->base + page * Page() + 64, value);
    }
    uint32_t ChkGeneration(int parity) const {
        auto file = Read("p_" + std::to_string(parity) + ".chk");
        return file.size() >= 32 ? ImageLoad32(&file[file_header::kGeneration]) : ~0u;
    }
    int32_t ChkTime(int parity) const {
        auto file = Read("p_" + std::to_string(parity) + ".chk");
        return static_cast<int32_t>(ImageLoad32(&file[file_header::kTimestamp]));
    }
    std::vector<ParsedRecord> LogRecords(int parity) const {
        return ParseLog(Read("p_" + std::to_string(parity) + ".log"));
    }

    LumRegion *region_ = nullptr;
    LumSegment segment_{};
};

TEST_F(CheckpointTest, WorkedSequenceOfThreeCheckpointsAndSixCommits) {
    constexpr uint32_t R = CHECKPOINT_RUNNING, D = CHECKPOINT_DONE, A = CHECKPOINT_ACKED;
    // Step 0: the new region.
    EXPECT_EQ(Of(region_), (Generations{0, 0, 99, A}));
    EXPECT_TRUE(Read("p_0.log").empty());

    // Step 1: C1 starts "_0.log".
    EXPECT_EQ(LumRegionCommit(region_), 0);
    EXPECT_EQ(Of(region_), (Generations{0, 0, 0, A}));
    EXPECT_EQ(TypesOf(LogRecords(0), 4),
              (std::vector<uint32_t>{LOG_SIZE, LOG_DATA, LOG_SIZE, LOG_COMMIT}));

    // Steps 2 to 4: K1 writes "_0.chk" without switching; C2 runs during it.
    {
        DuringCheckpoint k1(region_, 0, [&] {
            EXPECT_EQ(Of(region_), (Generations{0, 0, 0, R}));
            EXPECT_EQ(LumRegionCommit(region_), 0);
            EXPECT_EQ(TypesOf(LogRecords(0), 2), (std::vector<uint32_t>{LOG_SIZE, LOG_COMMIT}))
                << "no acknowledgement while running";
        });
        ASSERT_EQ(Checkpoint(region_), 0);
        EXPECT_EQ(k1.page_writes, 4) << "every page below used";
    }
    EXPECT_EQ(Of(region_), (Generations{0, 1, 0, D}));
    EXPECT_EQ(ChkGeneration(0), 0u);
    EXPECT_EQ(Read("p_0.chk").size(), 4 * Page());

    // Step 5: C3 acknowledges K1 in "_0.log".
    EXPECT_EQ(LumRegionCommit(region_), 0);
    EXPECT_EQ(Of(region_), (Generations{0, 1, 0, A}));
    EXPECT_EQ(TypesOf(LogRecords(0), 2), (std::vector<uint32_t>{LOG_CHECKPOINT, LOG_COMMIT}));

    // Steps 6 to 8: K2 switches to generation 1; C4 during it zaps "_1.log"
    // and carries a change made before the switch.
    Write(2, 77);
    {
        DuringCheckpoint k2(region_, 1, [&] {
            EXPECT_EQ(Of(region_), (Generations{1, 1, 0, R}));
            EXPECT_EQ(LumRegionCommit(region_), 0);
        });
        ASSERT_EQ(Checkpoint(region_), 0);
        EXPECT_EQ(k2.page_writes, 4) << "the odd file's map starts all ones";
    }
    EXPECT_EQ(Of(region_), (Generations{1, 2, 1, D}));
    auto odd = Read("p_1.log");
    EXPECT_EQ(ImageLoad32(&odd[file_header::kGeneration]), 1u);
    EXPECT_EQ(TypesOf(ParseLog(odd), 3), (std::vector<uint32_t>{LOG_SIZE, LOG_DATA, LOG_COMMIT}));
    EXPECT_EQ(ChkGeneration(1), 1u);

    // Step 9: C5 acknowledges K2 in "_1.log".
    EXPECT_EQ(LumRegionCommit(region_), 0);
    EXPECT_EQ(Of(region_), (Generations{1, 2, 1, A}));
    EXPECT_EQ(TypesOf(LogRecords(1), 2), (std::vector<uint32_t>{LOG_CHECKPOINT, LOG_COMMIT}));

    // Steps 10 and 11: K3 switches to 2 and writes only what changed since
    // K1 to "_0.chk"; C6 during it zaps "_0.log".
    {
        DuringCheckpoint k3(region_, 0, [&] {
            EXPECT_EQ(LumRegionCommit(region_), 0);
            EXPECT_EQ(Of(region_), (Generations{2, 2, 2, R}));
        });
        ASSERT_EQ(Checkpoint(region_), 0);
        EXPECT_EQ(k3.page_writes, 1) << "page 2 alone changed since K1";
    }
    EXPECT_EQ(ChkGeneration(0), 2u);
    auto even = Read("p_0.log");
    EXPECT_EQ(ImageLoad32(&even[file_header::kGeneration]), 2u);
    EXPECT_EQ(TypesOf(ParseLog(even), 10).size(), 2u) << "the zapped log holds C6 alone";
}

TEST_F(CheckpointTest, PageZeroKeepsTheFileHeaderInPlaceOfTheImagesFirstBytes) {
    memset(region_->base, 0xEE, 32); // the reserved bytes are not saved
    ASSERT_EQ(Checkpoint(region_), 0);
    auto chk = Read("p_0.chk");
    ASSERT_EQ(chk.size(), 4 * Page());
    EXPECT_EQ(memcmp(chk.data(), "LSB", 4), 0);
    EXPECT_EQ(memcmp(chk.data() + 32, region_->base + 32, 4 * Page() - 32), 0);
    memset(region_->base, 0, 32);
}

TEST_F(CheckpointTest, PassWithoutAcknowledgementChangesNothing) {
    _LumCheckpointPass();
    Generations done = Of(region_);
    ASSERT_EQ(done.state, static_cast<uint32_t>(CHECKPOINT_DONE));
    auto chk = Read("p_0.chk");
    LogCapture log;
    LumDebugFacilitySet("region", 1);
    _LumCheckpointPass();
    LumDebugFacilitySet("region", 0);
    EXPECT_EQ(Of(region_), done);
    EXPECT_EQ(Read("p_0.chk"), chk);
    auto reports = log.Find(2, 3);
    ASSERT_EQ(reports.size(), 1u);
    EXPECT_EQ(reports[0].text, "_LumRegionCheckpoint(): last checkpoint not yet acknowledged");
}

TEST_F(CheckpointTest, TimestampsOfConsecutiveCheckpointsStrictlyIncrease) {
    ASSERT_EQ(Checkpoint(region_), 0);
    int32_t first = ChkTime(0);
    LumRegionCommit(region_);
    ASSERT_EQ(Checkpoint(region_), 0);
    int32_t second = ChkTime(1);
    LumRegionCommit(region_);
    ASSERT_EQ(Checkpoint(region_), 0);
    int32_t third = ChkTime(0);
    EXPECT_LT(first, second) << "within one second too";
    EXPECT_LT(second, third);
}

TEST_F(CheckpointTest, FailedHeaderOfASwitchingCheckpointMovesOnByTwo) {
    ASSERT_EQ(Checkpoint(region_), 0);
    LumRegionCommit(region_); // generation 0 acknowledged; the next switches to 1
    LogCapture log;
    LumDebugFacilitySet("region", 1);
    {
        FileFaults faults;
        faults.fail_write_at = 1;
        EXPECT_EQ(Checkpoint(region_), LUM_RC_FAILURE);
    }
    LumDebugFacilitySet("region", 0);
    EXPECT_EQ(log.Find(2, 6).size(), 1u);
    EXPECT_EQ(Of(region_), (Generations{1, 3, 0, CHECKPOINT_ACKED}));
    ASSERT_EQ(Checkpoint(region_), 0);
    EXPECT_EQ(ChkGeneration(1), 3u) << "the retry stays on the failed parity";
    EXPECT_EQ(ChkGeneration(0), 0u) << "the acknowledged pair is untouched";
}

TEST_F(CheckpointTest, FailedFirstCheckpointStaysInItsGeneration) {
    LumRegionCommit(region_);
    {
        FileFaults faults;
        faults.fail_write_at = 1;
        EXPECT_EQ(Checkpoint(region_), LUM_RC_FAILURE);
    }
    EXPECT_EQ(Of(region_), (Generations{0, 0, 0, CHECKPOINT_ACKED}));
    ASSERT_EQ(Checkpoint(region_), 0);
    EXPECT_EQ(ChkGeneration(0), 0u);
    EXPECT_FALSE(LogRecords(0).empty()) << "the only history is kept";
}

TEST_F(CheckpointTest, FailedPageIsMarkedAgainAndReported) {
    LogCapture log;
    LumDebugFacilitySet("region", 1);
    {
        FileFaults faults;
        faults.fail_write_at = 2; // header, then page 0
        EXPECT_EQ(Checkpoint(region_), LUM_RC_FAILURE);
    }
    EXPECT_TRUE(_LumDirtyMapTest(region_->dirty_map[0], 0)) << "marked again";
    {
        FileFaults faults;
        faults.fail_write_at = 3; // header, page 0, then page 1
        EXPECT_EQ(Checkpoint(region_), LUM_RC_FAILURE);
    }
    LumDebugFacilitySet("region", 0);
    auto reports = log.Find(2, 7);
    ASSERT_EQ(reports.size(), 2u);
    EXPECT_NE(reports[0].text.find("written 31,"), std::string::npos) << reports[0].text;
    EXPECT_EQ(reports[1].text, "_LumRegionCheckpoint(): write failed: written -1, pagesize " +
                                   std::to_string(Page()) + ", errno 28 (No space left on device)");
    EXPECT_FALSE(_LumDirtyMapTest(region_->dirty_map[0], 0)) << "written by the retry";
    EXPECT_TRUE(_LumDirtyMapTest(region_->dirty_map[0], 1));
    EXPECT_TRUE(_LumDirtyMapTest(region_->dirty_map[0], 2)) << "not reached";
}

// The checkpoint's write barrier: called once per window of pages that
// holds marks, before any of them is read; a failure keeps every mark.
class WriteBarrier {
  public:
    explicit WriteBarrier(int result) : saved_(region_write_barrier) {
        result_ = result;
        calls_ = 0;
        region_write_barrier = 1;
        lum_platform.flush_write_buffers = [] {
            ++calls_;
            return result_;
        };
    }
    ~WriteBarrier() { region_write_barrier = saved_; }
    int calls() const { return calls_; }

  private:
    static inline int result_, calls_;
    int32_t saved_;
    lumtest::PlatformGuard guard_;
};

TEST_F(CheckpointTest, FailedWriteBarrierKeepsEveryMarkAndIsReported) {
    LogCapture log;
    LumDebugFacilitySet("region", 1);
    {
        WriteBarrier barrier(EPERM);
        EXPECT_EQ(Checkpoint(region_), LUM_RC_FAILURE);
        EXPECT_EQ(barrier.calls(), 1);
    }
    LumDebugFacilitySet("region", 0);
    auto reports = log.Find(2, 30);
    ASSERT_EQ(reports.size(), 1u);
    EXPECT_EQ(reports[0].text, "_LumRegionCheckpoint(): write barrier failed: Operation not "
                               "permitted");
    EXPECT_EQ(Read("p_0.chk").size(), file_header::kSize) << "no page was read";
    for (uint32_t page = 0; page < 4; ++page)
        EXPECT_TRUE(_LumDirtyMapTest(region_->dirty_map[0], page)) << page;
    ASSERT_EQ(Checkpoint(region_), 0);
    EXPECT_EQ(Read("p_0.chk").size(), 4 * Page());
}

TEST_F(CheckpointTest, WithoutABarrierEveryMarkSetsAndNoneIsAsked) {
    WriteBarrier barrier(ENOSYS);
    region_write_barrier = 0;
    ASSERT_EQ(Checkpoint(region_), 0);
    EXPECT_EQ(barrier.calls(), 0);
    Write(1, 5);
    EXPECT_TRUE(_LumDirtyMapTest(region_->dirty_map[0], 1));
    EXPECT_TRUE(_LumDirtyMapTest(region_->dirty_map[1], 1));
}

TEST_F(CheckpointTest, MarksAreTakenWindowByWindowAndOnlyMarkedPagesWritten) {
    // Windows of 2048 pages: marks in the first, on both sides of the first
    // seam, none in the third, and at the image's last page in the fourth.
    constexpr uint32_t kPages = 3 * 2048 + 5;
    ASSERT_EQ(LumRegionDrop(region_), 0); // the fixture's region is too small
    region_ = CreatePersistent("p", 64 * kMiB, 64 * kMiB);
    ASSERT_NE(region_, nullptr);
    ASSERT_EQ(_LumImageSetSize(region_, kPages * Page()), 0);
    ASSERT_EQ(Checkpoint(region_), 0); // writes the whole new image once
    LumRegionCommit(region_);
    ASSERT_EQ(Checkpoint(region_), 0);
    LumRegionCommit(region_);
    const uint32_t marked[] = {3, 2047, 2048, 2049, kPages - 1};
    for (uint32_t page : marked)
        Change(region_, page * Page() + 8, 4, static_cast<uint8_t>(page));

    static std::vector<off_t> written;
    written.clear();
    {
        WriteBarrier barrier(0);
        lum_platform.pwrite = [](int fd, const void *buffer, size_t count, off_t offset) {
            if (count != file_header::kSize)
                written.push_back(offset / static_cast<off_t>(region_page_size));
            return lum_platform_system.pwrite(fd, buffer, count, offset);
        };
        ASSERT_EQ(Checkpoint(region_), 0);
        EXPECT_EQ(barrier.calls(), 3) << "no barrier for a window without marks";
    }
    EXPECT_EQ(written, std::vector<off_t>(std::begin(marked), std::end(marked)));
    for (uint32_t page : marked)
        EXPECT_FALSE(_LumDirtyMapTest(region_->dirty_map[0], page)) << page;
    auto chk = Read("p_0.chk");
    ASSERT_EQ(chk.size(), kPages * Page());
    EXPECT_EQ(chk[2049 * Page() + 8], static_cast<uint8_t>(2049));
}

TEST_F(CheckpointTest, FailedTruncateFailsTheCheckpoint) {
    LogCapture log;
    LumDebugFacilitySet("region", 1);
    {
        FileFaults faults;
        faults.fail_ftruncate = true;
        EXPECT_EQ(Checkpoint(region_), LUM_RC_FAILURE);
    }
    LumDebugFacilitySet("region", 0);
    auto reports = log.Find(2, 8);
    ASSERT_EQ(reports.size(), 1u);
    EXPECT_EQ(reports[0].text, "_LumRegionCheckpoint(): couldn't truncate after chkpting: "
                               "ftruncate(): Input/output error");
}

TEST_F(CheckpointTest, ImageThatShrinksUnderTheCheckpointEndsTheFileThere) {
    ASSERT_EQ(_LumImageSetSize(region_, 2 * kMiB + Page()), 0);
    {
        DuringCheckpoint shrink(region_, 0, [&] {
            ASSERT_EQ(_LumImageSetSize(region_, Page()), 0); // decommits from 1 MiB on
        });
        ASSERT_EQ(Checkpoint(region_), 0);
    }
    EXPECT_EQ(region_->checkpoint_state.load(), static_cast<uint32_t>(CHECKPOINT_DONE));
    EXPECT_EQ(Read("p_0.chk").size(), kMiB);
}

TEST_F(CheckpointTest, SmallerImageShortensTheChkFile) {
    ASSERT_EQ(Checkpoint(region_), 0);
    LumRegionCommit(region_);
    ASSERT_EQ(Checkpoint(region_), 0);
    LumRegionCommit(region_);
    ASSERT_EQ(_LumImageSetSize(region_, 2 * Page()), 0);
    ASSERT_EQ(Checkpoint(region_), 0);
    EXPECT_EQ(Read("p_0.chk").size(), 2 * Page());
}

TEST_F(CheckpointTest, AcknowledgementOnAFailedLogMovesOnByTwo) {
    ASSERT_EQ(Checkpoint(region_), 0);
    LumRegionCommit(region_);
    ASSERT_EQ(Checkpoint(region_), 0); // switched to 1, DONE
    Write(1, 5);
    {
        FileFaults faults;
        faults.fail_write_at = 1; // the acknowledging commit's zap writes the header
        EXPECT_EQ(LumRegionCommit(region_), 0);
    }
    EXPECT_EQ(Of(region_), (Generations{1, 3, 1, CHECKPOINT_ACKED}));
    EXPECT_TRUE(LogRecords(1).empty()) << "no LOG_CHECKPOINT reached the log";

    // With the log failed in this generation, the next commits write nothing.
    EXPECT_EQ(LumRegionCommit(region_), 0);
    EXPECT_TRUE(Read("p_1.log").empty());
    // The retry switches to 3, and its first flush heals the log.
    ASSERT_EQ(Checkpoint(region_), 0);
    EXPECT_EQ(LumRegionCommit(region_), 0);
    EXPECT_EQ(Of(region_), (Generations{3, 4, 3, CHECKPOINT_ACKED}));
    EXPECT_EQ(TypesOf(LogRecords(1), 2), (std::vector<uint32_t>{LOG_CHECKPOINT, LOG_COMMIT}));
}

TEST_F(CheckpointTest, OfflineRegionIsSkippedAndOnlineCheckpointsIt) {
    LumRegionCommit(region_);
    LumRegionOffline(region_);
    Write(3, 9);
    EXPECT_TRUE(_LumDirtyMapTest(region_->dirty_map[1], 3)) << "marks go on while offline";
    _LumCheckpointPass();
    EXPECT_TRUE(Read("p_0.chk").empty());
    LumRegionCommit(region_);
    EXPECT_EQ(TypesOf(LogRecords(0), 1), (std::vector<uint32_t>{LOG_COMMIT}))
        << "nothing logged while offline";
    auto log_size = Read("p_0.log").size();
    LumRegionOnline(region_);
    EXPECT_EQ(Read("p_0.chk").size(), 4 * Page());
    EXPECT_EQ(Read("p_0.log").size(), log_size);
    EXPECT_EQ(region_->checkpoint_state.load(), static_cast<uint32_t>(CHECKPOINT_DONE));
    LumRegionCommit(region_);
    EXPECT_EQ(TypesOf(LogRecords(0), 2), (std::vector<uint32_t>{LOG_CHECKPOINT, LOG_COMMIT}));
}

TEST_F(CheckpointTest, CommitOnAnOfflineRegionAcknowledgesNothing) {
    ASSERT_EQ(Checkpoint(region_), 0);
    LumRegionOffline(region_);
    EXPECT_EQ(LumRegionCommit(region_), 0);
    EXPECT_EQ(region_->checkpoint_state.load(), static_cast<uint32_t>(CHECKPOINT_DONE));
    LumRegionOnline(region_); // finds DONE: no checkpoint, the log fails instead
    EXPECT_EQ(region_->log_failed.load(), 1u);
    EXPECT_EQ(region_->online.load(), 1);
}

TEST_F(CheckpointTest, OnlineWithAnUnacknowledgedCheckpointFailsTheAcknowledgement) {
    LumRegionCommit(region_);
    ASSERT_EQ(Checkpoint(region_), 0); // DONE, flushed == generation == 0
    LogCapture log;
    LumDebugFacilitySet("region", 1);
    LumRegionOnline(region_);
    LumDebugFacilitySet("region", 0);
    EXPECT_EQ(log.Find(2, 3).size(), 1u);
    EXPECT_EQ(region_->log_failed.load(), 1u);
    auto size = Read("p_0.log").size();
    EXPECT_EQ(LumRegionCommit(region_), 0);
    EXPECT_EQ(Read("p_0.log").size(), size) << "the failed log writes nothing";
    EXPECT_EQ(Of(region_), (Generations{0, 2, 0, CHECKPOINT_ACKED}));
}

TEST(VolatileCommit, OnlineAndCommitWriteNothing) {
    LumRegion *region;
    void *base;
    ASSERT_EQ(LumRegionCreate("v", LUM_REGION_VOLATILE, kMiB, kMiB, 0, 0, nullptr, &region, &base),
              0);
    LumRegionOffline(region);
    EXPECT_EQ(region->online.load(), 0);
    LumRegionOnline(region);
    EXPECT_EQ(region->online.load(), 1);
    EXPECT_EQ(LumRegionCommit(region), 0);
    EXPECT_EQ(region->checkpoint_state.load(), static_cast<uint32_t>(CHECKPOINT_ACKED));
    EXPECT_EQ(LumRegionCommit(nullptr), LUM_RC_FAILURE);
    EXPECT_EQ(LumRegionClose(region), 0);
}

// A writer changes and commits in a loop while checkpoint passes run on
// another thread. Afterwards the acknowledged chk file and its log, read
// from disk, restore the image exactly.
TEST_F(CheckpointTest, ConcurrentWriterAndCheckpointsLeaveFilesThatRestoreTheImage) {
    ASSERT_EQ(_LumImageSetSize(region_, 64 * Page()), 0);
    std::atomic<bool> writing{true};
    std::thread checkpointer([&] {
        while (writing.load())
            _LumCheckpointPass();
    });
    std::mt19937 random(7);
    for (int round = 0; round < 2000; ++round) {
        for (int i = 0; i < 8; ++i) {
            uint32_t page = random() % 64, offset = (random() % (Page() / 4)) * 4;
            if (page == 0 && offset < 32)
                offset += 32; // the reserved bytes are not stored
            LumMemLogCpyInt(&segment_, region_->base + page * Page() + offset,
                            static_cast<int32_t>(random()));
        }
        LumRegionCommit(region_);
    }
    writing = false;
    checkpointer.join();
    LumRegionCommit(region_); // acknowledges a checkpoint that finished last
    if (region_->checkpoint_state.load() != CHECKPOINT_ACKED || region_->generation.load() == 0) {
        ASSERT_EQ(Checkpoint(region_), 0);
        LumRegionCommit(region_);
    }

    uint32_t generation = region_->generation.load();
    int parity = generation % 2;
    EXPECT_EQ(ChkGeneration(parity), generation);
    auto restored = Restore(Read("p_" + std::to_string(parity) + ".chk"),
                            {Read("p_" + std::to_string(parity) + ".log"),
                             Read("p_" + std::to_string(1 - parity) + ".log")},
                            generation);
    ASSERT_EQ(restored.size(), region_->used.load());
    EXPECT_EQ(memcmp(restored.data() + 32, region_->base + 32, restored.size() - 32), 0);
}
