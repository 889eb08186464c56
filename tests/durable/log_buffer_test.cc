// The log buffer and the log files: layout, full buffers, splits, failed logs.
#include <cstring>
#include <tuple>

#include "persistent_fixture.h"

namespace {

// offset, type, length, value
using Heads = std::vector<std::tuple<uint32_t, uint32_t, uint32_t, uint32_t>>;
Heads HeadsOf(const std::vector<uint8_t> &file, size_t first = 0) {
    Heads heads;
    for (const ParsedRecord &record : ParseLog(file))
        heads.emplace_back(record.offset, record.type, record.length, record.value);
    heads.erase(heads.begin(), heads.begin() + std::min(first, heads.size()));
    return heads;
}

} // namespace

// The first flush writes the size, the image so far and the commit; later ones
// append, each opened by the size.
TEST_F(PersistentTest, FirstCommitWritesTheWorkedExampleLogAndLaterOnesAppend) {
    ASSERT_EQ(Page(), 4096u) << "the example is for 4096-byte pages";
    LumRegion *region = CreatePersistent();
    Commit(region);
    auto file = Read("p_0.log");
    ASSERT_EQ(file.size(), 2156u);
    EXPECT_EQ(HeadsOf(file),
              (Heads{{32, LOG_SIZE, 0, 4096}, {44, LOG_DATA, 2088, 0}, {2144, LOG_COMMIT, 0, 0}}));
    EXPECT_EQ(memcmp(ParseLog(file)[1].payload.data(), region->base, 2088), 0);

    Commit(region); // nothing to commit: 24 bytes
    Change(region, 200, 5, 0x22);
    Change(region, 300, 1, 0x33);
    ASSERT_EQ(_LumImageSetSize(region, 256 * 1024), 0);
    uint32_t fill = region->log_buffer->capacity - region->log_buffer->used - 12;
    Change(region, Page(), fill, 0x44); // fills the buffer exactly
    Commit(region);
    EXPECT_EQ(HeadsOf(Read("p_0.log"), 3), (Heads{{2156, LOG_SIZE, 0, 4096},
                                                  {2168, LOG_COMMIT, 0, 0},
                                                  {2180, LOG_SIZE, 0, 4096},
                                                  {2192, LOG_DATA, 5, 200},
                                                  {2212, LOG_DATA, 1, 300},
                                                  {2228, LOG_SIZE, 0, 256 * 1024},
                                                  {2240, LOG_DATA, fill, Page()},
                                                  {2252 + fill, LOG_SIZE, 0, 256 * 1024},
                                                  {2264 + fill, LOG_COMMIT, 0, 0}}));

    // A short change takes the buffer's tail only when its whole record fits.
    uint32_t end = 2276 + fill, room = 20;
    ASSERT_EQ(region->log_buffer->used, 0u);
    fill = region->log_buffer->capacity - 24 - room; // behind the opening LOG_SIZE
    Change(region, Page(), fill, 0x55);
    Change(region, 400, 4, 0x66); // 16 bytes: 4 left
    Change(region, 404, 4, 0x77); // too many for 4: a flush first
    Commit(region);
    EXPECT_EQ(HeadsOf(Read("p_0.log"), 12), (Heads{{end, LOG_SIZE, 0, 256 * 1024},
                                                   {end + 12, LOG_DATA, fill, Page()},
                                                   {end + 24 + fill, LOG_DATA, 4, 400},
                                                   {end + 40 + fill, LOG_SIZE, 0, 256 * 1024},
                                                   {end + 52 + fill, LOG_DATA, 4, 404},
                                                   {end + 68 + fill, LOG_COMMIT, 0, 0}}));
    EXPECT_EQ(LumRegionClose(region), 0);
}

// The buffer holds the largest record named, at least 128 KiB.
TEST_F(PersistentTest, OversizedChangeIsSplitIntoRecordsThatFitTheBuffer) {
    const std::pair<uint32_t, uint32_t> rows[] = {
        {0, 131072}, {131000, 131072}, {1048576, 1048596}, {3 * kMiB, 3 * kMiB + 20}};
    for (auto [largest, capacity] : rows) {
        SCOPED_TRACE(largest);
        LumRegion *region = CreatePersistent("split", 8 * kMiB, 8 * kMiB, largest);
        EXPECT_EQ(region->log_buffer->capacity, capacity);
        ASSERT_EQ(_LumImageSetSize(region, 4 * kMiB), 0);
        for (uint32_t i = 0; i < 3 * kMiB; ++i)
            region->base[Page() + i] = static_cast<uint8_t>(i * 7);
        _LumImageMarkDirty(region, region->base + Page(), 3 * kMiB);
        Commit(region);
        uint32_t covered = Page();
        for (const ParsedRecord &record : ParseLog(Read("split_0.log"))) {
            if (record.type != LOG_DATA || record.value < Page())
                continue;
            EXPECT_EQ(record.value, covered);
            EXPECT_LE(record.length, std::min(log_record::kMaxPayload, capacity - 24));
            EXPECT_EQ(memcmp(record.payload.data(), region->base + record.value, record.length), 0);
            covered += record.length;
        }
        EXPECT_EQ(covered, Page() + 3 * kMiB);
        EXPECT_EQ(LumRegionClose(region), 0);
    }
}

// Until the generation moves on, a failed log drops changes but marks them.
TEST_F(PersistentTest, FailedFlushOrRestartFailsTheLogOfItsGeneration) {
    // what, generation (2 restarts the log of parity 0), write to fail, failed
    // truncate, short write (which sets no errno), the reported error
    const std::tuple<const char *, uint32_t, int, bool, bool, const char *> rows[] = {
        {"write", 0, 1, false, false, "No space left on device"},
        {"zap: truncate", 2, 0, true, false, "Input/output error"},
        {"zap: header", 2, 1, false, false, "No space left on device"},
        {"zap: short header", 2, 1, false, true, "Input/output error"},
    };
    for (auto [what, generation, write_at, ftruncate, short_write, error] : rows) {
        SCOPED_TRACE(what);
        LumRegion *region = CreatePersistent();
        Commit(region);
        _LumDirtyMapFill(region, 0, 0);
        region->generation = generation;
        Change(region, 100, 4, 1);
        {
            lumtest::FileFaults faults;
            faults.fail_write_at = write_at;
            faults.fail_ftruncate = ftruncate;
            faults.short_write = short_write;
            lumtest::LogCapture log;
            LumDebugFacilitySet("region", 1);
            errno = 0;
            Commit(region);
            LumDebugFacilitySet("region", 0);
            auto reports = log.Find(2, 1);
            ASSERT_EQ(reports.size(), 1u);
            EXPECT_EQ(reports[0].severity, 4);
            EXPECT_EQ(reports[0].text, std::string("Logging failed: \"p\": ") + error);
            EXPECT_EQ(log.Find(2, 5).size(), ftruncate ? 1u : 0u) << "failed to zap log 0";
        }
        EXPECT_EQ(std::make_tuple(region->log_failed.load(), region->flushed_generation.load(),
                                  region->log_buffer->used),
                  std::make_tuple(1u, generation, 0u));
        auto failed = Read("p_0.log");
        Change(region, 104, 4, 2);
        EXPECT_EQ(region->log_buffer->used, 0u);
        EXPECT_TRUE(_LumDirtyMapTest(region->dirty_map[0], 0)) << "dropped, but marked";
        Commit(region);
        EXPECT_EQ(Read("p_0.log"), failed);
        EXPECT_EQ(LumRegionClose(region), 0);
    }
}
