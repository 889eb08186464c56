// The log buffer and the files it writes: record layout, the first flush of
// a region, zaps on a new generation, full buffers, oversized records and
// the failed state.
#include <cstring>

#include "persistent_fixture.h"

using lumtest::FileFaults;
using lumtest::LogCapture;

namespace {

void ExpectRecord(const ParsedRecord &record, uint32_t offset, uint32_t type, uint32_t length,
                  uint32_t value) {
    EXPECT_EQ(record.offset, offset);
    EXPECT_EQ(record.type, type);
    EXPECT_EQ(record.length, length);
    EXPECT_EQ(record.value, value);
}

uint32_t HeaderGeneration(const std::vector<uint8_t> &file) {
    return ImageLoad32(&file[file_header::kGeneration]);
}

} // namespace

TEST_F(PersistentTest, FirstCommitOfANewRegionWritesTheWorkedExampleLog) {
    ASSERT_EQ(Page(), 4096u) << "the example is for 4096-byte pages";
    LumRegion *region = CreatePersistent();
    for (const char *file : {"p_0.chk", "p_1.chk", "p_0.log", "p_1.log"})
        EXPECT_TRUE(Read(file).empty()) << file << " stays empty until the first flush";
    LogCapture log;
    LumDebugFacilitySet("region", 1);
    Commit(region);
    LumDebugFacilitySet("region", 0);

    auto file = Read("p_0.log");
    ASSERT_EQ(file.size(), 2156u);
    EXPECT_EQ(memcmp(file.data(),
                     "LSB\0"
                     "010\0",
                     8),
              0);
    EXPECT_EQ(HeaderGeneration(file), 0u);
    auto records = ParseLog(file);
    ASSERT_EQ(records.size(), 3u);
    ExpectRecord(records[0], 32, LOG_SIZE, 0, 4096);
    ExpectRecord(records[1], 44, LOG_DATA, 2088, 0);
    EXPECT_EQ(memcmp(records[1].payload.data(), region->base, 2088), 0);
    ExpectRecord(records[2], 2144, LOG_COMMIT, 0, 0);
    auto zaps = log.Find(2, 4);
    ASSERT_EQ(zaps.size(), 1u);
    EXPECT_EQ(zaps[0].text, "_LumLogBufferFlush(): zapping log 0");
    EXPECT_EQ(region->flushed_generation.load(), 0u);

    // A commit with nothing to commit opens the buffer with the size: 24
    // bytes, appended without a zap.
    Commit(region);
    file = Read("p_0.log");
    ASSERT_EQ(file.size(), 2156u + 24);
    records = ParseLog(file);
    ExpectRecord(records[3], 2156, LOG_SIZE, 0, 4096);
    ExpectRecord(records[4], 2168, LOG_COMMIT, 0, 0);
    EXPECT_EQ(log.Find(2, 4).size(), 1u);
    EXPECT_EQ(LumRegionClose(region), 0);
}

TEST_F(PersistentTest, NewGenerationZapsTheLogOfItsParity) {
    LumRegion *region = CreatePersistent();
    Commit(region);
    region->generation = 1;
    Change(region, 100, 4, 0x11);
    Commit(region);
    auto odd = Read("p_1.log");
    EXPECT_EQ(HeaderGeneration(odd), 1u);
    auto records = ParseLog(odd);
    ASSERT_EQ(records.size(), 3u);
    ExpectRecord(records[0], 32, LOG_SIZE, 0, Page());
    ExpectRecord(records[1], 44, LOG_DATA, 4, 100);

    region->generation = 2;
    Commit(region);
    auto even = Read("p_0.log");
    EXPECT_EQ(HeaderGeneration(even), 2u);
    EXPECT_EQ(even.size(), 32u + 24) << "the generation two back is thrown away";
    EXPECT_EQ(LumRegionClose(region), 0);
}

TEST_F(PersistentTest, DataRecordsArePaddedToFourBytes) {
    LumRegion *region = CreatePersistent();
    Commit(region);
    Change(region, 200, 5, 0x22);
    Change(region, 300, 1, 0x33);
    Commit(region);
    auto records = ParseLog(Read("p_0.log"));
    ASSERT_EQ(records.size(), 7u);
    ExpectRecord(records[3], 2156, LOG_SIZE, 0, Page());
    ExpectRecord(records[4], 2168, LOG_DATA, 5, 200);
    ExpectRecord(records[5], 2188, LOG_DATA, 1, 300);
    ExpectRecord(records[6], 2204, LOG_COMMIT, 0, 0);
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
    auto records = ParseLog(Read("p_0.log"));
    EXPECT_GT(Read("p_0.log").size(), flushed + fill);
    ASSERT_GE(records.size(), 3u);
    ExpectRecord(records[records.size() - 3], static_cast<uint32_t>(flushed + 12), LOG_DATA, fill,
                 Page());
    ExpectRecord(records[records.size() - 2], static_cast<uint32_t>(flushed + 24 + fill), LOG_SIZE,
                 0, 256 * 1024);
    ExpectRecord(records.back(), static_cast<uint32_t>(flushed + 36 + fill), LOG_COMMIT, 0, 0);
    EXPECT_EQ(LumRegionClose(region), 0);
}

TEST_F(PersistentTest, OversizedDataIsSplitIntoRecordsThatReplayTheSameBytes) {
    for (uint32_t largest : {0u, 3 * kMiB}) {
        LumRegion *region = CreatePersistent("split", 8 * kMiB, 8 * kMiB, largest);
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
    auto records = ParseLog(Read("p_1.log"));
    ASSERT_EQ(records.size(), 3u);
    ExpectRecord(records[1], 44, LOG_DATA, 4, 108);
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

TEST_F(PersistentTest, BufferCapacityFollowsTheLargestRecord) {
    const std::pair<uint32_t, uint32_t> cases[] = {
        {0, 131072}, {131000, 131072}, {1048576, 1048596}};
    for (auto [largest, capacity] : cases) {
        LumRegion *region = CreatePersistent("cap", 4 * kMiB, 4 * kMiB, largest);
        EXPECT_EQ(region->log_buffer->capacity, capacity) << "largest record " << largest;
        EXPECT_EQ(LumRegionClose(region), 0);
    }
}
