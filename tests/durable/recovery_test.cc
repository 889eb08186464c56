// Recovery on real files: the source an open restores, what it replays and
// cuts, the scan of a damaged log. A crash is a copy of the open region's files.
#include <fcntl.h>
#include <fstream>
#include <functional>
#include <random>
#include <tuple>

#include "durable/recovery.h"
#include "persistent_fixture.h"

namespace {

namespace fs = std::filesystem;

void Store32(const std::string &path, uint32_t at, uint32_t value) {
    int fd = open(path.c_str(), O_WRONLY);
    ASSERT_EQ(pwrite(fd, &value, 4, at), 4) << path;
    close(fd);
}

uint32_t Load32(const std::string &path, uint32_t at) {
    auto bytes = lumtest::ReadFile(path);
    return bytes.size() < at + 4 ? ~0u : ImageLoad32(&bytes[at]);
}

const char *const kSuffixes[] = {".tab", "_0.chk", "_1.chk", "_0.log", "_1.log"};

// Replaces the files of region "p" in `to` by those in `from`.
void CopyRegionFiles(const std::string &from, const std::string &to) {
    for (const char *suffix : kSuffixes) {
        std::error_code missing;
        fs::remove(to + "p" + suffix);
        fs::copy_file(from + "p" + suffix, to + "p" + suffix, missing);
    }
}

// The bytes of a log file, built record by record.
struct Log {
    std::vector<uint8_t> bytes = std::vector<uint8_t>(file_header::kSize, 0);
    explicit Log(uint32_t generation = 3) {
        memcpy(bytes.data(), file_header::kMagicText, 4);
        ImageStore32(&bytes[file_header::kGeneration], generation);
        ImageStore32(&bytes[file_header::kTimestamp], 1000);
    }
    Log &Record(uint32_t type, uint32_t value = 0, uint32_t length = 0) {
        size_t at = bytes.size();
        bytes.resize(at + log_record::kHeadSize + ((length + 3) & ~3u), 0xAB);
        log_record::StoreHead(&bytes[at], type, value, length);
        return *this;
    }
    Log &Size(uint32_t size = 1 << 24) { return Record(LOG_SIZE, size); }
    Log &Data(uint32_t length, uint32_t at = 0) { return Record(LOG_DATA, at, length); }
    Log &Commit() { return Record(LOG_COMMIT); }
    Log &Cut(size_t bytes_off) { return bytes.resize(bytes.size() - bytes_off), *this; }
    uint64_t End() const { return bytes.size(); }
};

void WriteFile(const std::string &path, const std::vector<uint8_t> &bytes) {
    std::ofstream(path, std::ios::binary)
        .write(reinterpret_cast<const char *>(bytes.data()),
               static_cast<std::streamsize>(bytes.size()));
}

// A region "p" whose history is one counter in a chunk, and crash copies of it.
struct History {
    History() {
        void *base;
        EXPECT_EQ(LumRegionCreate("p", LUM_REGION_PERSISTENT, 4 * kMiB, 4 * kMiB, 0, 0,
                                  live_dir.path().c_str(), &live, &base),
                  0);
        segment = NewSegment(live, 16384);
        counter_offset = ImageOffsetOf(live, AllocLogged(segment, 4));
        Step(0);
    }
    ~History() {
        if (segment)
            LumSegmentClose(segment);
        for (LumRegion *region : {live, opened})
            if (region)
                LumRegionClose(region);
    }
    void Step(int32_t value, bool commit = true) {
        LumMemLogCpyInt(segment, live->base + counter_offset, value);
        if (commit)
            LumRegionCommit(live);
    }
    void Checkpoint(int32_t then_commit) {
        ASSERT_EQ(LumRegionCheckpoint(live), 0);
        Step(then_commit);
    }
    // Closes the live region (a snapshot) and goes on with it reopened.
    void CloseAndReopen() {
        LumSegmentClose(segment);
        ASSERT_EQ(LumRegionClose(live), 0);
        void *base;
        ASSERT_EQ(
            LumRegionOpen("p", 4 * kMiB, 4 * kMiB, 0, 0, live_dir.path().c_str(), &live, &base), 0);
        ASSERT_EQ(LumSegmentOpen(live, 0, &segment), 0);
    }
    std::string Crash() {
        CopyRegionFiles(live_dir.path(), crash_dir.path());
        return crash_dir.path();
    }
    std::string Crashed(const std::string &suffix) const { return crash_dir.path() + "p" + suffix; }
    int32_t OpenCrash(uint32_t soft_limit = 4 * kMiB) {
        void *base;
        return LumRegionOpen("p", 4 * kMiB, soft_limit, 0, 0, crash_dir.path().c_str(), &opened,
                             &base);
    }
    int32_t Counter() const {
        return static_cast<int32_t>(ImageLoad32(opened->base + counter_offset));
    }

