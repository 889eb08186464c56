// Segments and chunk allocation: the records of the worked example, the
// sizes and statistics at their edges, growth and shrinking of a segment,
// and a randomized run checked against a model after every step.
#include <array>
#include <map>
#include <random>
#include <set>
#include <tuple>

#include "persistent_fixture.h"

namespace {

LumSegmentInfo InfoOf(LumSegment *segment) {
    LumSegmentInfo info;
    LumSegmentGetInfo(segment, &info);
    return info;
}

// A segment's figures: extents, total, free bytes and chunks, used bytes and chunks.
using Figures = std::array<uint32_t, 6>;
Figures FiguresOf(LumSegment *segment) {
    LumSegmentInfo i = InfoOf(segment);
    return {i.extents, i.total_bytes, i.free_bytes, i.free_chunks, i.used_bytes, i.used_chunks};
}

} // namespace

class AllocTest : public PersistentTest {
  protected:
    void SetUp() override { region_ = CreatePersistent("alloc", 64 * kMiB, 64 * kMiB, kMiB); }
    void TearDown() override {
        for (LumSegment *segment : segments_)
            EXPECT_EQ(LumSegmentDrop(segment), 0);
        // Drops free the live chunks and give the image back.
        EXPECT_EQ(region_->used, FirstExtentOffset());
        EXPECT_EQ(ImageLoad32(region_->base + region_header::kSegmentCount), 0u);
        EXPECT_EQ(LumRegionVerify(region_), 0);
        EXPECT_EQ(LumRegionDrop(region_), 0);
    }
    LumSegment *Segment(uint32_t primary, uint32_t secondary = 0, uint32_t growth = 0,
                        uint32_t maximum = 0) {
        LumSegment *segment = nullptr;
        EXPECT_EQ(LumSegmentCreate(region_, primary, secondary, growth, maximum, &segment), 0);
        if (segment)
            segments_.push_back(segment);
        return segment;
    }
    void *Alloc(LumSegment *segment, uint32_t size) {
        void *pointer = nullptr;
        EXPECT_EQ(LumMemAlloc(segment, size, &pointer), 0);
        if (pointer)
            LumMemLog(segment, pointer);
        return pointer;
    }

    LumRegion *region_ = nullptr;
    std::vector<LumSegment *> segments_;
};

TEST_F(AllocTest, WorkedExampleLeavesTheseRecordsInThisOrder) {
    ASSERT_EQ(Page(), 4096u);
    LumRegionCommit(region_);
    uint32_t from = region_->log_buffer->used;
    LumSegment *segment = Segment(65536);
    void *pointer = Alloc(segment, 100);
    EXPECT_EQ(static_cast<uint8_t *>(pointer) - region_->base, 5720);
    ASSERT_EQ(LumMemFree(segment, pointer), 0);

    // Type, value and length of each record.
    const std::vector<std::array<uint32_t, 3>> expected = {
        {LOG_SIZE, 69632, 0},   {LOG_DATA, 4096, 16},  {LOG_DATA, 69628, 4}, {LOG_DATA, 32, 4},
        {LOG_DATA, 4096, 1636}, {LOG_DATA, 69588, 40}, {LOG_DATA, 5608, 8},  {LOG_DATA, 5720, 8},
        {LOG_DATA, 4096, 1604}, {LOG_DATA, 544, 4},    {LOG_DATA, 5608, 8},  {LOG_DATA, 5608, 8},
        {LOG_DATA, 5828, 12},   {LOG_DATA, 69608, 4},  {LOG_DATA, 4136, 24}, {LOG_DATA, 5716, 112},
        {LOG_DATA, 5608, 8},    {LOG_DATA, 5608, 8},   {LOG_DATA, 5716, 12}, {LOG_DATA, 69608, 4},
        {LOG_DATA, 4136, 24}};
    std::vector<std::array<uint32_t, 3>> records;
    for (const ParsedRecord &record : BufferRecords(region_, from))
        records.push_back({record.type, record.value, record.length});
    EXPECT_EQ(records, expected);
}

