// Commit and checkpoint: the generations, states and files through the
// sequence of a region's life, every failure with the generation rule it
// follows, offline and online, a volatile region, and a writer that commits
// while checkpoints run, whose files must replay to its image.
#include <array>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <functional>
#include <random>
#include <thread>
#include <utility>

#include "persistent_fixture.h"

namespace {

using Types = std::vector<uint32_t>;
using Texts = std::vector<std::string>;
using Pages = std::vector<off_t>;
// generation, next_generation, flushed_generation, checkpoint_state
using Generations = std::array<uint32_t, 4>;
constexpr uint32_t R = CHECKPOINT_RUNNING, D = CHECKPOINT_DONE, A = CHECKPOINT_ACKED;
const char *const kNotAcknowledged = "_LumRegionCheckpoint(): last checkpoint not yet acknowledged";

Generations Of(const LumRegion *region) {
    return {region->generation.load(), region->next_generation.load(),
            region->flushed_generation.load(), region->checkpoint_state.load()};
}

// Hooks checkpoints while it lives: records the pages written to the chk
// file of `parity` (the header aside), runs `at_first`, if any, at the first
// of them, and turns the write barrier on, counting its calls and answering
// `barrier`.
struct CheckpointHooks {
    CheckpointHooks(LumRegion *region, int parity, std::function<void()> at_first = {},
                    int barrier = 0) {
        fd = region->chk_fd[parity];
        action = std::move(at_first);
        barrier_result = barrier;
        barriers = 0;
        pages.clear();
        saved_barrier = std::exchange(region_write_barrier, 1);
        lum_platform.pwrite = [](int file, const void *buffer, size_t count, off_t offset) {
            if (file == fd && count != file_header::kSize) {
                pages.push_back(offset / static_cast<off_t>(region_page_size));
                if (pages.size() == 1 && action)
                    action();
            }
            return lum_platform_system.pwrite(file, buffer, count, offset);
        };
        lum_platform.flush_write_buffers = [] {
            ++barriers;
            return barrier_result;
        };
    }
    ~CheckpointHooks() { region_write_barrier = saved_barrier; }
    static inline int fd, barrier_result, barriers;
    static inline int32_t saved_barrier;
    static inline Pages pages;
    static inline std::function<void()> action;
    lumtest::PlatformGuard guard;
};

// Captures the region facility's debug reports while it lives.
struct Reports {
    Reports() { LumDebugFacilitySet("region", 1); }
    ~Reports() { LumDebugFacilitySet("region", 0); }
    Texts operator()(uint32_t id) const {
        Texts texts;
        for (const auto &record : log.Find(2, id))
            texts.push_back(record.text);
        return texts;
    }
    lumtest::LogCapture log;
};

// The image that the acknowledged chk file of `generation` and the logs of
// that generation and the next restore: pages from the file, then every
// record up to each log's last LOG_COMMIT.
std::vector<uint8_t> Restore(std::vector<uint8_t> image,
                             const std::vector<std::vector<uint8_t>> &logs, uint32_t generation) {
    for (const auto &log : logs) {
        if (log.size() <= file_header::kSize ||
            ImageLoad32(&log[file_header::kGeneration]) != generation++)
            break;
        auto records = ParseLog(log);
        while (!records.empty() && records.back().type != LOG_COMMIT)
            records.pop_back();
        for (const ParsedRecord &record : records) {
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
    void SetUp() override { Renew(); }
    void TearDown() override { EXPECT_EQ(LumRegionDrop(region_), 0); }

    // Drops the region, if any, and creates "p" anew with these limits and
    // an image of `pages` pages.
    void Renew(uint32_t limit = 4 * kMiB, uint32_t pages = 4) {
        if (region_) {
            EXPECT_EQ(LumRegionDrop(region_), 0);
        }
        region_ = CreatePersistent("p", limit, limit);
        ASSERT_NE(region_, nullptr);
        ASSERT_EQ(_LumImageSetSize(region_, pages * Page()), 0);
    }
    int32_t Checkpoint() {
        LumMutexLock(region_->mutex);
        int32_t rc = _LumRegionCheckpoint(region_);
        LumMutexUnlock(region_->mutex);
        return rc;
    }
    void CheckpointAndCommit() {
        ASSERT_EQ(Checkpoint(), 0);
        LumRegionCommit(region_);
    }
    std::vector<uint8_t> File(int parity, const char *suffix) const {
        return Read("p_" + std::to_string(parity) + suffix);
    }
    // A word of the file's header; ~0 when the file has none.
    uint32_t Word(int parity, const char *suffix, uint32_t at = file_header::kGeneration) const {
        auto file = File(parity, suffix);
        return file.size() < file_header::kSize ? ~0u : ImageLoad32(&file[at]);
    }
    // The types of the last `count` records of the log of `parity`.
    Types Tail(int parity, size_t count) const {
        auto records = ParseLog(File(parity, ".log"));
        Types types;
        for (size_t i = records.size() - std::min(count, records.size()); i < records.size(); ++i)
            types.push_back(records[i].type);
        return types;
    }

    LumRegion *region_ = nullptr;
};

TEST_F(CheckpointTest, WorkedSequenceOfThreeCheckpointsAndSixCommits) {
    // Step 0: the new region.
    EXPECT_EQ(Of(region_), (Generations{0, 0, 99, A}));
    EXPECT_TRUE(File(0, ".log").empty());

    // Step 1: C1 starts "_0.log".
    EXPECT_EQ(LumRegionCommit(region_), 0);
    EXPECT_EQ(Of(region_), (Generations{0, 0, 0, A}));
    EXPECT_EQ(Tail(0, 4), (Types{LOG_SIZE, LOG_DATA, LOG_SIZE, LOG_COMMIT}));

    // Steps 2 to 4: K1 writes "_0.chk" without switching; C2 runs during it.
    {
        CheckpointHooks k1(region_, 0, [&] {
            EXPECT_EQ(Of(region_), (Generations{0, 0, 0, R}));
            EXPECT_EQ(LumRegionCommit(region_), 0);
            EXPECT_EQ(Tail(0, 2), (Types{LOG_SIZE, LOG_COMMIT})) << "no acknowledgement yet";
        });
        ASSERT_EQ(Checkpoint(), 0);
        EXPECT_EQ(k1.pages, (Pages{0, 1, 2, 3})) << "every page below used";
    }
    EXPECT_EQ(Of(region_), (Generations{0, 1, 0, D}));
    EXPECT_EQ(Word(0, ".chk"), 0u);

    // Step 5: C3 acknowledges K1 in "_0.log".
    EXPECT_EQ(LumRegionCommit(region_), 0);
    EXPECT_EQ(Of(region_), (Generations{0, 1, 0, A}));
    EXPECT_EQ(Tail(0, 2), (Types{LOG_CHECKPOINT, LOG_COMMIT}));

    // Steps 6 to 8: K2 switches to generation 1; C4 during it zaps "_1.log"
    // and carries a change made before the switch.
    Change(region_, 2 * Page() + 64, 4, 77);
    {
        CheckpointHooks k2(region_, 1, [&] {
            EXPECT_EQ(Of(region_), (Generations{1, 1, 0, R}));
            EXPECT_EQ(LumRegionCommit(region_), 0);
        });
        ASSERT_EQ(Checkpoint(), 0);
        EXPECT_EQ(k2.pages, (Pages{0, 1, 2, 3})) << "the odd file's map starts all ones";
    }
    EXPECT_EQ(Of(region_), (Generations{1, 2, 1, D}));
    EXPECT_EQ(Word(1, ".log"), 1u);
    EXPECT_EQ(Tail(1, 3), (Types{LOG_SIZE, LOG_DATA, LOG_COMMIT}));
    EXPECT_EQ(Word(1, ".chk"), 1u);

    // Step 9: C5 acknowledges K2 in "_1.log".
    EXPECT_EQ(LumRegionCommit(region_), 0);
    EXPECT_EQ(Of(region_), (Generations{1, 2, 1, A}));
    EXPECT_EQ(Tail(1, 2), (Types{LOG_CHECKPOINT, LOG_COMMIT}));

    // Steps 10 and 11: K3 switches to 2 and writes only what changed since
    // K1 to "_0.chk"; C6 during it zaps "_0.log".
    {
        CheckpointHooks k3(region_, 0, [&] {
            EXPECT_EQ(LumRegionCommit(region_), 0);
            EXPECT_EQ(Of(region_), (Generations{2, 2, 2, R}));
        });
        ASSERT_EQ(Checkpoint(), 0);
        EXPECT_EQ(k3.pages, Pages{2}) << "page 2 alone changed since K1";
    }
    EXPECT_EQ(Word(0, ".chk"), 2u);
    EXPECT_EQ(Word(0, ".log"), 2u);
    EXPECT_EQ(Tail(0, 10), (Types{LOG_SIZE, LOG_COMMIT})) << "the zapped log holds C6 alone";
}

TEST_F(CheckpointTest, PageZeroKeepsTheFileHeaderInPlaceOfTheImagesFirstBytes) {
    memset(region_->base, 0xEE, 32); // the reserved bytes are not saved
    ASSERT_EQ(Checkpoint(), 0);
    auto chk = File(0, ".chk");
    ASSERT_EQ(chk.size(), 4 * Page());
    EXPECT_EQ(memcmp(chk.data(), "LSB", 4), 0);
    EXPECT_EQ(memcmp(chk.data() + 32, region_->base + 32, 4 * Page() - 32), 0);
    memset(region_->base, 0, 32);
}

TEST_F(CheckpointTest, EachCheckpointIsStampedLaterAndCutWhereTheImageEnds) {
    CheckpointAndCommit();
    uint32_t first = Word(0, ".chk", file_header::kTimestamp);
    CheckpointAndCommit();
    uint32_t second = Word(1, ".chk", file_header::kTimestamp);
    ASSERT_EQ(_LumImageSetSize(region_, 2 * Page()), 0);
    ASSERT_EQ(Checkpoint(), 0);
    EXPECT_LT(first, second) << "within one second too";
    EXPECT_LT(second, Word(0, ".chk", file_header::kTimestamp));
    EXPECT_EQ(File(0, ".chk").size(), 2 * Page()) << "a smaller image shortens the file";
}

// A failed checkpoint is reported and keeps the marks of every page it did
// not write. One that did not switch retries its own generation, whose log
// is the only history; one that switched moves on by two, back to the
// failed parity, so that the acknowledged pair stays alone.
TEST_F(CheckpointTest, FailedCheckpointIsReportedKeepsUnwrittenMarksAndRetries) {
    const std::string write_failed = "write failed: written ",
                      enospc = ", pagesize " + std::to_string(Page()) +
                               ", errno 28 (No space left on device)";
    const struct {
        const char *name;
        bool switching, fail_ftruncate;
        int fail_write_at, barrier_result;
        uint32_t id, marks; // marks: of pages 0 to 3 after the failure, one bit each
        std::string report;
        size_t chk_size;
    } rows[] = {
        {"header", false, false, 1, 0, 6, 0xF, "failed to write file header", 0},
        {"switching header", true, false, 1, 0, 6, 0xF, "failed to write file header", 0},
        {"page 0", false, false, 2, 0, 7, 0xF, write_failed + "31" + enospc, 32},
        {"page 1", false, false, 3, 0, 7, 0xE, write_failed + "-1" + enospc, Page()},
        {"barrier", false, false, 0, EPERM, 30, 0xF,
         "write barrier failed: Operation not permitted", 32},
        {"truncate", false, true, 0, 0, 8, 0,
         "couldn't truncate after chkpting: ftruncate(): Input/output error", 4 * Page()},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        Renew();
        LumRegionCommit(region_);
        if (row.switching)
            CheckpointAndCommit(); // generation 0 acknowledged; the next switches to 1
        int parity = row.switching ? 1 : 0;
        {
            Reports reports;
            CheckpointHooks hooks(region_, parity, {}, row.barrier_result);
            lumtest::FileFaults faults;
            faults.fail_write_at = row.fail_write_at;
            faults.fail_ftruncate = row.fail_ftruncate;
            EXPECT_EQ(Checkpoint(), LUM_RC_FAILURE);
            EXPECT_EQ(hooks.barriers, row.fail_write_at == 1 ? 0 : 1);
            EXPECT_EQ(reports(row.id), Texts{"_LumRegionCheckpoint(): " + row.report});
        }
        Generations after = row.switching ? Generations{1, 3, 0, A} : Generations{0, 0, 0, A};
        EXPECT_EQ(Of(region_), after);
        EXPECT_EQ(File(parity, ".chk").size(), row.chk_size);
        for (uint32_t page = 0; page < 4; ++page)
            EXPECT_EQ(_LumDirtyMapTest(region_->dirty_map[parity], page), row.marks >> page & 1)
                << page;
        ASSERT_EQ(Checkpoint(), 0);
        EXPECT_EQ(File(parity, ".chk").size(), 4 * Page());
        EXPECT_EQ(Word(parity, ".chk"), after[1]) << "the retry";
        EXPECT_EQ(Word(0, ".chk"), 0u) << "the acknowledged pair is untouched";
        EXPECT_FALSE(Tail(0, 1).empty()) << "the log of generation 0 is kept";
    }
}

TEST_F(CheckpointTest, WithoutABarrierEveryMarkSetsAndNoneIsAsked) {
    CheckpointHooks hooks(region_, 0, {}, ENOSYS);
    region_write_barrier = 0;
    ASSERT_EQ(Checkpoint(), 0);
    EXPECT_EQ(hooks.barriers, 0);
    Change(region_, 1 * Page() + 64, 4, 5);
    EXPECT_TRUE(_LumDirtyMapTest(region_->dirty_map[0], 1));
    EXPECT_TRUE(_LumDirtyMapTest(region_->dirty_map[1], 1));
}

TEST_F(CheckpointTest, MarksAreTakenWindowByWindowAndOnlyMarkedPagesWritten) {
    // Windows of 2048 pages: marks in the first, on both sides of the first
    // seam, none in the third, and at the image's last page in the fourth.
    constexpr uint32_t kPages = 3 * 2048 + 5;
    Renew(64 * kMiB, kPages);
    CheckpointAndCommit(); // writes the whole new image once
    CheckpointAndCommit();
    const Pages marked = {3, 2047, 2048, 2049, kPages - 1};
    for (off_t page : marked)
        Change(region_, page * Page() + 8, 4, static_cast<uint8_t>(page));
    {
        CheckpointHooks hooks(region_, 0);
        ASSERT_EQ(Checkpoint(), 0);
        EXPECT_EQ(hooks.barriers, 3) << "no barrier for a window without marks";
        EXPECT_EQ(hooks.pages, marked);
    }
    for (off_t page : marked)
        EXPECT_FALSE(_LumDirtyMapTest(region_->dirty_map[0], page)) << page;
    auto chk = File(0, ".chk");
    ASSERT_EQ(chk.size(), kPages * Page());
    EXPECT_EQ(chk[2049 * Page() + 8], static_cast<uint8_t>(2049));
}

TEST_F(CheckpointTest, ImageThatShrinksUnderTheCheckpointEndsTheFileThere) {
    ASSERT_EQ(_LumImageSetSize(region_, 2 * kMiB + Page()), 0);
    {
        CheckpointHooks shrink(region_, 0, [&] {
            ASSERT_EQ(_LumImageSetSize(region_, Page()), 0); // decommits from 1 MiB on
        });
        ASSERT_EQ(Checkpoint(), 0);
    }
    EXPECT_EQ(region_->checkpoint_state.load(), D);
    EXPECT_EQ(File(0, ".chk").size(), kMiB);
}

TEST_F(CheckpointTest, AcknowledgementOnAFailedLogMovesOnByTwo) {
    CheckpointAndCommit();
    ASSERT_EQ(Checkpoint(), 0); // switched to 1, DONE
    Change(region_, 1 * Page() + 64, 4, 5);
    {
        lumtest::FileFaults faults;
        faults.fail_write_at = 1; // the acknowledging commit's zap writes the header
        EXPECT_EQ(LumRegionCommit(region_), 0);
    }
    EXPECT_EQ(Of(region_), (Generations{1, 3, 1, A}));
    EXPECT_TRUE(Tail(1, 1).empty()) << "no LOG_CHECKPOINT reached the log";
    // The retry switches to 3, and its first flush heals the log.
    ASSERT_EQ(Checkpoint(), 0);
    EXPECT_EQ(LumRegionCommit(region_), 0);
    EXPECT_EQ(Of(region_), (Generations{3, 4, 3, A}));
    EXPECT_EQ(Tail(1, 2), (Types{LOG_CHECKPOINT, LOG_COMMIT}));
}

// Offline, passes skip a region and its pages are marked still; coming
// online checkpoints them. A pass leaves a checkpoint that waits for its
// acknowledgement alone, and a commit while offline acknowledges nothing:
// coming online then cannot checkpoint, and fails the log instead, so that
// the next commit writes nothing and moves the generation on by two.
TEST_F(CheckpointTest, OfflineRegionIsSkippedAndOnlineCheckpointsItOrFailsTheLog) {
    LumRegionCommit(region_);
    LumRegionOffline(region_);
    Change(region_, 3 * Page() + 64, 4, 9);
    EXPECT_TRUE(_LumDirtyMapTest(region_->dirty_map[1], 3)) << "marks go on while offline";
    Reports reports;
    _LumCheckpointPass();
    EXPECT_TRUE(File(0, ".chk").empty());
    auto log_size = File(0, ".log").size();
    LumRegionOnline(region_);
    EXPECT_EQ(Of(region_), (Generations{0, 1, 0, D}));
    auto chk = File(0, ".chk");
    EXPECT_EQ(chk.size(), 4 * Page());
    _LumCheckpointPass();
    EXPECT_EQ(Of(region_), (Generations{0, 1, 0, D})) << "the pass waits for the acknowledgement";
    EXPECT_EQ(File(0, ".chk"), chk);
    LumRegionOffline(region_);
    EXPECT_EQ(LumRegionCommit(region_), 0);
    EXPECT_EQ(region_->checkpoint_state.load(), D);
    LumRegionOnline(region_);
    EXPECT_EQ(reports(3), (Texts{kNotAcknowledged, kNotAcknowledged})) << "the pass, then online";
    EXPECT_EQ(region_->online.load(), 1);
    EXPECT_EQ(region_->log_failed.load(), 1u);
    EXPECT_EQ(LumRegionCommit(region_), 0);
    EXPECT_EQ(File(0, ".log").size(), log_size) << "online, offline and failed, nothing is logged";
    EXPECT_EQ(Of(region_), (Generations{0, 2, 0, A}));
}

using VolatileRegion = RegionTest;

TEST_F(VolatileRegion, MarksNothingAndItsOnlineAndCommitWriteNothing) {
    LumRegion *region = Create(kMiB, kMiB);
    _LumImageMarkDirty(region, region->base, 10); // no maps, no buffer: must not touch them
    EXPECT_EQ(region->dirty_map[0], nullptr);
    EXPECT_EQ(region->log_buffer, nullptr);
    LumRegionOffline(region);
    EXPECT_EQ(region->online.load(), 0);
    LumRegionOnline(region);
    EXPECT_EQ(region->online.load(), 1);
    EXPECT_EQ(LumRegionCommit(region), 0);
    EXPECT_EQ(region->checkpoint_state.load(), A);
    EXPECT_EQ(LumRegionCommit(nullptr), LUM_RC_FAILURE);
    Close(region);
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
    LumSegment segment{region_, nullptr};
    std::mt19937 random(7);
    for (int round = 0; round < 2000; ++round) {
        for (int i = 0; i < 8; ++i) {
            uint32_t page = random() % 64, offset = (random() % (Page() / 4)) * 4;
            if (page == 0 && offset < 32)
                offset += 32; // the reserved bytes are not stored
            LumMemLogCpyInt(&segment, region_->base + page * Page() + offset,
                            static_cast<int32_t>(random()));
        }
        LumRegionCommit(region_);
    }
    writing = false;
    checkpointer.join();
    LumRegionCommit(region_); // acknowledges a checkpoint that finished last
    if (region_->checkpoint_state.load() != A || region_->generation.load() == 0)
        CheckpointAndCommit();

    uint32_t generation = region_->generation.load();
    int parity = generation % 2;
    EXPECT_EQ(Word(parity, ".chk"), generation);
    auto restored =
        Restore(File(parity, ".chk"), {File(parity, ".log"), File(1 - parity, ".log")}, generation);
    ASSERT_EQ(restored.size(), region_->used.load());
    EXPECT_EQ(memcmp(restored.data() + 32, region_->base + 32, restored.size() - 32), 0);
}