    lumtest::TempDir live_dir, crash_dir;
    LumRegion *live = nullptr, *opened = nullptr;
    LumSegment *segment = nullptr;
    uint32_t counter_offset = 0;
};

} // namespace

class RecoveryTest : public PersistentTest {};

// A word of page 0 behind the region header that nothing else writes.
constexpr uint32_t kUncommitted = 4000;

TEST_F(RecoveryTest, OpenRestoresTheNewestConsistentSourceAndReplaysItsLogs) {
    // what, build (then a crash, unless build made one), rc, restoring report
    // (15 tab, 16 chk, 17 logs), counter, generation
    using Row = std::tuple<const char *, std::function<void(History &)>, int32_t, uint32_t, int32_t,
                           uint32_t>;
    auto copy_chk1_as_tab = [](History &h, uint32_t generation, int32_t age) {
        h.Crash();
        fs::copy_file(h.Crashed("_1.chk"), h.Crashed(".tab"), fs::copy_options::overwrite_existing);
        Store32(h.Crashed(".tab"), file_header::kGeneration, generation);
        Store32(h.Crashed(".tab"), file_header::kTimestamp,
                Load32(h.Crashed("_1.chk"), file_header::kTimestamp) + age);
    };
    auto two_checkpoints = [](History &h) {
        h.Checkpoint(1);
        h.Checkpoint(2);
        h.Step(3);
    };
    const Row rows[] = {
        {"commits and no checkpoint: the logs alone", [](History &h) { h.Step(1); }, 0, 17, 1, 0},
        {"an uncommitted tail is cut",
         [](History &h) {
             h.Step(1);
             h.Step(2, false);
             _LumLogBufferFlush(h.live);
         },
         0, 17, 1, 0},
        {"an acknowledged chk 0 and its log", [](History &h) { h.Checkpoint(1), h.Step(2); }, 0, 16,
         2, 0},
        {"chk 0 and logs 0 and 1, a transaction across the switch",
         [](History &h) {
             h.Checkpoint(1);
             h.Step(2, false);
             ASSERT_EQ(LumRegionCheckpoint(h.live), 0);
             h.Step(3);
         },
         0, 16, 3, 1},
        {"an acknowledged chk 1 is newer than chk 0", two_checkpoints, 0, 16, 3, 1},
        {"a damaged chk 1: chk 0 and both logs",
         [&](History &h) {
             two_checkpoints(h);
             Store32(h.Crash() + "p_1.chk", file_header::kMagic, 0);
         },
         0, 16, 3, 1},
        {"log 1 follows a failed log: never replayed behind its gap",
         [](History &h) {
             h.Checkpoint(1);
             {
                 lumtest::FileFaults faults;
                 faults.fail_write_at = 1;
                 h.Step(2);
             }
             h.Checkpoint(3);
             Store32(h.Crash() + "p_1.chk", file_header::kMagic, 0);
         },
         0, 16, 1, 0},
        {"a snapshot alone",
         [](History &h) {
             h.Step(4);
             h.CloseAndReopen(); // generation 0 + 1 in the snapshot, 2 after it
             h.Crash();
             fs::remove(h.Crashed("_0.log"));
         },
         0, 15, 4, 2},
        {"a snapshot and commits after it", [](History &h) { h.CloseAndReopen(), h.Step(5); }, 0,
         15, 5, 2},
        {"a snapshot and a newer chk file",
         [](History &h) { h.CloseAndReopen(), h.Checkpoint(6), h.Step(7); }, 0, 16, 7, 2},
        {"a snapshot older than chk 1 by generation and time",
         [&](History &h) { two_checkpoints(h), copy_chk1_as_tab(h, 0, -1); }, 0, 16, 3, 1},
        {"a snapshot newer than chk 1 by both",
         [&](History &h) { two_checkpoints(h), copy_chk1_as_tab(h, 2, 1); }, 0, 15, 1, 3},
        {"a snapshot stamped at the end of time: later stamps stop there",
         [&](History &h) {
             two_checkpoints(h), copy_chk1_as_tab(h, 2, 1);
             Store32(h.Crashed(".tab"), file_header::kTimestamp, INT32_MAX);
         },
         0, 15, 1, 3},
        {"a snapshot and chk 1 of equal generation",
         [&](History &h) { two_checkpoints(h), copy_chk1_as_tab(h, 1, 1); }, LUM_RC_BAD_FILES, 0, 0,
         0},
        {"a snapshot above chk 1 in generation, of equal time",
         [&](History &h) { two_checkpoints(h), copy_chk1_as_tab(h, 2, 0); }, LUM_RC_BAD_FILES, 0, 0,
         0},
        {"a snapshot and chk 1 ordered opposite ways",
         [&](History &h) { two_checkpoints(h), copy_chk1_as_tab(h, 2, -1); }, LUM_RC_BAD_FILES, 0,
         0, 0},
        {"log 0 of a later generation alone",
         [](History &h) {
             h.Step(1);
             Store32(h.Crash() + "p_0.log", file_header::kGeneration, 2);
         },
         LUM_RC_BAD_FILES, 0, 0, 0},
    };
    for (const auto &[what, build, rc, restoring_id, counter, generation] : rows) {
        SCOPED_TRACE(what);
        History history;
        build(history);
        if (!fs::exists(history.Crashed("_0.chk")))
            history.Crash();
        lumtest::LogCapture log;
        ASSERT_EQ(history.OpenCrash(), rc);
        if (rc != 0) {
            EXPECT_EQ(history.opened, nullptr);
            continue;
        }
        EXPECT_EQ(log.Find(kSetReport, restoring_id).size(), 1u);
        EXPECT_EQ(history.Counter(), counter);
        EXPECT_EQ(history.opened->generation.load(), generation);
        EXPECT_EQ(LumRegionVerify(history.opened), 0);

        // A crash after the pages of the next checkpoint, which hold an
        // uncommitted change, recovers the same state: nothing the open needed
        // (nor a stale acknowledgement of a chk file it cut) is overwritten.
        LumSegment opened{history.opened, nullptr};
        LumMemLogCpyInt(&opened, history.opened->base + kUncommitted, 99);
        static std::string from, to;
        lumtest::TempDir second;
        from = history.crash_dir.path(), to = second.path();
        {
            lumtest::PlatformGuard guard;
            lum_platform.pwrite = [](int fd, const void *bytes, size_t count, off_t offset) {
                ssize_t written = lum_platform_system.pwrite(fd, bytes, count, offset);
                if (count != file_header::kSize)
                    CopyRegionFiles(from, to);
                return written;
            };
            ASSERT_EQ(LumRegionCheckpoint(history.opened), 0);
        }
        LumRegion *again;
        void *base;
        ASSERT_EQ(LumRegionOpen("p", 4 * kMiB, 4 * kMiB, 0, 0, to.c_str(), &again, &base), 0);
        EXPECT_EQ(ImageLoad32(again->base + history.counter_offset),
                  static_cast<uint32_t>(counter));
        EXPECT_EQ(ImageLoad32(again->base + kUncommitted), 0u);
        LumRegionClose(again);
    }
}

