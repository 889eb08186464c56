// Size bins and extents: the bin table at its seams, the order in which
// bins hand items out, the records each link change leaves, and extents
// that split, coalesce and give the end of the image back.
#include "persistent_fixture.h"

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

class FreeListTest : public ExtentTest {
  protected:
    void SetUp() override {
        ExtentTest::SetUp();
        ASSERT_EQ(_LumImageSetSize(region_, 2 * kMiB), 0);
        LumRegionCommit(region_);
        bins_ = region_->base + region_header::kExtentBins;
    }

    // A free item of `size` bytes at image offset `at`, put into the bins.
    uint8_t *Insert(uint32_t at, uint32_t size) {
        uint8_t *item = region_->base + at;
        ImageStore32(item, size | CHUNK_FREE);
        ImageStore32(item + size - 4, size | CHUNK_FREE);
        _LumFreeListInsert(region_, bins_, item, size);
        return item;
    }
    uint32_t Sentinel(uint32_t bin) const {
        return region_header::kExtentBins + bin_array::SentinelOffset(bin);
    }

    uint8_t *bins_ = nullptr;
};

TEST_F(FreeListTest, LinksOfAnEmptyBinsSentinelAreLoggedAsOneRecord) {
    uint8_t *one = Insert(0x10000, 64);
    auto records = BufferRecords(region_, log_record::kHeadSize); // behind the opening LOG_SIZE
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].length, 8u);
    EXPECT_EQ(records[0].value, Sentinel(8) + 4);
    uint32_t from = region_->log_buffer->used;
    uint8_t *two = Insert(0x20000, 64);
    _LumFreeListRemove(region_, one);
    EXPECT_EQ(LengthsOf(BufferRecords(region_, from)), (std::vector<uint32_t>{4, 4, 4, 4}));
    from = region_->log_buffer->used;
    _LumFreeListRemove(region_, two);
    EXPECT_EQ(LengthsOf(BufferRecords(region_, from)), std::vector<uint32_t>{8});
    EXPECT_EQ(ImageLoad32(region_->base + Sentinel(8) + 4), Sentinel(8));
    EXPECT_EQ(ImageLoad32(region_->base + Sentinel(8) + 8), Sentinel(8));
}

TEST_F(FreeListTest, SmallBinsAreFirstInFirstOutAndLargerOnesBestFit) {
    uint8_t *a = Insert(0x10000, 64), *b = Insert(0x20000, 64), *c = Insert(0x30000, 64);
    for (uint8_t *item : {a, b, c, static_cast<uint8_t *>(nullptr)})
        EXPECT_EQ(_LumFreeListFind(region_, bins_, 64), item);
    EXPECT_EQ(ImageLoad32(bins_ + bin_array::SentinelOffset(8) + 4), Sentinel(8))
        << "the emptied bin's sentinel links to itself";

    uint8_t *s600 = Insert(0x10000, 600), *s640 = Insert(0x20000, 640);
    Insert(0x30000, 1024);
    uint8_t *s520 = Insert(0x40000, 520), *s560 = Insert(0x50000, 560);
    uint8_t *first = Insert(0x60000, 4096), *second = Insert(0x70000, 4096);
    uint8_t *last = Insert(0x80000, 524288);
    // 608 passes over the 600 of its bin; 520 stays in its bin for 520;
    // equal sizes leave in order; nothing serves more than the last bin's items.
    const std::pair<uint32_t, uint8_t *> finds[] = {
        {608, s640},   {600, s600},    {528, s560},       {520, s520},
        {4096, first}, {4096, second}, {600000, nullptr}, {524288, last}};
    for (auto [size, item] : finds)
        EXPECT_EQ(_LumFreeListFind(region_, bins_, size), item) << size;
}

