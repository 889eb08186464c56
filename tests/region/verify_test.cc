// Region verification on sound and on damaged images: each damage gives
// its code, and the walk never reads outside the image (the asan preset
// runs these too).
#include "persistent_fixture.h"

class VerifyTest : public PersistentTest {
  protected:
    void SetUp() override {
        region_ = CreatePersistent("verify", 16 * kMiB, 16 * kMiB, kMiB);
        ASSERT_EQ(LumSegmentCreate(region_, 4096, 4096, 0, 0, &segment_), 0);
        for (int i = 0; i < 4; ++i) {
            void *pointer;
            ASSERT_EQ(LumMemAlloc(segment_, 1500, &pointer), 0);
            LumMemLog(segment_, pointer);
            pointers_.push_back(static_cast<uint8_t *>(pointer));
        }
        primary_ = segment_->primary;
        secondary_ = region_->base + ImageLoad32(primary_ + extent_header::kNext);
        ASSERT_NE(secondary_, region_->base);
        ASSERT_EQ(LumRegionVerify(region_), 0);
    }
    void TearDown() override {
        LumSegmentClose(segment_);
        EXPECT_EQ(LumRegionClose(region_), 0);
    }
    void Poke(uint8_t *at, uint32_t value) { ImageStore32(at, value); }

    LumRegion *region_ = nullptr;
    LumSegment *segment_ = nullptr;
    std::vector<uint8_t *> pointers_;
    uint8_t *primary_ = nullptr;
    uint8_t *secondary_ = nullptr;
};

TEST(VerifyEmpty, RegionWithoutSegmentsIsSound) {
    LumRegion *region;
    void *base;
    ASSERT_EQ(LumRegionCreate("v", LUM_REGION_VOLATILE, kMiB, kMiB, 0, 0, nullptr, &region, &base),
              0);
    EXPECT_EQ(LumRegionVerify(region), 0);
    EXPECT_EQ(LumRegionVerify(nullptr), LUM_RC_FAILURE);
    EXPECT_EQ(LumRegionClose(region), 0);
}

TEST_F(VerifyTest, FreeExtentWithAStaleKindIsSteppedOver) {
    LumSegment *other;
    ASSERT_EQ(LumSegmentCreate(region_, 4096, 0, 0, 0, &other), 0);
    LumSegment *last;
    ASSERT_EQ(LumSegmentCreate(region_, 4096, 0, 0, 0, &last), 0);
    ASSERT_EQ(LumSegmentDrop(other), 0); // a free extent between live ones, kind still 1
    EXPECT_EQ(LumRegionVerify(region_), 0);
    ASSERT_EQ(LumSegmentDrop(last), 0);
}

TEST_F(VerifyTest, DamagedSegmentMapAndIds) {
    Poke(primary_ + primary_extent::kSegmentId, 9999);
    EXPECT_EQ(LumRegionVerify(region_), LUM_RC_SEGMENT_INDEX);
    Poke(primary_ + primary_extent::kSegmentId, 3);
    EXPECT_EQ(LumRegionVerify(region_), LUM_RC_SEGMENT_OFFSET);
    Poke(region_->base + region_header::kSegmentMap + 12, 8192);
    EXPECT_EQ(LumRegionVerify(region_), LUM_RC_SEGMENT_MISMATCH);
    Poke(region_->base + region_header::kSegmentMap + 12, 0);
    Poke(primary_ + primary_extent::kSegmentId, 0);
    EXPECT_EQ(LumRegionVerify(region_), 0);
}

TEST_F(VerifyTest, DamagedExtents) {
    uint32_t kind = ImageLoad32(secondary_ + extent_header::kKind);
    Poke(secondary_ + extent_header::kKind, 0);
    EXPECT_EQ(LumRegionVerify(region_), LUM_RC_FREE_EXTENT);
    Poke(secondary_ + extent_header::kKind, 7);
    EXPECT_EQ(LumRegionVerify(region_), LUM_RC_EXTENT_KIND);
    Poke(secondary_ + extent_header::kKind, kind);
    uint32_t tag = ImageLoad32(secondary_);
    Poke(secondary_, tag | CHUNK_FREE);
    EXPECT_EQ(LumRegionVerify(region_), LUM_RC_FREE_EXTENT);
    Poke(secondary_, tag + 8);
    EXPECT_EQ(LumRegionVerify(region_), LUM_RC_SECONDARY_SIZE) << "the chain is walked first";
    Poke(secondary_, 0xFFFFF000);
    EXPECT_EQ(LumRegionVerify(region_), LUM_RC_SECONDARY_SIZE) << "reaching past the image";
    Poke(secondary_, tag);
    Poke(secondary_ + extent_header::kSecondarySize, 18 | CHUNK_FREE);
    EXPECT_EQ(LumRegionVerify(region_), LUM_RC_FENCE_FREE);
    Poke(secondary_ + extent_header::kSecondarySize, 18);
    uint32_t primary_tag = ImageLoad32(primary_);
    Poke(primary_, primary_tag + 8);
    EXPECT_EQ(LumRegionVerify(region_), LUM_RC_PRIMARY_SIZE);
    Poke(primary_, primary_tag);
    EXPECT_EQ(LumRegionVerify(region_), 0);
}

TEST_F(VerifyTest, DamagedChainLinksEndTheWalk) {
    uint32_t next = ImageLoad32(primary_ + extent_header::kNext);
    for (uint32_t bad : {0xFFFFF000u, next + 4, static_cast<uint32_t>(region_->used)}) {
        Poke(primary_ + extent_header::kNext, bad);
        EXPECT_EQ(LumRegionVerify(region_), LUM_RC_SECONDARY_SIZE) << bad;
    }
    Poke(primary_ + extent_header::kNext, next);
    uint32_t last_next = ImageLoad32(secondary_ + extent_header::kNext);
    Poke(secondary_ + extent_header::kNext, next); // a circle
    EXPECT_EQ(LumRegionVerify(region_), LUM_RC_SECONDARY_SIZE);
    Poke(secondary_ + extent_header::kNext, last_next);
    EXPECT_EQ(LumRegionVerify(region_), 0);
}

TEST_F(VerifyTest, DamagedChunksAndStatistics) {
    uint8_t *chunk = pointers_[0] - 4;
    uint32_t tag = ImageLoad32(chunk);
    Poke(chunk, 0);
    EXPECT_EQ(LumRegionVerify(region_), LUM_RC_BAD_CHUNK) << "a tag of 0 cannot run away";
    Poke(chunk, 0xFFFFFFF0);
    EXPECT_EQ(LumRegionVerify(region_), LUM_RC_BAD_CHUNK) << "past the rear fence";
    Poke(chunk, tag | CHUNK_FREE); // free in the walk, used in the stats
    EXPECT_EQ(LumRegionVerify(region_), LUM_RC_EXTENT_STATS);
    Poke(chunk, tag);
    EXPECT_EQ(LumRegionVerify(region_), 0);
}

TEST_F(VerifyTest, DamagedTopLevelTilingIsRefused) {
    uint8_t *end = region_->base + region_->used;
    ASSERT_EQ(_LumImageSetSize(region_, region_->used + Page()), 0);
    Poke(end, 5); // a free extent of an impossible size
    EXPECT_EQ(LumRegionVerify(region_), LUM_RC_PRIMARY_SIZE);
    Poke(end, 16 * kMiB | CHUNK_FREE); // reaching past the image
    EXPECT_EQ(LumRegionVerify(region_), LUM_RC_PRIMARY_SIZE);
    Poke(end, Page() | CHUNK_FREE);
    EXPECT_EQ(LumRegionVerify(region_), 0);
}