TEST_F(RecoveryTest, TheScanTrustsALogUpToItsLastCommitBeforeTheFirstBadRecord) {
    struct Row {
        const char *what;
        Log log;
        bool valid, clean;
        uint64_t commit_end, checkpoint_position;
    };
    const uint64_t none = kNoCheckpoint, head = file_header::kSize;
    Log good = Log().Size().Data(5).Commit();
    Log ack = Log().Size().Record(LOG_CHECKPOINT).Commit();
    // These cross the end of the first read block with the payload, the head.
    Log across = Log().Size().Data(log_record::kMaxPayload - 8).Commit();
    Log head_across = Log().Size().Data(log_record::kMaxPayload - 16).Commit().Commit();
    const Row rows[] = {
        {"empty", Log().Cut(32), false, false, head, none},
        {"a header alone", Log(), false, false, head, none},
        {"a committed log", good, true, true, good.End(), none},
        {"an uncommitted tail that ends cleanly", Log(good).Data(4), true, true, good.End(), none},
        {"a torn head", Log(good).Commit().Cut(5), true, false, good.End(), none},
        {"a torn payload", Log(good).Data(8).Commit().Cut(14), true, false, good.End(), none},
        {"an unknown type", Log(good).Record(4).Commit(), true, false, good.End(), none},
        {"a size with a length", Log(good).Record(LOG_SIZE, 0, 4).Commit(), true, false, good.End(),
         none},
        {"a commit with a length", Log(good).Record(LOG_COMMIT, 0, 4).Commit(), true, false,
         good.End(), none},
        {"data of length 0", Log(good).Data(0).Commit(), true, false, good.End(), none},
        {"data beyond the last size", Log(good).Size(8).Data(4, 5).Commit(), true, false,
         good.End(), none},
        {"data before any size", Log().Data(4).Commit(), true, false, head, none},
        {"a payload beyond the largest record",
         Log(good).Data(log_record::kMaxPayload + 1).Commit(), true, false, good.End(), none},
        {"an acknowledgement and its commit", ack, true, true, ack.End(), head + 12},
        {"an acknowledgement without commit", Log(good).Record(LOG_CHECKPOINT), true, true,
         good.End(), none},
        {"a payload across the read block", across, true, true, across.End(), none},
        {"a head across the read block", head_across, true, true, head_across.End(), none},
    };
    std::vector<uint8_t> buffer(kLogBlock);
    for (const Row &row : rows) {
        SCOPED_TRACE(row.what);
        WriteFile(Path("scan.log"), row.log.bytes);
        RecoveryFile log;
        ASSERT_EQ(_LumFileProbe(dir_.path().c_str(), "scan", ".log", &log, O_RDWR), 0);
        _LumLogCheck(&log, buffer.data());
        EXPECT_EQ(std::make_tuple(log.valid, log.clean, log.commit_end, log.checkpoint_position),
                  std::make_tuple(row.valid, row.clean, row.commit_end, row.checkpoint_position));
        EXPECT_EQ(log.generation, row.log.bytes.size() >= head ? 3u : 0u);
        _LumFileClose(&log);
    }
}