TEST_F(ExtentTest, ExtentsLieOnPagesBehindTheHeaderAndTheLastGiveTheImageBack) {
    EXPECT_EQ(region_->used, FirstExtentOffset());
    uint8_t *first = Alloc(1);
    EXPECT_EQ(Offset(first), FirstExtentOffset());
    EXPECT_EQ(SizeOf(first), Page());
    EXPECT_EQ(ImageLoad32(first - 4), 0u) << "the gap stops coalescing downwards";
    uint8_t *second = Alloc(Page()), *last = Alloc(Page() + 1);
    EXPECT_EQ(SizeOf(second), Page());
    EXPECT_EQ(SizeOf(last), 2 * Page());
    ASSERT_EQ(_LumExtentFree(region_, first), 0);
    ASSERT_EQ(_LumExtentFree(region_, second), 0);
    EXPECT_EQ(ImageLoad32(first), 2 * Page() | CHUNK_FREE);
    ASSERT_EQ(_LumExtentFree(region_, last), 0) << "merges with the free one below";
    EXPECT_EQ(region_->used, FirstExtentOffset());
    EXPECT_EQ(Alloc(Page()), first) << "the next extent lies at F again";
}

TEST_F(ExtentTest, FreeingBetweenTwoFreeExtentsLeavesOneBlock) {
    uint8_t *a = Alloc(Page()), *b = Alloc(Page()), *c = Alloc(Page());
    Alloc(Page()); // keeps the three from the end of the image
    ASSERT_EQ(_LumExtentFree(region_, a), 0);
    ASSERT_EQ(_LumExtentFree(region_, c), 0);
    uint32_t used = region_->used;
    EXPECT_EQ(Offset(Alloc(2 * Page())), used) << "no single free extent is large enough";
    uint32_t from = region_->log_buffer->used;
    ASSERT_EQ(_LumExtentFree(region_, b), 0);
    EXPECT_EQ(ImageLoad32(a), 3 * Page() | CHUNK_FREE);
    EXPECT_EQ(ImageLoad32(c + Page() - 4), 3 * Page() | CHUNK_FREE);
    // Two removals from one bin (two 4-byte links, then the sentinel's two
    // links once the bin is empty), one insertion into an empty bin, then
    // the new block's head and foot.
    auto records = BufferRecords(region_, from);
    EXPECT_EQ(LengthsOf(records), (std::vector<uint32_t>{4, 4, 8, 8, 16, 4}));
    EXPECT_EQ(records[4].value, Offset(a));
    EXPECT_EQ(records[5].value, Offset(c) + Page() - 4);
}

TEST_F(ExtentTest, SplitKeepsTheLowEndAndTheSoftLimitLeavesTheRestAlone) {
    uint8_t *big = Alloc(3 * Page());
    Alloc(Page());
    ASSERT_EQ(_LumExtentFree(region_, big), 0);
    EXPECT_EQ(Alloc(2 * Page()), big);
    uint8_t *rest = big + 2 * Page();
    EXPECT_EQ(ImageLoad32(rest), Page() | CHUNK_FREE) << "one page stays free at the top";
    ASSERT_EQ(LumRegionSetSoftLimit(region_, region_->used), 0);
    uint8_t *extent = reinterpret_cast<uint8_t *>(1);
    EXPECT_EQ(_LumExtentAlloc(region_, 2 * Page(), &extent), LUM_RC_SOFT_LIMIT);
    EXPECT_EQ(extent, nullptr);
    EXPECT_EQ(ImageLoad32(rest), Page() | CHUNK_FREE);
    EXPECT_EQ(_LumExtentAlloc(region_, 0xFFFFFFF0, &extent), LUM_RC_EXTEND) << "past 4 GiB";
    EXPECT_EQ(Alloc(Page()), rest) << "an exact fit takes it whole";
}

TEST_F(ExtentTest, FormatPlacesFencesAndOneFreeChunk) {
    const uint32_t size = 2 * Page();
    for (uint32_t kind : {extent_header::kPrimary, extent_header::kSecondary}) {
        uint8_t *extent = Alloc(size);
        ImageStore32(extent + extent_header::kKind, kind);
        uint32_t h = kind == extent_header::kPrimary ? 1604 : 20; // the header's size
        uint8_t *chunk = _LumExtentFormat(region_, extent);
        EXPECT_EQ(chunk, extent + h + 16);
        EXPECT_EQ(Offset(chunk) % 8, 4u);
        uint32_t rest = (size - h - 36) | CHUNK_FREE;
        const std::pair<uint32_t, uint32_t> words[] = {
            {h, 18},         {h + 12, 18},   {h + 16, rest},  {size - 24, rest},
            {size - 20, 18}, {size - 8, 18}, {size - 4, size}};
        for (auto [at, value] : words)
            EXPECT_EQ(ImageLoad32(extent + at), value) << "kind " << kind << ", word at " << at;
    }
}