// An allocation appends its records behind those in the buffer, but the
// buffer may also be empty or run full in the middle of the operation.
// Whatever it holds, the log gets the same records, payloads included, and
// both maps get exactly the pages of those records.
TEST_F(AllocTest, AnOperationLogsTheSameWhateverTheBufferHolds) {
    LumSegment *segment = Segment(65536);
    const std::string log = "alloc_0.log";
    auto data_records = [&](size_t skip) {
        std::vector<std::tuple<uint32_t, uint32_t, std::vector<uint8_t>>> records;
        std::vector<ParsedRecord> all = ParseLog(Read(log));
        for (size_t i = skip; i < all.size(); ++i)
            if (all[i].type == LOG_DATA)
                records.emplace_back(all[i].value, all[i].length, all[i].payload);
        return records;
    };
    // Leaves exactly `room` bytes free in the buffer, with records of
    // scratch bytes inside the segment's free chunk.
    auto fill_to = [&](uint32_t room) {
        LogBuffer *buffer = region_->log_buffer;
        uint32_t scratch = static_cast<uint32_t>(segment->primary - region_->base) + 16384;
        while (buffer->capacity - buffer->used - room > 4096 + 12 + 12)
            Change(region_, scratch, 4096, 0x5A);
        Change(region_, scratch, buffer->capacity - buffer->used - room - 12, 0x5A);
        ASSERT_EQ(buffer->capacity - buffer->used, room);
    };
    struct Row {
        const char *what;
        bool commit_first;
        uint32_t room; // 0: as it comes
    };
    const Row rows[] = {
        {"behind other records", false, 0},
        {"in an empty buffer", true, 0},
        {"in a buffer that runs full after two records", false, 40},
        {"in a buffer with no room", false, 4},
    };
    decltype(data_records(0)) expected;
    for (const Row &row : rows) {
        SCOPED_TRACE(row.what);
        if (row.commit_first)
            LumRegionCommit(region_);
        if (row.room != 0)
            fill_to(row.room);
        size_t before = ParseLog(Read(log)).size() + BufferRecords(region_).size();
        _LumDirtyMapFill(region_, 0, 0);
        _LumDirtyMapFill(region_, 1, 0);
        void *pointer = Alloc(segment, 100);
        ASSERT_EQ(LumMemFree(segment, pointer), 0);
        LumRegionCommit(region_);

        if (row.commit_first) {
            EXPECT_EQ(ParseLog(Read(log))[before].type, LOG_SIZE) << "a log opens with its size";
        }
        auto records = data_records(before);
        std::set<uint32_t> pages, even, odd;
        for (const auto &[value, length, payload] : records)
            for (uint32_t page = value / Page(); page <= (value + length - 1) / Page(); ++page)
                pages.insert(page);
        for (uint32_t page = 0; page < region_->used / Page(); ++page) {
            if (_LumDirtyMapTest(region_->dirty_map[0], page))
                even.insert(page);
            if (_LumDirtyMapTest(region_->dirty_map[1], page))
                odd.insert(page);
        }
        EXPECT_EQ(even, pages);
        EXPECT_EQ(odd, pages);
        if (expected.empty())
            expected = records;
        EXPECT_EQ(records, expected);
    }
    EXPECT_EQ(expected.size(), 11u);
}