namespace {
int calls, fail_at;
// A platform entry whose fail_at-th call fails with kError.
template <auto kEntry, int kError> struct Failing;
template <typename R, typename... Args, R (*LumPlatform::*kEntry)(Args...), int kError>
struct Failing<kEntry, kError> {
    static R Call(Args... args) {
        if (++calls != fail_at)
            return (lum_platform_system.*kEntry)(args...);
        errno = kError;
        return R(-1);
    }
};
} // namespace

// An open fails whole (nothing published, no descriptor or memory kept) or
// gives the committed state; the next open of the same files recovers.
TEST_F(RecoveryTest, EveryFailureOfAnOpenFailsItWholeAndTheNextOpenRecovers) {
    const std::pair<const char *, void (*)()> faults[] = {
        {"read", [] { lum_platform.pread = Failing<&LumPlatform::pread, EIO>::Call; }},
        {"truncate", [] { lum_platform.ftruncate = Failing<&LumPlatform::ftruncate, EIO>::Call; }},
        {"open", [] { lum_platform.open = Failing<&LumPlatform::open, EACCES>::Call; }},
        {"stat", [] { lum_platform.stat = Failing<&LumPlatform::stat, EIO>::Call; }},
        {"malloc", [] { lum_malloc_fail_at(fail_at), calls = -1; }},
    };
    History history;
    history.Checkpoint(1);
    history.Step(2);
    history.Step(3, false);
    _LumLogBufferFlush(history.live); // an uncommitted tail to cut
    history.Crash();
    EXPECT_EQ(history.OpenCrash(Page()), LUM_RC_SOFT_LIMIT) << "the image is larger";
    for (const auto &[what, install] : faults) {
        for (fail_at = 1;; ++fail_at) {
            SCOPED_TRACE(std::string(what) + " " + std::to_string(fail_at));
            history.Crash();
            int32_t rc;
            {
                lumtest::PlatformGuard guard;
                calls = 0;
                install();
                rc = history.OpenCrash();
                lum_malloc_fail_at(0);
            }
            // Done when the fault was not reached (malloc counts no calls).
            bool reached = calls < 0 ? rc != 0 : calls >= fail_at;
            if (history.opened != nullptr) { // recovered, or verified to a failure of its own
                EXPECT_EQ(history.Counter(), 2);
                LumRegionClose(std::exchange(history.opened, nullptr));
                if (!reached)
                    break;
                continue;
            }
            EXPECT_TRUE(rc == LUM_RC_BAD_FILES || rc == LUM_RC_NO_MEMORY) << rc;
            ASSERT_EQ(history.OpenCrash(), 0);
            EXPECT_EQ(history.Counter(), 2);
            LumRegionClose(std::exchange(history.opened, nullptr));
        }
    }
}

