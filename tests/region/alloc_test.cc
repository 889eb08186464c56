// Segments and chunk allocation: the records of the worked example, the
// sizes and statistics at their edges, growth and shrinking of a segment,
// and a randomized run checked against a model after every step.
#include <map>
#include <random>

#include "persistent_fixture.h"

namespace {

std::vector<ParsedRecord> RecordsSince(LumRegion *region, uint32_t from) {
    LogBuffer *buffer = region->log_buffer;
    std::vector<uint8_t> bytes(file_header::kSize, 0);
    bytes.insert(bytes.end(), buffer->data + from, buffer->data + buffer->used);
    return ParseLog(bytes);
}

LumSegmentInfo InfoOf(LumSegment *segment) {
    LumSegmentInfo info;
    LumSegmentGetInfo(segment, &info);
    return info;
}

} // namespace

class AllocTest : public PersistentTest {
  protected:
    void SetUp() override { region_ = CreatePersistent("alloc", 64 * kMiB, 64 * kMiB, kMiB); }
    void TearDown() override {
        for (LumSegment *segment : segments_)
            EXPECT_EQ(LumSegmentDrop(segment), 0);
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
    uint32_t Offset(const void *at) const {
        return ImageOffsetOf(region_, static_cast<const uint8_t *>(at));
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
    EXPECT_EQ(Offset(pointer), 5720u);
    ASSERT_EQ(LumMemFree(segment, pointer), 0);

    const uint32_t expected[][3] = {
        {LOG_SIZE, 69632, 0},   {LOG_DATA, 4096, 16},  {LOG_DATA, 69628, 4}, {LOG_DATA, 32, 4},
        {LOG_DATA, 4096, 1636}, {LOG_DATA, 69588, 40}, {LOG_DATA, 5608, 8},  {LOG_DATA, 5720, 8},
        {LOG_DATA, 4096, 1604}, {LOG_DATA, 544, 4},    {LOG_DATA, 5608, 8},  {LOG_DATA, 5608, 8},
        {LOG_DATA, 5828, 12},   {LOG_DATA, 69608, 4},  {LOG_DATA, 4136, 24}, {LOG_DATA, 5716, 112},
        {LOG_DATA, 5608, 8},    {LOG_DATA, 5608, 8},   {LOG_DATA, 5716, 12}, {LOG_DATA, 69608, 4},
        {LOG_DATA, 4136, 24}};
    auto records = RecordsSince(region_, from);
    if (!records.empty() && records[0].type == LOG_SIZE && records[0].value == Page())
        records.erase(records.begin()); // the buffer's opening LOG_SIZE
    ASSERT_EQ(records.size(), std::size(expected));
    for (size_t i = 0; i < records.size(); ++i) {
        EXPECT_EQ(records[i].type, expected[i][0]) << "record " << i;
        EXPECT_EQ(records[i].value, expected[i][1]) << "record " << i;
        EXPECT_EQ(records[i].length, expected[i][2]) << "record " << i;
    }
}

TEST_F(AllocTest, ChunkSizesAndStatisticsAtTheirEdges) {
    LumSegment *segment = Segment(4096);
    EXPECT_EQ(InfoOf(segment).free_bytes, 2456u);
    void *first = Alloc(segment, 100);
    EXPECT_EQ(Offset(first) - 4, Offset(segment->primary) + 1620);
    LumSegmentInfo info = InfoOf(segment);
    EXPECT_EQ(info.free_bytes, 2344u);
    EXPECT_EQ(info.free_chunks, 1u);
    EXPECT_EQ(info.used_bytes, 112u);
    EXPECT_EQ(info.used_chunks, 1u);
    const std::pair<uint32_t, uint32_t> sizes[] = {{0, 8}, {1, 8}, {8, 8}, {9, 16}};
    for (auto [request, usable] : sizes) {
        void *pointer = Alloc(segment, request);
        EXPECT_EQ(LumMemGetSize(pointer), usable) << request;
        EXPECT_EQ(reinterpret_cast<uintptr_t>(pointer) % 8, 0u);
    }
    // The whole free chunk less 8 bytes takes it whole.
    uint32_t rest = InfoOf(segment).free_bytes;
    void *all = Alloc(segment, rest - 8);
    EXPECT_EQ(LumMemGetSize(all), rest - 8);
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

TEST_F(AllocTest, FreeingInAnyOrderMergesIntoOneChunk) {
    LumSegment *segment = Segment(4096);
    uint32_t whole = InfoOf(segment).free_bytes;
    void *a = Alloc(segment, 40), *b = Alloc(segment, 40), *c = Alloc(segment, 40);
    EXPECT_EQ(LumMemFree(segment, a), 0);
    EXPECT_EQ(LumMemFree(segment, c), 0);
    EXPECT_EQ(LumMemFree(segment, b), 0);
    LumSegmentInfo info = InfoOf(segment);
    EXPECT_EQ(info.free_bytes, whole);
    EXPECT_EQ(info.free_chunks, 1u);
    EXPECT_EQ(info.extents, 1u) << "a primary extent stays";
}

TEST_F(AllocTest, BadFreesAreRefusedAndChangeNothing) {
    LumSegment *segment = Segment(4096);
    void *a = Alloc(segment, 40);
    Alloc(segment, 40);
    EXPECT_EQ(LumMemFree(segment, static_cast<uint8_t *>(a) + 4), LUM_RC_FAILURE);
    EXPECT_EQ(LumMemFree(segment, a), 0);
    LumSegmentInfo before = InfoOf(segment);
    EXPECT_EQ(LumMemFree(segment, a), LUM_RC_DOUBLE_FREE);
    EXPECT_EQ(InfoOf(segment).free_bytes, before.free_bytes);
    void *out = reinterpret_cast<void *>(1);
    EXPECT_EQ(LumMemAlloc(segment, 0xFFFFFFFF - 70, &out), LUM_RC_FAILURE);
    EXPECT_EQ(out, nullptr);
}

TEST_F(AllocTest, SegmentGrowsByTheFormulaUntilItsMaximum) {
    LumSegment *flat = Segment(65536, 65536, 0, 196608);
    uint32_t chunk = 60000;
    for (int i = 0; i < 3; ++i)
        Alloc(flat, chunk);
    EXPECT_EQ(InfoOf(flat).total_bytes, 196608u);
    void *pointer = reinterpret_cast<void *>(1);
    EXPECT_EQ(LumMemAlloc(flat, chunk, &pointer), LUM_RC_MAX_SEGMENT_SIZE);
    EXPECT_EQ(pointer, nullptr);

    LumSegment *growing = Segment(65536, 65536, 50, 196608);
    Alloc(growing, chunk);
    Alloc(growing, chunk);
    EXPECT_EQ(InfoOf(growing).total_bytes, 131072u);
    Alloc(growing, 70000);
    EXPECT_EQ(InfoOf(growing).total_bytes, 131072u + 98304u) << "passes the maximum";
    Alloc(growing, 140000);
    EXPECT_EQ(InfoOf(growing).extents, 4u) << "and goes on growing";
}

TEST_F(AllocTest, SecondaryExtentsChainNewestFirstAndGoBackWhenEmpty) {
    LumSegment *segment = Segment(4096, 0);
    Alloc(segment, 2000);
    void *in_a = Alloc(segment, 3000); // first secondary extent, A
    void *in_b = Alloc(segment, 5000); // second, B: as large as its request needs
    uint8_t *primary = segment->primary;
    uint32_t b = ImageLoad32(primary + extent_header::kNext);
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

TEST_F(AllocTest, SegmentIdsAreReusedLowestFirst) {
    std::vector<LumSegment *> seven;
    for (int i = 0; i < 7; ++i)
        seven.push_back(Segment(4096));
    EXPECT_EQ(InfoOf(seven[5]).segment_id, 5u);
    std::erase(segments_, seven[5]);
    ASSERT_EQ(LumSegmentDrop(seven[5]), 0);
    LumSegment *opened = reinterpret_cast<LumSegment *>(1);
    EXPECT_EQ(LumSegmentOpen(region_, 5, &opened), LUM_RC_BAD_SEGMENT_ID);
    EXPECT_EQ(LumSegmentOpen(region_, 128, &opened), LUM_RC_BAD_SEGMENT_ID);
    uint8_t *entry = region_->base + region_header::kSegmentMap + 4 * 5;
    ImageStore32(entry, 0xFFFFF000); // a damaged map entry beyond the image
    EXPECT_EQ(LumSegmentOpen(region_, 5, &opened), LUM_RC_BAD_SEGMENT_ID);
    ImageStore32(entry, 0);
    EXPECT_EQ(opened, reinterpret_cast<LumSegment *>(1));
    EXPECT_EQ(InfoOf(Segment(4096)).segment_id, 5u);
    ASSERT_EQ(LumSegmentOpen(region_, 6, &opened), 0);
    EXPECT_EQ(opened->primary, seven[6]->primary);
    EXPECT_EQ(LumSegmentClose(opened), 0);
}

TEST_F(AllocTest, SegmentArgumentsAndLimits) {
    LumSegment *segment = reinterpret_cast<LumSegment *>(1);
    EXPECT_EQ(LumSegmentCreate(region_, 0, 0, 0, 0, &segment), LUM_RC_ALLOCATOR_TYPE);
    EXPECT_EQ(LumSegmentCreate(region_, 8192, 8192, 0, 16383, &segment), LUM_RC_ALLOCATOR_TYPE);
    EXPECT_EQ(segment, reinterpret_cast<LumSegment *>(1));
    LumSegment *exact = Segment(8192, 8192, 0, 16384);
    EXPECT_EQ(ImageLoad32(exact->primary + primary_extent::kPrimarySize), 8192u);
    EXPECT_EQ(ImageLoad32(Segment(1)->primary + primary_extent::kPrimarySize), Page());
    while (segments_.size() < 128)
        Segment(1);
    EXPECT_EQ(LumSegmentCreate(region_, 0, 0, 0, 0, &segment), LUM_RC_MAX_SEGMENTS);
    EXPECT_EQ(LumRegionDrop(region_), LUM_RC_SEGMENTS_REMAIN);
}

TEST_F(AllocTest, DropFreesLiveChunksAndShrinksTheImage) {
    uint32_t used = region_->used;
    LumSegment *segment = Segment(4096, 4096);
    for (int i = 0; i < 10; ++i)
        Alloc(segment, 1000);
    segments_.clear();
    ASSERT_EQ(LumSegmentDrop(segment), 0);
    EXPECT_EQ(region_->used, used);
    EXPECT_EQ(ImageLoad32(region_->base + region_header::kSegmentCount), 0u);
}

TEST_F(AllocTest, FailedGrowthLeavesTheStatisticsAlone) {
    LumSegment *segment = Segment(4096, 4096);
    Alloc(segment, 2000);
    ASSERT_EQ(LumRegionSetSoftLimit(region_, region_->used), 0);
    LumSegmentInfo before = InfoOf(segment);
    void *pointer;
    EXPECT_EQ(LumMemAlloc(segment, 3000, &pointer), LUM_RC_SOFT_LIMIT);
    LumSegmentInfo after = InfoOf(segment);
    EXPECT_EQ(after.free_chunks, before.free_chunks);
    EXPECT_EQ(after.total_bytes, before.total_bytes);
    ASSERT_EQ(LumRegionSetSoftLimit(region_, 64 * kMiB), 0);
    Alloc(segment, 3000);
    EXPECT_EQ(InfoOf(segment).free_chunks, before.free_chunks + 1) << "grown and split";
}

// Thousands of random allocations, logged writes and frees over several
// segments, checked after each step against a model of the live chunks,
// with the image verified throughout.
TEST_F(AllocTest, RandomRunKeepsTheModelAndAVerifiableImage) {
    std::mt19937 random(12345);
    std::vector<LumSegment *> segments = {Segment(8192, 4096, 25), Segment(65536, 16384, 0),
                                          Segment(4096, 0)};
    struct Live {
        LumSegment *segment;
        uint32_t size;
        uint8_t fill;
    };
    std::map<uint8_t *, Live> live;
    for (int step = 0; step < 4000; ++step) {
        if (live.empty() || random() % 3 != 0) {
            LumSegment *segment = segments[random() % segments.size()];
            uint32_t size = random() % 4 == 0 ? 1 + random() % 12000 : 1 + random() % 300;
            void *pointer = Alloc(segment, size);
            ASSERT_NE(pointer, nullptr);
            ASSERT_GE(LumMemGetSize(pointer), size);
            auto *at = static_cast<uint8_t *>(pointer);
            uint8_t fill = static_cast<uint8_t>(random());
            LumMemLogSet(segment, at, fill, size);
            for (auto &[other, entry] : live)
                ASSERT_TRUE(at + size <= other || other + entry.size <= at) << "overlap";
            live[at] = {segment, size, fill};
        } else {
            auto it = std::next(live.begin(), random() % live.size());
            for (uint32_t i = 0; i < it->second.size; i += 97)
                ASSERT_EQ(it->first[i], it->second.fill) << "contents of a live chunk";
            ASSERT_EQ(LumMemFree(it->second.segment, it->first), 0);
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
