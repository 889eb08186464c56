// Commit and checkpoint: generations, states and files through a region's
// life, failures, offline and online, and a writer beside checkpoints.
#include <array>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <functional>
#include <random>
#include <thread>
#include <tuple>
#include <utility>

#include "persistent_fixture.h"

namespace {

using Types = std::vector<uint32_t>;
using Texts = std::vector<std::string>;
using Pages = std::vector<off_t>;
// generation, next_generation, flushed_generation, checkpoint_state
using Generations = std::array<uint32_t, 4>;
constexpr uint32_t R = CHECKPOINT_RUNNING, D = CHECKPOINT_DONE, A = CHECKPOINT_ACKED;

Generations Of(const LumRegion *region) {
    return {region->generation.load(), region->next_generation.load(),
            region->flushed_generation.load(), region->checkpoint_state.load()};
}

// Records the pages written to the chk file of `parity` and the writes that
// carried them, runs `at_first` at the first, and counts write barriers,
// which answer `barrier`.
struct CheckpointHooks {
    CheckpointHooks(LumRegion *region, int parity, std::function<void()> at_first = {},
                    int barrier = 0) {
        fd = region->chk_fd[parity];
        action = std::move(at_first);
        barrier_result = barrier;
        barriers = writes = 0;
        pages.clear();
        saved_barrier = std::exchange(region_write_barrier, 1);
        lum_platform.pwrite = [](int file, const void *buffer, size_t count, off_t offset) {
            if (file == fd && count != file_header::kSize) {
                off_t page = static_cast<off_t>(region_page_size);
                for (off_t at = offset / page * page; at < offset + static_cast<off_t>(count);
                     at += page)
                    pages.push_back(at / page);
                if (++writes == 1 && action)
                    action();
            }
            return lum_platform_system.pwrite(file, buffer, count, offset);
        };
        lum_platform.flush_write_buffers = [] { return ++barriers, barrier_result; };
    }
    ~CheckpointHooks() { region_write_barrier = saved_barrier; }
    static inline int fd, barrier_result, barriers, writes, saved_barrier;
    static inline Pages pages;
    static inline std::function<void()> action;
    lumtest::PlatformGuard guard;
};

Texts Reported(const lumtest::LogCapture &log, uint32_t id) {
    Texts texts;
    for (const auto &record : log.Find(2, id))
        texts.push_back(record.text);
    return texts;
}

} // namespace

class CheckpointTest : public PersistentTest {
  protected:
    void SetUp() override { Renew(); }
    void TearDown() override {
        EXPECT_EQ(LumRegionDrop(region_), 0);
        PersistentTest::TearDown();
    }
    void Renew() {
        if (region_)
            LumRegionDrop(region_);
        region_ = CreatePersistent();
        ASSERT_EQ(_LumImageSetSize(region_, 4 * Page()), 0);
    }
    void CheckpointAndCommit() {
        ASSERT_EQ(LumRegionCheckpoint(region_), 0);
        LumRegionCommit(region_);
    }
    std::vector<uint8_t> File(int parity, const char *suffix) const {
        return Read("p_" + std::to_string(parity) + suffix);
    }
    uint32_t Word(int parity, const char *suffix, uint32_t at = file_header::kGeneration) const {
        auto file = File(parity, suffix);
        return file.size() < file_header::kSize ? ~0u : ImageLoad32(&file[at]);
    }
    Types Tail(int parity, size_t count) const {
        Types types;
        for (const ParsedRecord &record : ParseLog(File(parity, ".log")))
            types.push_back(record.type);
        types.erase(types.begin(), types.end() - std::min(count, types.size()));
        return types;
    }

    LumRegion *region_ = nullptr;
};

