// Size bins and extents: the bin table at its seams, the order in which
// bins hand items out, the records each link change leaves, and extents
// that split, coalesce and give the end of the image back.
#include "persistent_fixture.h"

namespace {

// The LOG_DATA records appended to the buffer since `from` (a byte offset
// in it); an opening LOG_SIZE is left out.
std::vector<ParsedRecord> RecordsSince(LumRegion *region, uint32_t from) {
    LogBuffer *buffer = region->log_buffer;
    std::vector<uint8_t> bytes(file_header::kSize, 0);
    bytes.insert(bytes.end(), buffer->data + from, buffer->data + buffer->used);
    auto records = ParseLog(bytes);
    std::erase_if(records, [](const ParsedRecord &r) { return r.type != LOG_DATA; });
    return records;
}

} // namespace

TEST(FreeListIndex, SeamsOfTheBinTable) {
    const std::pair<uint32_t, uint32_t> cases[] = {
        {16, 2},       {504, 63},     {511, 63},     {512, 64},        {575, 64},     {576, 65},
        {2559, 95},    {2560, 96},    {10751, 111},  {10752, 112},     {12287, 112},  {43519, 120},
        {43520, 120},  {65535, 120},  {174591, 124}, {262143, 124},    {262144, 125}, {524287, 125},
        {524288, 126}, {698879, 126}, {698880, 126}, {0xFFFFFFF8, 126}};
    for (auto [size, bin] : cases)
        EXPECT_EQ(_LumFreeListIndex(size), bin) << size;
    for (uint32_t size = 16; size < 800000; size += 8)
        ASSERT_LE(_LumFreeListIndex(size), _LumFreeListIndex(size + 8)) << size;
}

class FreeListTest : public PersistentTest {
  protected:
    void SetUp() override {
        region_ = CreatePersistent("bins", 8 * kMiB, 8 * kMiB);
        ASSERT_EQ(_LumImageSetSize(region_, 2 * kMiB), 0);
        LumRegionCommit(region_);
        bins_ = region_->base + region_header::kExtentBins;
    }
    void TearDown() override { EXPECT_EQ(LumRegionClose(region_), 0); }

    // A free item of `size` bytes at image offset `at`, put into the bins.
    uint8_t *Insert(uint32_t at, uint32_t size) {
        uint8_t *item = region_->base + at;
        ImageStore32(item, size | CHUNK_FREE);
        ImageStore32(item + size - 4, size | CHUNK_FREE);
        _LumFreeListInsert(region_, bins_, item, size);
        return item;
    }
    uint32_t Offset(const uint8_t *item) const { return ImageOffsetOf(region_, item); }
    uint32_t Sentinel(uint32_t bin) const {
        return region_header::kExtentBins + bin_array::SentinelOffset(bin);
    }

    LumRegion *region_ = nullptr;
    uint8_t *bins_ = nullptr;
};

TEST_F(FreeListTest, FirstInsertLogsTheSentinelsTwoLinksAsOneRecord) {
    uint32_t from = region_->log_buffer->used;
    Insert(0x10000, 64);
    auto records = RecordsSince(region_, from);
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].length, 8u);
    EXPECT_EQ(records[0].value, Sentinel(8) + 4);
    from = region_->log_buffer->used;
    Insert(0x20000, 64);
    records = RecordsSince(region_, from);
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(records[0].length, 4u);
    EXPECT_EQ(records[1].length, 4u);
}

TEST_F(FreeListTest, SmallBinsAreFirstInFirstOut) {
    uint8_t *a = Insert(0x10000, 64), *b = Insert(0x20000, 64), *c = Insert(0x30000, 64);
    EXPECT_EQ(_LumFreeListFind(region_, bins_, 64), a);
    EXPECT_EQ(_LumFreeListFind(region_, bins_, 64), b);
    EXPECT_EQ(_LumFreeListFind(region_, bins_, 64), c);
    EXPECT_EQ(_LumFreeListFind(region_, bins_, 64), nullptr);
    EXPECT_EQ(ImageLoad32(bins_ + bin_array::SentinelOffset(8) + 4), Sentinel(8))
        << "the emptied bin's sentinel links to itself";
}