// In a region that protects its pages, the allocator opens and closes them
// around its own stores, hands the chunk out writable and LumMemLog closes
// it; the records are those of an unprotected region.
TEST_F(AllocTest, ProtectedRegionHandsOutWritableChunksThatLumMemLogCloses) {
    LumRegion *guarded = nullptr;
    void *base;
    ASSERT_EQ(LumRegionCreate("guarded", LUM_REGION_PERSISTENT, 4 * kMiB, 4 * kMiB, 0, 1,
                              dir_.path().c_str(), &guarded, &base),
              0);
    LumSegment *segment = nullptr;
    ASSERT_EQ(LumSegmentCreate(guarded, 65536, 0, 0, 0, &segment), 0);
    uint32_t from = guarded->log_buffer->used;
    void *kept = nullptr, *pointer = nullptr;
    ASSERT_EQ(LumMemAlloc(segment, 100, &kept), 0);
    LumMemLog(segment, kept);
    ASSERT_EQ(LumMemAlloc(segment, 100, &pointer), 0);
    auto *data = static_cast<uint8_t *>(pointer);
    EXPECT_FALSE(lumtest::FaultsInChild([&] { data[50] = 1; }));
    LumMemLog(segment, pointer);
    EXPECT_TRUE(lumtest::FaultsInChild([&] { data[50] = 1; }));
    EXPECT_EQ(LumMemFree(segment, kept), 0);
    EXPECT_EQ(LumMemFree(segment, pointer), 0);
    EXPECT_EQ(LengthsOf(BufferRecords(guarded, from)),
              (std::vector<uint32_t>{8,   8, 12, 4, 24, 112, 8, 8, 12, 4, 24,
                                     112, 8, 12, 4, 24, 8,   8, 8, 12, 4, 24}));
    EXPECT_EQ(LumRegionVerify(guarded), 0);
    EXPECT_EQ(LumSegmentDrop(segment), 0);
    EXPECT_EQ(LumRegionDrop(guarded), 0);
}

TEST_F(AllocTest, ChunkSizesAndStatisticsAtTheirEdges) {
    LumSegment *segment = Segment(4096);
    EXPECT_EQ(InfoOf(segment).free_bytes, 2456u);
    EXPECT_EQ(static_cast<uint8_t *>(Alloc(segment, 100)) - segment->primary, 1624);
    EXPECT_EQ(FiguresOf(segment), (Figures{1, 4096, 2344, 1, 112, 1}));
    const std::pair<uint32_t, uint32_t> sizes[] = {{0, 8}, {1, 8}, {8, 8}, {9, 16}};
    for (auto [request, usable] : sizes) {
        void *pointer = Alloc(segment, request);
        EXPECT_EQ(LumMemGetSize(pointer), usable) << request;
        EXPECT_EQ(reinterpret_cast<uintptr_t>(pointer) % 8, 0u);
    }
    // The whole free chunk less 8 bytes takes it whole.
    uint32_t rest = InfoOf(segment).free_bytes;
    EXPECT_EQ(LumMemGetSize(Alloc(segment, rest - 8)), rest - 8);
    EXPECT_EQ(InfoOf(segment).free_chunks, 0u);
    EXPECT_EQ(InfoOf(segment).extents, 1u);
}

TEST_F(AllocTest, TakesChunksWholeUnlessSixteenBytesRemain) {
    LumSegment *segment = Segment(4096);
    void *a = Alloc(segment, 24); // a chunk of 32
    Alloc(segment, 8);
    void *e = Alloc(segment, 16); // a chunk of 24
    Alloc(segment, 8);
    ASSERT_EQ(LumMemFree(segment, a), 0);
    ASSERT_EQ(LumMemFree(segment, e), 0);
    void *whole = Alloc(segment, 8); // best fit: the 24, taken whole for a want of 16
    EXPECT_EQ(whole, e);
    EXPECT_EQ(LumMemGetSize(whole), 16u);
    void *d = Alloc(segment, 8); // the 32 is split into 16 and 16
    EXPECT_EQ(d, a);
    EXPECT_EQ(LumMemGetSize(d), 8u);
    EXPECT_EQ(ImageLoad32(static_cast<uint8_t *>(a) + 12), 16u | CHUNK_FREE);
}

TEST_F(AllocTest, FreesMergeInAnyOrderAndBadFreesChangeNothing) {
    LumSegment *segment = Segment(4096);
    Figures empty = FiguresOf(segment);
    void *a = Alloc(segment, 40), *b = Alloc(segment, 40), *c = Alloc(segment, 40);
    EXPECT_EQ(LumMemFree(segment, static_cast<uint8_t *>(a) + 4), LUM_RC_FAILURE);
    EXPECT_EQ(LumMemFree(segment, a), 0);
    Figures before = FiguresOf(segment);
    EXPECT_EQ(LumMemFree(segment, a), LUM_RC_DOUBLE_FREE);
    EXPECT_EQ(FiguresOf(segment), before);
    EXPECT_EQ(LumMemFree(segment, c), 0);
    EXPECT_EQ(LumMemFree(segment, b), 0);
    EXPECT_EQ(FiguresOf(segment), empty) << "one free chunk in the primary extent that stays";
    void *out = reinterpret_cast<void *>(1);
    EXPECT_EQ(LumMemAlloc(segment, 0xFFFFFFFF - 70, &out), LUM_RC_FAILURE);
    EXPECT_EQ(out, nullptr);
}

