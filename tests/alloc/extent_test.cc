// Size bins and extents: bin seams, the order bins hand items out in, and
// extents that split, coalesce and give the image's end back.
#include "persistent_fixture.h"

TEST(FreeListIndex, SeamsOfTheBinTable) {
    const std::pair<uint32_t, uint32_t> cases[] = {
        {16, 2},      {511, 63},     {512, 64},     {575, 64},     {576, 65},     {2559, 95},
        {2560, 96},   {10751, 111},  {10752, 112},  {12287, 112},  {43519, 120},  {43520, 120},
        {65535, 120}, {174591, 124}, {262143, 124}, {262144, 125}, {524287, 125}, {524288, 126}};
    for (auto [size, bin] : cases)
        EXPECT_EQ(_LumFreeListIndex(size), bin) << size;
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
    LumRegion *region_ = nullptr;
};

TEST_F(ExtentTest, SmallBinsAreFirstInFirstOutAndLargerOnesBestFit) {
    ASSERT_EQ(_LumImageSetSize(region_, 2 * kMiB), 0);
    uint8_t *bins = region_->base + region_header::kExtentBins;
    auto insert = [&](uint32_t at, uint32_t size) {
        uint8_t *item = region_->base + at;
        ImageStore32(item, size | CHUNK_FREE);
        ImageStore32(item + size - 4, size | CHUNK_FREE);
        _LumFreeListInsert(region_, bins, item, size);
        return item;
    };
    uint8_t *a = insert(0x10000, 64);
    uint32_t from = region_->log_buffer->used;
    uint8_t *b = insert(0x20000, 64), *c = insert(0x30000, 64);
    RegionOffset a_link_up = static_cast<RegionOffset>(a - region_->base) + bin_array::kLinkUp;
    EXPECT_TRUE(std::ranges::any_of(BufferRecords(region_, from), [&](auto &record) {
        return record.value == a_link_up;
    })) << "the new link of the item the next one goes behind is logged";
    for (uint8_t *item : {a, b, c, static_cast<uint8_t *>(nullptr)})
        EXPECT_EQ(_LumFreeListFind(region_, bins, 64), item);
    uint8_t *s600 = insert(0x10000, 600), *s640 = insert(0x20000, 640);
    insert(0x30000, 1024);
    uint8_t *s520 = insert(0x40000, 520), *s560 = insert(0x50000, 560);
    uint8_t *first = insert(0x60000, 4096), *second = insert(0x70000, 4096);
    uint8_t *last = insert(0x80000, 524288);
    // 608 passes over the 600 of its bin, 528 the 520; equal sizes leave in order.
    const std::pair<uint32_t, uint8_t *> finds[] = {
        {608, s640},   {600, s600},    {528, s560},       {520, s520},
        {4096, first}, {4096, second}, {600000, nullptr}, {524288, last}};
    for (auto [size, item] : finds)
        EXPECT_EQ(_LumFreeListFind(region_, bins, size), item) << size;
}

// Extents of whole pages from F, split at their low end, merge when freed.
TEST_F(ExtentTest, ExtentsSplitAtTheirLowEndMergeAndTheLastGivesTheImageBack) {
    uint8_t *first = Alloc(1);
    EXPECT_EQ(first, region_->base + FirstExtentOffset());
    EXPECT_EQ(ImageLoad32(first - 4), 0u) << "the gap stops coalescing downwards";
    uint8_t *second = Alloc(Page()), *big = Alloc(3 * Page() + 1), *top = Alloc(1);
    EXPECT_EQ((std::vector{BlockSize(first), BlockSize(second), BlockSize(big)}),
              (std::vector{Page(), Page(), 4 * Page()}));
    ASSERT_EQ(_LumExtentFree(region_, big), 0);
    EXPECT_EQ(Alloc(2 * Page()), big);
    uint8_t *rest = big + 2 * Page();
    EXPECT_EQ(ImageLoad32(rest), 2 * Page() | CHUNK_FREE) << "the rest stays free at the top";
    ASSERT_EQ(LumRegionSetSoftLimit(region_, region_->used), 0);
    uint8_t *extent = reinterpret_cast<uint8_t *>(1);
    EXPECT_EQ(_LumExtentAlloc(region_, 3 * Page(), &extent), LUM_RC_SOFT_LIMIT)
        << "the image grows, the free extents stay as they are";
    EXPECT_EQ(extent, nullptr);
    EXPECT_EQ(ImageLoad32(rest), 2 * Page() | CHUNK_FREE);
    EXPECT_EQ(_LumExtentAlloc(region_, 0xFFFFFFF0, &extent), LUM_RC_EXTEND) << "past 4 GiB";
    EXPECT_EQ(Alloc(Page()), rest);
    EXPECT_EQ(BlockSize(rest), Page()) << "a rest of one page is split off";
    EXPECT_EQ(Alloc(Page()), rest + Page()) << "an exact fit takes it whole";
    ASSERT_EQ(_LumExtentFree(region_, first), 0);
    ASSERT_EQ(_LumExtentFree(region_, big), 0);
    uint32_t from = region_->log_buffer->used;
    ASSERT_EQ(_LumExtentFree(region_, second), 0); // between two free extents
    EXPECT_EQ(ImageLoad32(first), 4 * Page() | CHUNK_FREE);
    EXPECT_EQ(ImageLoad32(big + 2 * Page() - 4), 4 * Page() | CHUNK_FREE);
    // Both neighbours leave their bins, the block enters one, its head and foot.
    auto records = BufferRecords(region_, from);
    std::vector<uint32_t> lengths;
    for (const ParsedRecord &record : records)
        lengths.push_back(record.length);
    EXPECT_EQ(lengths, (std::vector<uint32_t>{8, 8, 8, 16, 4}));
    EXPECT_EQ(region_->base + records[3].value, first);
    EXPECT_EQ(region_->base + records[4].value, big + 2 * Page() - 4);
    for (uint8_t *extent : {rest, rest + Page(), top})
        ASSERT_EQ(_LumExtentFree(region_, extent), 0);
    EXPECT_EQ(region_->used, FirstExtentOffset());
    EXPECT_EQ(Alloc(Page()), first) << "the next extent lies at F again";
}
