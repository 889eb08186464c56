// The log buffer and the files it writes: record layout, the first flush of
// a region, zaps on a new generation, full buffers, oversized records and
// the failed state.
#include <algorithm>
#include <cstring>
#include <tuple>

#include "persistent_fixture.h"

using lumtest::FileFaults;
using lumtest::LogCapture;

namespace {

// A record's offset in the file, type, length and value.
using Head = std::tuple<uint32_t, uint32_t, uint32_t, uint32_t>;
using Heads = std::vector<Head>;

// The heads of a log's records from the `first` on.
Heads HeadsOf(const std::vector<uint8_t> &file, size_t first = 0) {
    Heads heads;
    for (const ParsedRecord &record : ParseLog(file))
        heads.emplace_back(record.offset, record.type, record.length, record.value);
    heads.erase(heads.begin(), heads.begin() + std::min(first, heads.size()));
    return heads;
}

uint32_t HeaderGeneration(const std::vector<uint8_t> &file) {
    return ImageLoad32(&file[file_header::kGeneration]);
}

} // namespace

// The first flush zaps the log and writes the header, the size, the whole
// image so far and the commit. Later commits append; data records are padded
// to four bytes.
TEST_F(PersistentTest, FirstCommitOfANewRegionWritesTheWorkedExampleLog) {
    ASSERT_EQ(Page(), 4096u) << "the example is for 4096-byte pages";
    LumRegion *region = CreatePersistent();
    LogCapture log;
    LumDebugFacilitySet("region", 1);
    Commit(region);
    LumDebugFacilitySet("region", 0);

    auto file = Read("p_0.log");
    ASSERT_EQ(file.size(), 2156u);
    EXPECT_EQ(memcmp(file.data(), "LSB\000010", 8), 0);
    EXPECT_EQ(HeaderGeneration(file), 0u);
    EXPECT_EQ(HeadsOf(file),
              (Heads{{32, LOG_SIZE, 0, 4096}, {44, LOG_DATA, 2088, 0}, {2144, LOG_COMMIT, 0, 0}}));
    EXPECT_EQ(memcmp(ParseLog(file)[1].payload.data(), region->base, 2088), 0);
    auto zaps = log.Find(2, 4);
    ASSERT_EQ(zaps.size(), 1u);
    EXPECT_EQ(zaps[0].text, "_LumLogBufferFlush(): zapping log 0");
    EXPECT_EQ(region->flushed_generation.load(), 0u);

    // A commit with nothing to commit opens the buffer with the size: 24
    // bytes, appended without a zap.
    Commit(region);
    EXPECT_EQ(HeadsOf(Read("p_0.log"), 3),
              (Heads{{2156, LOG_SIZE, 0, 4096}, {2168, LOG_COMMIT, 0, 0}}));
    EXPECT_EQ(log.Find(2, 4).size(), 1u);
    Change(region, 200, 5, 0x22);
    Change(region, 300, 1, 0x33);
    Commit(region);
    EXPECT_EQ(HeadsOf(Read("p_0.log"), 5), (Heads{{2180, LOG_SIZE, 0, 4096},
                                                  {2192, LOG_DATA, 5, 200},
                                                  {2212, LOG_DATA, 1, 300},
                                                  {2228, LOG_COMMIT, 0, 0}}));
    EXPECT_EQ(Read("p_0.log").size(), 2240u);
    EXPECT_EQ(LumRegionClose(region), 0);
}

TEST_F(PersistentTest, RecordThatExactlyFillsTheBufferNeedsNoFlush) {
    LumRegion *region = CreatePersistent();
    ASSERT_EQ(_LumImageSetSize(region, 256 * 1024), 0);
    Commit(region);
    LogBuffer *buffer = region->log_buffer;
    ASSERT_EQ(buffer->capacity, 131072u);
    uint32_t fill = buffer->capacity - 2 * log_record::kHeadSize; // behind the opening LOG_SIZE
    Change(region, Page(), fill, 0x44);
    EXPECT_EQ(buffer->used, buffer->capacity);
    size_t flushed = Read("p_0.log").size();

    // Nothing fits now: the next record flushes first and starts the
    // buffer again behind a LOG_SIZE.
    Commit(region);
    uint32_t at = static_cast<uint32_t>(flushed);
    EXPECT_EQ(HeadsOf(Read("p_0.log"), 4), (Heads{{at, LOG_SIZE, 0, 256 * 1024},
                                                  {at + 12, LOG_DATA, fill, Page()},
                                                  {at + 24 + fill, LOG_SIZE, 0, 256 * 1024},
                                                  {at + 36 + fill, LOG_COMMIT, 0, 0}}));
    EXPECT_EQ(LumRegionClose(region), 0);
}