TEST_F(AllocTest, SegmentGrowsByTheFormulaUntilItsMaximumOrTheSoftLimit) {
    LumSegment *flat = Segment(65536, 65536, 0, 196608);
    for (int i = 0; i < 3; ++i)
        Alloc(flat, 60000);
    EXPECT_EQ(InfoOf(flat).total_bytes, 196608u);
    void *pointer = reinterpret_cast<void *>(1);
    EXPECT_EQ(LumMemAlloc(flat, 60000, &pointer), LUM_RC_MAX_SEGMENT_SIZE);
    EXPECT_EQ(pointer, nullptr);

    // Growth of 50%: 64 KiB, then 96 KiB even past the maximum, then more.
    LumSegment *growing = Segment(65536, 65536, 50, 196608);
    const uint32_t steps[][2] = {{60000, 65536}, {60000, 131072}, {70000, 229376}};
    for (auto [request, total] : steps) {
        Alloc(growing, request);
        EXPECT_EQ(InfoOf(growing).total_bytes, total) << request;
    }
    // Growth refused by the soft limit leaves the statistics alone.
    ASSERT_EQ(LumRegionSetSoftLimit(region_, region_->used), 0);
    Figures before = FiguresOf(growing);
    EXPECT_EQ(LumMemAlloc(growing, 140000, &pointer), LUM_RC_SOFT_LIMIT);
    EXPECT_EQ(FiguresOf(growing), before);
    ASSERT_EQ(LumRegionSetSoftLimit(region_, 64 * kMiB), 0);
    Alloc(growing, 140000);
    EXPECT_EQ(InfoOf(growing).extents, 4u) << "and goes on growing";
    EXPECT_EQ(InfoOf(growing).free_chunks, before[3] + 1) << "grown and split";
}

TEST_F(AllocTest, SecondaryExtentsChainNewestFirstAndGoBackWhenEmpty) {
    LumSegment *segment = Segment(4096, 0);
    Alloc(segment, 2000);
    void *in_a = Alloc(segment, 3000); // first secondary extent, A
    void *in_b = Alloc(segment, 5000); // second, B: as large as its request needs
    uint32_t b = ImageLoad32(segment->primary + extent_header::kNext);
    uint32_t a = ImageLoad32(region_->base + b + extent_header::kNext);
    EXPECT_EQ(ImageLoad32(region_->base + a + extent_header::kPrev), b);
    EXPECT_EQ(ImageLoad32(region_->base + b), 2 * Page()) << "5000 + 56 rounded up";
    LumSegmentInfo before = InfoOf(segment);
    ASSERT_EQ(LumMemFree(segment, in_a), 0);
    LumSegmentInfo after = InfoOf(segment);
    EXPECT_EQ(after.extents, before.extents - 1);
    EXPECT_EQ(after.total_bytes, before.total_bytes - Page());
    uint32_t rest_of_a = Page() - 56 - 3008; // the free chunk behind the freed one
    EXPECT_EQ(after.free_bytes, before.free_bytes - rest_of_a) << "it left with the extent";
    EXPECT_EQ(ImageLoad32(region_->base + b + extent_header::kNext), 0u);
    uint32_t used = region_->used;
    ASSERT_EQ(LumMemFree(segment, in_b), 0);
    EXPECT_LT(region_->used, used) << "the last extent of the image went back";
}