// The first checkpoint stays in generation 0, later ones switch first; the
// first commit after one ends acknowledges it.
TEST_F(CheckpointTest, GenerationsAlternateThroughCheckpointsAndTheirAcknowledgements) {
    for (DirtyMap *map : region_->dirty_map) // both chk files are empty: every page differs
        EXPECT_EQ(_LumDirtyMapTest(map, map->page_count - 1), 1);
    EXPECT_EQ(LumRegionCommit(region_), 0);
    {
        CheckpointHooks first(region_, 0, [&] {
            EXPECT_EQ(Of(region_), (Generations{0, 0, 0, R}));
            EXPECT_EQ(LumRegionCommit(region_), 0);
            EXPECT_EQ(Tail(0, 2), (Types{LOG_SIZE, LOG_COMMIT})) << "no acknowledgement yet";
        });
        ASSERT_EQ(LumRegionCheckpoint(region_), 0);
        EXPECT_EQ(first.pages, (Pages{0, 1, 2, 3})) << "every page below used";
        EXPECT_EQ(first.writes, 1) << "neighbours go in one write";
    }
    EXPECT_EQ(Of(region_), (Generations{0, 1, 0, D}));
    auto chk = File(0, ".chk");
    ASSERT_EQ(chk.size(), 4 * Page());
    std::vector<uint8_t> header{'L', 'S', 'B', 0, '0', '1', '0', 0}; // generation 0
    header.resize(file_header::kSize);                               // then reserved zeros
    ImageStore32(&header[file_header::kTimestamp], Word(0, ".chk", file_header::kTimestamp));
    ImageStore32(&header[file_header::kPageSize], Page());
    EXPECT_TRUE(std::equal(header.begin(), header.end(), chk.begin()));
    EXPECT_EQ(memcmp(chk.data() + 32, region_->base + 32, 4 * Page() - 32), 0) << "the image";
    EXPECT_EQ(LumRegionCheckpoint(region_), LUM_RC_FAILURE) << "not acknowledged yet";
    EXPECT_EQ(LumRegionCommit(region_), 0);
    EXPECT_EQ(Tail(0, 2), (Types{LOG_CHECKPOINT, LOG_COMMIT}));

    Change(region_, 2 * Page() + 64, 4, 77); // logged before the switch, flushed after it
    {
        CheckpointHooks second(region_, 1, [&] {
            EXPECT_EQ(Of(region_), (Generations{1, 1, 0, R}));
            EXPECT_EQ(LumRegionCommit(region_), 0);
        });
        ASSERT_EQ(LumRegionCheckpoint(region_), 0);
        EXPECT_EQ(second.pages, (Pages{0, 1, 2, 3})) << "the odd file's map starts all ones";
    }
    EXPECT_EQ(Of(region_), (Generations{1, 2, 1, D}));
    EXPECT_EQ(std::make_pair(Word(1, ".log"), Word(1, ".chk")), std::make_pair(1u, 1u));
    EXPECT_EQ(Tail(1, 3), (Types{LOG_SIZE, LOG_DATA, LOG_COMMIT}));
    EXPECT_EQ(LumRegionCommit(region_), 0);
    EXPECT_EQ(Tail(1, 2), (Types{LOG_CHECKPOINT, LOG_COMMIT}));
    {
        CheckpointHooks third(region_, 0, [&] { EXPECT_EQ(LumRegionCommit(region_), 0); });
        ASSERT_EQ(LumRegionCheckpoint(region_), 0);
        EXPECT_EQ(third.pages, Pages{2}) << "page 2 alone changed since the first";
    }
    EXPECT_EQ(Of(region_), (Generations{2, 3, 2, D}));
    EXPECT_EQ(std::make_pair(Word(0, ".log"), Word(0, ".chk")), std::make_pair(2u, 2u));
    EXPECT_EQ(Tail(0, 9), (Types{LOG_SIZE, LOG_COMMIT})) << "the restarted log holds one commit";
    EXPECT_LT(Word(1, ".chk", file_header::kTimestamp), Word(0, ".chk", file_header::kTimestamp));

    {
        lumtest::FileFaults faults;
        faults.fail_write_at = 1;
        EXPECT_EQ(LumRegionCommit(region_), 0);
    }
    EXPECT_EQ(Of(region_), (Generations{2, 4, 2, A}));
    EXPECT_EQ(Tail(0, 1), Types{LOG_COMMIT}) << "no LOG_CHECKPOINT reached the log";
    CheckpointAndCommit(); // the retry's first flush restarts the log
    EXPECT_EQ(Of(region_), (Generations{4, 5, 4, A}));
    EXPECT_EQ(Tail(0, 9), (Types{LOG_SIZE, LOG_CHECKPOINT, LOG_COMMIT}));
}