TEST_F(FreeListTest, LargerSizesAreBestFitAndEqualSizesLeaveInOrder) {
    uint8_t *s600 = Insert(0x10000, 600);
    uint8_t *s640 = Insert(0x20000, 640);
    Insert(0x30000, 1024);
    EXPECT_EQ(_LumFreeListFind(region_, bins_, 608), s640) << "bin 65 passes over 600";
    EXPECT_EQ(_LumFreeListFind(region_, bins_, 600), s600);

    uint8_t *s520 = Insert(0x40000, 520);
    uint8_t *s560 = Insert(0x50000, 560);
    EXPECT_EQ(_LumFreeListFind(region_, bins_, 528), s560);
    EXPECT_EQ(_LumFreeListFind(region_, bins_, 520), s520) << "520 stayed in its bin";

    uint8_t *first = Insert(0x60000, 4096), *second = Insert(0x70000, 4096);
    EXPECT_EQ(_LumFreeListFind(region_, bins_, 4096), first);
    EXPECT_EQ(_LumFreeListFind(region_, bins_, 4096), second);
}

TEST_F(FreeListTest, RequestBeyondTheLastBinsItemsFindsNothing) {
    Insert(0x10000, 524288);
    EXPECT_EQ(_LumFreeListFind(region_, bins_, 600000), nullptr);
    EXPECT_NE(_LumFreeListFind(region_, bins_, 524288), nullptr);
}

TEST_F(FreeListTest, RemovingTheOnlyItemLeavesTheSentinelOnItself) {
    uint8_t *item = Insert(0x10000, 1024);
    uint32_t from = region_->log_buffer->used;
    _LumFreeListRemove(region_, item);
    auto records = RecordsSince(region_, from);
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].length, 8u);
    uint32_t sentinel = Sentinel(_LumFreeListIndex(1024));
    EXPECT_EQ(ImageLoad32(region_->base + sentinel + 4), sentinel);
    EXPECT_EQ(ImageLoad32(region_->base + sentinel + 8), sentinel);
}

class ExtentTest : public PersistentTest {
  protected:
    void SetUp() override { region_ = CreatePersistent("ext", 8 * kMiB, 8 * kMiB); }
    void TearDown() override { EXPECT_EQ(LumRegionClose(region_), 0); }
    uint8_t *Alloc(uint32_t size) {
        uint8_t *extent = nullptr;
        EXPECT_EQ(_LumExtentAlloc(region_, size, &extent), 0);
        return extent;
    }
    uint32_t SizeOf(const uint8_t *extent) const { return ImageLoad32(extent) & ~kTagFlags; }
    uint32_t Offset(const uint8_t *extent) const { return ImageOffsetOf(region_, extent); }
    LumRegion *region_ = nullptr;
};

TEST_F(ExtentTest, FirstExtentLiesBehindTheHeaderOnAPage) {
    EXPECT_EQ(region_->used, FirstExtentOffset());
    uint8_t *extent = Alloc(1);
    EXPECT_EQ(Offset(extent), FirstExtentOffset());
    EXPECT_EQ(SizeOf(extent), Page());
    EXPECT_EQ(ImageLoad32(extent - 4), 0u) << "the gap stops coalescing downwards";
    EXPECT_EQ(SizeOf(Alloc(Page())), Page());
    EXPECT_EQ(SizeOf(Alloc(Page() + 1)), 2 * Page());
}

TEST_F(ExtentTest, FreeingTheLastExtentsGivesTheImageBack) {
    uint8_t *a = Alloc(Page()), *b = Alloc(Page());
    ASSERT_EQ(_LumExtentFree(region_, a), 0);
    EXPECT_EQ(ImageLoad32(a), Page() | CHUNK_FREE);
    ASSERT_EQ(_LumExtentFree(region_, b), 0) << "merges with the free one below";
    EXPECT_EQ(region_->used, FirstExtentOffset());
    EXPECT_EQ(Alloc(Page()), a) << "the next extent lies at F again";
}