TEST_F(AllocTest, SegmentsTakeTheLowestFreeIdUpToTheLimitAndRefuseBadSizes) {
    LumSegment *opened = reinterpret_cast<LumSegment *>(1);
    EXPECT_EQ(LumSegmentCreate(region_, 0, 0, 0, 0, &opened), LUM_RC_ALLOCATOR_TYPE);
    EXPECT_EQ(LumSegmentCreate(region_, 8192, 8192, 0, 16383, &opened), LUM_RC_ALLOCATOR_TYPE);
    std::vector<LumSegment *> seven;
    for (int i = 0; i < 7; ++i)
        seven.push_back(Segment(4096));
    EXPECT_EQ(InfoOf(seven[5]).segment_id, 5u);
    std::erase(segments_, seven[5]);
    ASSERT_EQ(LumSegmentDrop(seven[5]), 0);
    EXPECT_EQ(LumSegmentOpen(region_, 5, &opened), LUM_RC_BAD_SEGMENT_ID);
    EXPECT_EQ(LumSegmentOpen(region_, 128, &opened), LUM_RC_BAD_SEGMENT_ID);
    uint8_t *entry = region_->base + region_header::kSegmentMap + 4 * 5;
    ImageStore32(entry, 0xFFFFF000); // a damaged map entry beyond the image
    EXPECT_EQ(LumSegmentOpen(region_, 5, &opened), LUM_RC_BAD_SEGMENT_ID);
    ImageStore32(entry, 0);
    EXPECT_EQ(opened, reinterpret_cast<LumSegment *>(1));
    LumSegment *exact = Segment(8192, 8192, 0, 16384);
    EXPECT_EQ(InfoOf(exact).segment_id, 5u);
    EXPECT_EQ(ImageLoad32(exact->primary + primary_extent::kPrimarySize), 8192u);
    EXPECT_EQ(ImageLoad32(Segment(1)->primary + primary_extent::kPrimarySize), Page());
    ASSERT_EQ(LumSegmentOpen(region_, 6, &opened), 0);
    EXPECT_EQ(opened->primary, seven[6]->primary);
    EXPECT_EQ(LumSegmentClose(opened), 0);
    while (segments_.size() < 128)
        Segment(1);
    EXPECT_EQ(LumSegmentCreate(region_, 0, 0, 0, 0, &opened), LUM_RC_MAX_SEGMENTS);
    EXPECT_EQ(LumRegionDrop(region_), LUM_RC_SEGMENTS_REMAIN);
}

// Thousands of random allocations, logged writes and frees over several
// segments, checked after each step against a model of the live chunks,
// with the image verified throughout.
TEST_F(AllocTest, RandomRunKeepsTheModelAndAVerifiableImage) {
    std::mt19937 random(12345);
    std::vector<LumSegment *> segments = {Segment(8192, 4096, 25), Segment(65536, 16384, 0),
                                          Segment(4096, 0)};
    std::map<uint8_t *, std::tuple<LumSegment *, uint32_t, uint8_t>> live; // segment, size, fill
    for (int step = 0; step < 4000; ++step) {
        if (live.empty() || random() % 3 != 0) {
            LumSegment *segment = segments[random() % segments.size()];
            uint32_t size = random() % 4 == 0 ? 1 + random() % 12000 : 1 + random() % 300;
            auto *at = static_cast<uint8_t *>(Alloc(segment, size));
            ASSERT_NE(at, nullptr);
            ASSERT_GE(LumMemGetSize(at), size);
            uint8_t fill = static_cast<uint8_t>(random());
            LumMemLogSet(segment, at, fill, size);
            for (auto &[other, entry] : live)
                ASSERT_TRUE(at + size <= other || other + std::get<1>(entry) <= at) << "overlap";
            live[at] = {segment, size, fill};
        } else {
            auto it = std::next(live.begin(), random() % live.size());
            auto [segment, size, fill] = it->second;
            for (uint32_t i = 0; i < size; i += 97)
                ASSERT_EQ(it->first[i], fill) << "contents of a live chunk";
            ASSERT_EQ(LumMemFree(segment, it->first), 0);
            live.erase(it);
        }
        if (step % 50 == 0) {
            ASSERT_EQ(LumRegionVerify(region_), 0) << "step " << step;
            LumRegionCommit(region_);
        }
    }
    uint32_t used_chunks = 0;
    for (LumSegment *segment : segments)
        used_chunks += InfoOf(segment).used_chunks;
    EXPECT_EQ(used_chunks, live.size());
}