// A failed checkpoint keeps the marks of unwritten pages and retries its own
// generation in place, also after a switch.
TEST_F(CheckpointTest, FailedCheckpointIsReportedKeepsUnwrittenMarksAndRetries) {
    const std::string write_failed = "write failed: written ",
                      enospc = ", pagesize " + std::to_string(Page()) +
                               ", errno 28 (No space left on device)";
    // what, switching, failing truncate, failing write, barrier's result, report id,
    // marks (of pages 0 to 3 after the failure, one bit each), report, chk file's size
    const std::tuple<const char *, bool, bool, int, int, uint32_t, uint32_t, std::string, size_t>
        rows[] = {
            {"header", false, false, 1, 0, 6, 0xF, "failed to write file header", 0},
            {"switching header", true, false, 1, 0, 6, 0xF, "failed to write file header", 0},
            {"the pages", false, false, 2, 0, 7, 0xF, write_failed + "-1" + enospc, 32},
            {"barrier", false, false, 0, EPERM, 30, 0xF,
             "write barrier failed: Operation not permitted", 32},
            {"truncate", false, true, 0, 0, 8, 0,
             "couldn't truncate after chkpting: ftruncate(): Input/output error", 4 * Page()},
        };
    for (const auto &[what, switching, fail_ftruncate, fail_write_at, barrier_result, id, marks,
                      report, chk_size] : rows) {
        SCOPED_TRACE(what);
        Renew();
        LumRegionCommit(region_);
        if (switching)
            CheckpointAndCommit(); // generation 0 acknowledged; the next switches to 1
        int parity = switching ? 1 : 0;
        {
            lumtest::LogCapture log;
            LumDebugFacilitySet("region", 1);
            CheckpointHooks hooks(region_, parity, {}, barrier_result);
            lumtest::FileFaults faults;
            faults.fail_write_at = fail_write_at;
            faults.fail_ftruncate = fail_ftruncate;
            EXPECT_EQ(LumRegionCheckpoint(region_), LUM_RC_FAILURE);
            LumDebugFacilitySet("region", 0);
            EXPECT_EQ(hooks.barriers, fail_write_at == 1 ? 0 : 1);
            EXPECT_EQ(Reported(log, id), Texts{"_LumRegionCheckpoint(): " + report});
        }
        Generations after = switching ? Generations{1, 1, 0, A} : Generations{0, 0, 0, A};
        EXPECT_EQ(Of(region_), after);
        EXPECT_EQ(File(parity, ".chk").size(), chk_size);
        for (uint32_t page = 0; page < 4; ++page)
            EXPECT_EQ(_LumDirtyMapTest(region_->dirty_map[parity], page), marks >> page & 1)
                << page;
        ASSERT_EQ(LumRegionCheckpoint(region_), 0);
        EXPECT_EQ(Word(parity, ".chk"), after[1]) << "the retry";
        EXPECT_EQ(Word(0, ".chk"), 0u) << "the acknowledged pair is untouched";
        EXPECT_FALSE(Tail(0, 1).empty()) << "the log of generation 0 is kept";
    }
}

// A page that vanished under the checkpoint (the image shrank) ends the chk
// file there; the marks of the pages not written stay.
TEST_F(CheckpointTest, APageThatVanishedUnderTheCheckpointEndsTheFileThere) {
    static constexpr off_t kVanished = 2 * 4096; // pages 2 and 3
    ASSERT_EQ(Page(), 4096u);
    lumtest::PlatformGuard guard;
    lum_platform.pwrite = [](int fd, const void *bytes, size_t count, off_t at) -> ssize_t {
        if (at + static_cast<off_t>(count) > kVanished)
            return errno = EFAULT, -1;
        return lum_platform_system.pwrite(fd, bytes, count, at);
    };
    ASSERT_EQ(LumRegionCheckpoint(region_), 0);
    auto chk = File(0, ".chk");
    ASSERT_EQ(chk.size(), 2 * Page());
    EXPECT_EQ(memcmp(chk.data() + 32, region_->base + 32, chk.size() - 32), 0);
    for (uint32_t page = 0; page < 4; ++page)
        EXPECT_EQ(_LumDirtyMapTest(region_->dirty_map[0], page), page >= 2) << page;
}