TEST_F(ExtentTest, FreeingBetweenTwoFreeExtentsLeavesOneBlock) {
    uint8_t *a = Alloc(Page()), *b = Alloc(Page()), *c = Alloc(Page());
    Alloc(Page()); // keeps the three from the end of the image
    ASSERT_EQ(_LumExtentFree(region_, a), 0);
    ASSERT_EQ(_LumExtentFree(region_, c), 0);
    uint32_t from = region_->log_buffer->used;
    ASSERT_EQ(_LumExtentFree(region_, b), 0);
    EXPECT_EQ(ImageLoad32(a), 3 * Page() | CHUNK_FREE);
    EXPECT_EQ(ImageLoad32(c + Page() - 4), 3 * Page() | CHUNK_FREE);
    // Two removals from one bin (two 4-byte links, then the sentinel's two
    // links once the bin is empty), one insertion into an empty bin, then
    // the new block's head and foot.
    auto records = RecordsSince(region_, from);
    std::vector<uint32_t> lengths;
    for (const ParsedRecord &record : records)
        lengths.push_back(record.length);
    EXPECT_EQ(lengths, (std::vector<uint32_t>{4, 4, 8, 8, 16, 4}));
    EXPECT_EQ(records[4].value, Offset(a));
    EXPECT_EQ(records[5].value, Offset(c) + Page() - 4);
}

TEST_F(ExtentTest, SplitKeepsTheLowEndAndExactFitsTakeTheWhole) {
    uint8_t *big = Alloc(3 * Page());
    Alloc(Page());
    ASSERT_EQ(_LumExtentFree(region_, big), 0);
    EXPECT_EQ(Alloc(2 * Page()), big);
    uint8_t *rest = big + 2 * Page();
    EXPECT_EQ(ImageLoad32(rest), Page() | CHUNK_FREE) << "one page stays free at the top";
    EXPECT_EQ(Alloc(Page()), rest) << "an exact fit takes it whole";
}

TEST_F(ExtentTest, LargerRequestGrowsTheImageEvenWhenFreeSpaceWouldDo) {
    uint8_t *a = Alloc(Page()), *b = Alloc(Page()), *c = Alloc(Page());
    Alloc(Page());
    ASSERT_EQ(_LumExtentFree(region_, a), 0);
    ASSERT_EQ(_LumExtentFree(region_, c), 0);
    uint32_t used = region_->used;
    uint8_t *two = Alloc(2 * Page());
    EXPECT_EQ(Offset(two), used);
    (void)b;
}

TEST_F(ExtentTest, SoftLimitLeavesTheFreeExtentsAlone) {
    uint8_t *a = Alloc(Page());
    Alloc(Page());
    ASSERT_EQ(_LumExtentFree(region_, a), 0);
    ASSERT_EQ(LumRegionSetSoftLimit(region_, region_->used), 0);
    uint8_t *extent = reinterpret_cast<uint8_t *>(1);
    EXPECT_EQ(_LumExtentAlloc(region_, 2 * Page(), &extent), LUM_RC_SOFT_LIMIT);
    EXPECT_EQ(extent, nullptr);
    EXPECT_EQ(ImageLoad32(a), Page() | CHUNK_FREE);
    EXPECT_EQ(_LumExtentAlloc(region_, 0xFFFFFFF0, &extent), LUM_RC_EXTEND) << "past 4 GiB";
}

TEST_F(ExtentTest, FormatPlacesFencesAndOneFreeChunk) {
    for (uint32_t kind : {extent_header::kPrimary, extent_header::kSecondary}) {
        uint8_t *extent = Alloc(2 * Page());
        uint32_t size = 2 * Page();
        ImageStore32(extent + extent_header::kKind, kind);
        uint32_t h = kind == extent_header::kPrimary ? 1604 : 20;
        uint8_t *chunk = _LumExtentFormat(region_, extent);
        EXPECT_EQ(Offset(chunk) - Offset(extent), h + 16);
        EXPECT_EQ(Offset(chunk) % 8, 4u);
        EXPECT_EQ(ImageLoad32(extent + h), 18u);
        EXPECT_EQ(ImageLoad32(extent + h + 12), 18u);
        EXPECT_EQ(ImageLoad32(chunk), (size - h - 36) | CHUNK_FREE);
        EXPECT_EQ(ImageLoad32(extent + size - 24), (size - h - 36) | CHUNK_FREE);
        EXPECT_EQ(ImageLoad32(extent + size - 20), 18u);
        EXPECT_EQ(ImageLoad32(extent + size - 8), 18u);
        EXPECT_EQ(ImageLoad32(extent + size - 4), size);
    }
}
