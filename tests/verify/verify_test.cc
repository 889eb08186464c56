// Region verification on sound and on damaged images: each damage gives
// its code, and the walk never reads outside the image (the asan preset
// runs these too).
#include <tuple>

#include "persistent_fixture.h"

class VerifyTest : public PersistentTest {
  protected:
    void SetUp() override {
        region_ = CreatePersistent("verify", 16 * kMiB, 16 * kMiB, kMiB);
        ASSERT_EQ(LumSegmentCreate(region_, 4096, 4096, 0, 0, &segment_), 0);
        void *pointer = nullptr;
        for (int i = 0; i < 4; ++i)
            ASSERT_EQ(LumMemAlloc(segment_, 1500, &pointer), 0);
        chunk_ = static_cast<uint8_t *>(pointer) - 4;
        primary_ = segment_->primary;
        secondary_ = region_->base + ImageLoad32(primary_ + extent_header::kNext);
        ASSERT_NE(secondary_, region_->base);
        ASSERT_EQ(LumRegionVerify(region_), 0);
    }
    void TearDown() override {
        LumSegmentClose(segment_);
        EXPECT_EQ(LumRegionClose(region_), 0);
    }

    LumRegion *region_ = nullptr;
    LumSegment *segment_ = nullptr;
    uint8_t *chunk_ = nullptr; // of the last allocation
    uint8_t *primary_ = nullptr;
    uint8_t *secondary_ = nullptr;
};

class VerifyEmpty : public RegionTest {};

TEST_F(VerifyEmpty, RegionWithoutSegmentsIsSound) {
    EXPECT_EQ(LumRegionVerify(Create(kMiB, kMiB)), 0);
    EXPECT_EQ(LumRegionVerify(nullptr), LUM_RC_FAILURE);
}

TEST_F(VerifyTest, FreeExtentWithAStaleKindIsSteppedOver) {
    LumSegment *other, *last;
    ASSERT_EQ(LumSegmentCreate(region_, 4096, 0, 0, 0, &other), 0);
    ASSERT_EQ(LumSegmentCreate(region_, 4096, 0, 0, 0, &last), 0);
    ASSERT_EQ(LumSegmentDrop(other), 0); // a free extent between live ones, kind still 1
    EXPECT_EQ(LumRegionVerify(region_), 0);
    ASSERT_EQ(LumSegmentDrop(last), 0);
}

// Each row damages one word of a sound image: the walk must give its code,
// and the image is sound again once the word is put back. A free page at
// the top of the image lets the rows damage the top-level tiling too.
TEST_F(VerifyTest, EachDamageGivesItsCode) {
    uint8_t *top = region_->base + region_->used;
    ASSERT_EQ(_LumImageSetSize(region_, region_->used + Page()), 0);
    ImageStore32(top, Page() | CHUNK_FREE);
    ASSERT_EQ(LumRegionVerify(region_), 0);
    uint8_t *map = region_->base + region_header::kSegmentMap, *chunk = chunk_;
    uint8_t *id = primary_ + primary_extent::kSegmentId, *link = primary_ + extent_header::kNext;
    uint8_t *kind = secondary_ + extent_header::kKind;
    uint8_t *fence = secondary_ + extent_header::kSecondarySize;
    const uint32_t next = ImageLoad32(link), used = region_->used;
    const uint32_t tag = ImageLoad32(secondary_), chunk_tag = ImageLoad32(chunk);
    // What is damaged, where, the word put there and the code expected.
    const std::tuple<const char *, uint8_t *, uint32_t, int32_t> damages[] = {
        {"segment id out of range", id, 9999, LUM_RC_SEGMENT_INDEX},
        {"segment id of an empty slot", id, 3, LUM_RC_SEGMENT_OFFSET},
        {"map entry at another extent", map, 8192, LUM_RC_SEGMENT_MISMATCH},
        {"kind 0", kind, 0, LUM_RC_FREE_EXTENT},
        {"unknown kind", kind, 7, LUM_RC_EXTENT_KIND},
        {"secondary tagged free", secondary_, tag | CHUNK_FREE, LUM_RC_FREE_EXTENT},
        {"secondary size off a page: the chain is walked first", secondary_, tag + 8,
         LUM_RC_SECONDARY_SIZE},
        {"secondary past the image", secondary_, 0xFFFFF000, LUM_RC_SECONDARY_SIZE},
        {"front fence free", fence, 18 | CHUNK_FREE, LUM_RC_FENCE_FREE},
        {"primary size off a page", primary_, ImageLoad32(primary_) + 8, LUM_RC_PRIMARY_SIZE},
        {"link past the image", link, 0xFFFFF000, LUM_RC_SECONDARY_SIZE},
        {"link off a page", link, next + 4, LUM_RC_SECONDARY_SIZE},
        {"link to the image's end", link, used, LUM_RC_SECONDARY_SIZE},
        {"link closing a circle", secondary_ + extent_header::kNext, next, LUM_RC_SECONDARY_SIZE},
        {"chunk tag of 0", chunk, 0, LUM_RC_BAD_CHUNK},
        {"chunk past the rear fence", chunk, 0xFFFFFFF0, LUM_RC_BAD_CHUNK},
        {"chunk free in the walk, used in the statistics", chunk, chunk_tag | CHUNK_FREE,
         LUM_RC_EXTENT_STATS},
        {"top extent of an impossible size", top, 5, LUM_RC_PRIMARY_SIZE},
        {"top extent past the image", top, 16 * kMiB | CHUNK_FREE, LUM_RC_PRIMARY_SIZE},
    };
    for (auto [what, at, value, code] : damages) {
        uint32_t sound = ImageLoad32(at);
        ImageStore32(at, value);
        EXPECT_EQ(LumRegionVerify(region_), code) << what;
        ImageStore32(at, sound);
        ASSERT_EQ(LumRegionVerify(region_), 0) << "after " << what;
    }
}