// A directory with no files, or with logs that committed nothing, has nothing
// to restore; the probes leave empty working files.
TEST_F(RecoveryTest, NoFilesAndLogsThatCommittedNothingHaveNothingToRestore) {
    History history; // and no crash copy
    for (int attempt = 0; attempt < 2; ++attempt) {
        EXPECT_EQ(history.OpenCrash(), LUM_RC_BAD_FILES);
        for (const char *suffix : {"_0.chk", "_1.chk", "_0.log", "_1.log"})
            EXPECT_TRUE(fs::exists(history.Crashed(suffix)) &&
                        fs::is_empty(history.Crashed(suffix)))
                << suffix;
        EXPECT_FALSE(fs::exists(history.Crashed(".tab")));
    }
    WriteFile(history.Crashed("_0.log"), Log(0).Size(Page()).bytes);
    EXPECT_EQ(history.OpenCrash(), LUM_RC_BAD_FILES);
}

// A record that a read block cuts is replayed from its own bytes: a log of
// several blocks of uneven records comes back byte for byte after a crash.
TEST_F(RecoveryTest, ALogOfManyBlocksIsReplayedByteForByte) {
    lumtest::TempDir crash;
    LumRegion *region = CreatePersistent("p", 8 * kMiB, 8 * kMiB);
    LumSegment *segment = NewSegment(region, 2 * kMiB);
    const uint32_t size = kMiB + kMiB / 2;
    uint8_t *area = AllocLogged(segment, size);
    ASSERT_EQ(LumRegionCheckpoint(region), 0);
    LumRegionCommit(region); // acknowledges it: what follows is replayed
    std::mt19937 random(7);
    std::vector<uint8_t> bytes(300);
    for (uint64_t logged = 0; logged < 3 * kLogBlock; logged += bytes.size()) {
        bytes.resize(1 + random() % 300);
        for (uint8_t &byte : bytes)
            byte = static_cast<uint8_t>(random());
        LumMemLogCpy(segment, area + random() % (size - bytes.size()), bytes.data(),
                     static_cast<uint32_t>(bytes.size()));
        if (random() % 64 == 0)
            LumRegionCommit(region);
    }
    LumRegionCommit(region);
    CopyRegionFiles(dir_.path(), crash.path());
    const std::vector<uint8_t> committed(area, area + size);
    uint32_t at = ImageOffsetOf(region, area);
    LumSegmentClose(segment);
    EXPECT_EQ(LumRegionClose(region), 0);
    void *base;
    ASSERT_EQ(LumRegionOpen("p", 8 * kMiB, 8 * kMiB, 0, 0, crash.path().c_str(), &region, &base),
              0);
    EXPECT_TRUE(std::equal(committed.begin(), committed.end(), static_cast<uint8_t *>(base) + at));
    EXPECT_EQ(LumRegionClose(region), 0);
}