// The buffer holds the largest record the host names, and at least 128 KiB;
// data larger than a record may be is split into records that fit it.
TEST_F(PersistentTest, OversizedDataIsSplitIntoRecordsThatFitTheBuffer) {
    const std::pair<uint32_t, uint32_t> rows[] = {
        {0, 131072}, {131000, 131072}, {1048576, 1048596}, {3 * kMiB, 3 * kMiB + 20}};
    for (auto [largest, capacity] : rows) {
        LumRegion *region = CreatePersistent("split", 8 * kMiB, 8 * kMiB, largest);
        EXPECT_EQ(region->log_buffer->capacity, capacity) << "largest record " << largest;
        ASSERT_EQ(_LumImageSetSize(region, 4 * kMiB), 0);
        Commit(region);
        for (uint32_t i = 0; i < 3 * kMiB; ++i)
            region->base[Page() + i] = static_cast<uint8_t>(i * 7);
        _LumImageMarkDirty(region, region->base + Page(), 3 * kMiB);
        Commit(region);

        uint32_t covered = Page();
        for (const ParsedRecord &record : ParseLog(Read("split_0.log"))) {
            if (record.type != LOG_DATA || record.value < Page())
                continue;
            EXPECT_EQ(record.value, covered);
            EXPECT_LE(record.length, log_record::kMaxPayload);
            EXPECT_LE(record.length + 24, region->log_buffer->capacity);
            EXPECT_EQ(memcmp(record.payload.data(), region->base + record.value, record.length), 0);
            covered += record.length;
        }
        EXPECT_EQ(covered, Page() + 3 * kMiB) << "largest record " << largest;
        EXPECT_EQ(LumRegionClose(region), 0);
    }
}

TEST_F(PersistentTest, EmptyDataAndOfflineRegionsAppendNothing) {
    LumRegion *region = CreatePersistent();
    uint32_t used = region->log_buffer->used;
    _LumLogBufferAppend(region, LOG_DATA, 100, 0);
    _LumImageMarkDirty(region, region->base + 100, 0);
    EXPECT_EQ(region->log_buffer->used, used);
    region->online = 0;
    Change(region, 100, 4, 1);
    _LumLogBufferAppend(region, LOG_COMMIT, 0, 0);
    _LumLogBufferFlush(region);
    EXPECT_EQ(region->log_buffer->used, used);
    EXPECT_TRUE(Read("p_0.log").empty());
    region->online = 1;
    EXPECT_EQ(LumRegionClose(region), 0);
}

// After a failed write the log takes nothing more until a checkpoint moves
// the generation on; the new generation zaps the log of its parity, and
// the one after it throws away the generation two back.
TEST_F(PersistentTest, FailedWriteFailsTheLogUntilTheGenerationMoves) {
    LumRegion *region = CreatePersistent();
    Commit(region);
    Change(region, 100, 4, 1);
    {
        FileFaults faults;
        faults.fail_write_at = 1;
        LogCapture log;
        Commit(region);
        auto reports = log.Find(2, 1);
        ASSERT_EQ(reports.size(), 1u);
        EXPECT_EQ(reports[0].severity, 4);
        EXPECT_EQ(reports[0].text, "Logging failed: \"p\": No space left on device");
    }
    EXPECT_EQ(region->log_failed.load(), 1u);
    EXPECT_EQ(region->log_buffer->used, 0u);
    EXPECT_EQ(region->flushed_generation.load(), 0u);

    Change(region, 104, 4, 2); // same generation: dropped, but marked
    EXPECT_EQ(region->log_buffer->used, 0u);
    EXPECT_TRUE(_LumDirtyMapTest(region->dirty_map[0], 0));
    Commit(region);
    EXPECT_EQ(Read("p_0.log").size(), 2156u) << "a failed log is not written";

    region->generation = 1; // a checkpoint moved on
    Change(region, 108, 4, 3);
    EXPECT_EQ(region->log_failed.load(), 0u);
    EXPECT_EQ(region->log_buffer->used, 12u + 16u) << "LOG_SIZE, then the record";
    Commit(region);
    auto odd = Read("p_1.log");
    EXPECT_EQ(HeaderGeneration(odd), 1u);
    EXPECT_EQ(HeadsOf(odd),
              (Heads{{32, LOG_SIZE, 0, Page()}, {44, LOG_DATA, 4, 108}, {60, LOG_COMMIT, 0, 0}}));
    region->generation = 2;
    Commit(region);
    auto even = Read("p_0.log");
    EXPECT_EQ(HeaderGeneration(even), 2u);
    EXPECT_EQ(HeadsOf(even), (Heads{{32, LOG_SIZE, 0, Page()}, {44, LOG_COMMIT, 0, 0}}));
    EXPECT_EQ(LumRegionClose(region), 0);
}

TEST_F(PersistentTest, ShortWriteAndFailedZapFailTheLog) {
    LumRegion *region = CreatePersistent();
    {
        FileFaults faults;
        faults.fail_ftruncate = true;
        LogCapture log;
        LumDebugFacilitySet("region", 1);
        Commit(region);
        LumDebugFacilitySet("region", 0);
        auto zap = log.Find(2, 5);
        ASSERT_EQ(zap.size(), 1u);
        EXPECT_EQ(zap[0].text, "_LumLogBufferFlush(): failed to zap log 0: ftruncate(): "
                               "Input/output error");
        EXPECT_EQ(log.Find(2, 1).size(), 1u);
    }
    EXPECT_EQ(region->log_failed.load(), 1u);
    region->generation = 1;
    {
        FileFaults faults;
        faults.fail_write_at = 2; // the header goes out, the records half
        faults.short_write = true;
        Commit(region);
    }
    EXPECT_EQ(region->log_failed.load(), 1u);
    EXPECT_LT(Read("p_1.log").size(), 32u + 24u);
    EXPECT_EQ(LumRegionClose(region), 0);
}