// Online checkpoints an offline region's marks, or fails the log if an offline
// commit left a checkpoint unacknowledged; the next log is flagged as following
// a gap, and log 0, the whole history, stays as it was.
TEST_F(CheckpointTest, OfflineRegionIsSkippedAndOnlineCheckpointsItOrFailsTheLog) {
    LumRegionCommit(region_);
    LumRegionOffline(region_);
    Change(region_, 3 * Page() + 64, 4, 9);
    EXPECT_TRUE(_LumDirtyMapTest(region_->dirty_map[1], 3)) << "marks go on while offline";
    _LumCheckpointPass();
    EXPECT_EQ(LumRegionCheckpoint(region_), LUM_RC_FAILURE);
    EXPECT_TRUE(File(0, ".chk").empty());
    auto history = File(0, ".log");
    LumRegionOnline(region_);
    EXPECT_EQ(Of(region_), (Generations{0, 1, 0, D}));
    EXPECT_EQ(File(0, ".chk").size(), 4 * Page());
    LumRegionOffline(region_);
    EXPECT_EQ(LumRegionCommit(region_), 0);
    EXPECT_EQ(region_->checkpoint_state.load(), D);
    lumtest::LogCapture log;
    LumDebugFacilitySet("region", 1);
    LumRegionOnline(region_);
    LumDebugFacilitySet("region", 0);
    EXPECT_EQ(Reported(log, 3),
              Texts{"_LumRegionCheckpoint(): last checkpoint not yet acknowledged"});
    EXPECT_EQ(std::make_pair(region_->online.load(), region_->log_failed.load()),
              std::make_pair(1, 1u));
    EXPECT_EQ(LumRegionCommit(region_), 0);
    EXPECT_EQ(Of(region_), (Generations{0, 1, 0, A})) << "on past log 0, the whole history";
    CheckpointAndCommit();
    EXPECT_EQ(Of(region_), (Generations{1, 2, 1, A}));
    EXPECT_EQ(File(0, ".log"), history) << "online, offline and failed, nothing is logged";
    EXPECT_EQ(std::make_pair(Word(1, ".log"), Word(1, ".chk")), std::make_pair(1u, 1u));
    EXPECT_EQ(Tail(1, 2), (Types{LOG_CHECKPOINT, LOG_COMMIT}));
    EXPECT_EQ(File(1, ".log").at(file_header::kFlags), file_header::kFollowsGap);
    CheckpointAndCommit();
    EXPECT_EQ(std::make_pair(Word(0, ".log"), File(0, ".log").at(file_header::kFlags)),
              std::make_pair(2u, uint8_t{0}))
        << "a restart without a failure marks no gap";

    LumRegion *scratch = Create(kMiB, kMiB);
    _LumImageMarkDirty(scratch, scratch->base, 10); // no maps, no buffer: must not touch them
    EXPECT_EQ(LumRegionCheckpoint(scratch), LUM_RC_FAILURE);
}

// The race check: a crash copy taken after a writer and checkpoint passes
// ran side by side recovers the image exactly.
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
            uint32_t page = random() % 64, offset = (random() % (Page() / 4 - 8) + 8) * 4;
            LumMemLogCpyInt(&segment, region_->base + page * Page() + offset,
                            static_cast<int32_t>(random()));
        }
        LumRegionCommit(region_);
    }
    writing = false;
    checkpointer.join();
    lumtest::TempDir crash;
    for (const char *suffix : {"_0.chk", "_1.chk", "_0.log", "_1.log"})
        std::filesystem::copy_file(Path(std::string("p") + suffix), crash.path() + "p" + suffix);
    LumRegion *recovered;
    void *base;
    int32_t verify = std::exchange(region_verify_on_recovery, 0); // an image without segments
    ASSERT_EQ(LumRegionOpen("p", 4 * kMiB, 4 * kMiB, 0, 0, crash.path().c_str(), &recovered, &base),
              0);
    region_verify_on_recovery = verify;
    ASSERT_EQ(recovered->used.load(), region_->used.load());
    EXPECT_EQ(memcmp(recovered->base + 32, region_->base + 32, region_->used.load() - 32), 0);
    LumRegionClose(recovered);
}
