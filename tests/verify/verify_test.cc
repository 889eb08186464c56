// Region verification of damaged images; no walk may read outside the image.
#include <cstring>
#include <functional>

#include "persistent_fixture.h"

class VerifyTest : public PersistentTest {};

// A segment over three extents with two free chunks in one ring, and a free
// extent of a stale kind 1; each row damages it once, with the codes of the
// plain and the deep walk (0: only the deep one looks there).
TEST_F(VerifyTest, EachDamageGivesItsCode) {
    LumRegion *r = CreatePersistent("verify", 16 * kMiB, 16 * kMiB, kMiB);
    LumSegment *segment = NewSegment(r, 4096, 4096);
    auto alloc = [&](uint32_t size) { return AllocLogged(segment, size) - 4; };
    uint8_t *c = nullptr; // the last of four chunks that need two secondary extents
    for (int i = 0; i < 4; ++i)
        c = alloc(1500);
    uint8_t *one = alloc(40), *live = alloc(40), *two = alloc(40);
    alloc(40);
    ASSERT_EQ(LumMemFree(segment, one + 4), 0);
    ASSERT_EQ(LumMemFree(segment, two + 4), 0);
    LumSegment *gone = NewSegment(r, 4096), *last = NewSegment(r, 4096);
    uint8_t *free_extent = gone->primary, *l = last->primary;
    ASSERT_EQ(LumSegmentDrop(gone), 0);
    const uint32_t next = ImageLoad32(segment->primary + extent_header::kNext), used = r->used;
    uint8_t *base = r->base, *p = segment->primary, *s = base + next; // the newest secondary
    uint8_t *count = base + region_header::kSegmentCount, *map = base + region_header::kSegmentMap;
    uint8_t *bins = p + primary_extent::kChunkBins;
    uint8_t *id = p + primary_extent::kSegmentId, *stats = p + primary_extent::kStats;
    const uint32_t page = Page(), ring = ImageLoad32(one + bin_array::kLinkDown); // its sentinel
    auto set = [](uint8_t *at, uint32_t value) { ImageStore32(at, value); };
    auto add = [](uint8_t *at, uint32_t value) { ImageStore32(at, ImageLoad32(at) + value); };
    auto offset = [&](uint8_t *at) { return ImageOffsetOf(r, at); };
    auto retag = [&](uint8_t *at, uint32_t n, uint32_t tag) { set(at, tag), set(at + n - 4, tag); };
    auto link = [&](uint8_t *a, uint8_t *b) { set(a + 4, offset(b)), set(b + 8, offset(a)); };
    uint8_t *forged = c + 16; // inside a live chunk
    using namespace extent_header;
    const std::tuple<const char *, std::function<void()>, int32_t, int32_t> rows[] = {
        {"segment count off by one", [&] { add(count, 1); }, -489, -489},
        {"segment id out of range", [&] { set(id, 9999); }, -497, -497},
        {"segment id of an empty slot", [&] { set(id, 3); }, -496, -496},
        {"map entry at another extent", [&] { set(map, 2 * page); }, -495, -495},
        {"map entry naming no segment", [&] { set(map + 12, 2 * page), add(count, 1); }, 0, -496},
        {"kind 0", [&] { set(s + kKind, 0); }, -494, -494},
        {"unknown kind", [&] { set(s + kKind, 7); }, -493, -493},
        {"secondary size off a page: the chain comes first", [&] { add(s, 8); }, -498, -498},
        {"secondary past the image", [&] { set(s, 0xFFFFF000); }, -498, -498},
        {"primary size off a page", [&] { add(p, 8); }, -499, -499},
        {"free extent of no size", [&] { set(free_extent, 5); }, -499, -499},
        {"free extent past the image", [&] { set(free_extent, 16 * kMiB | 1); }, -499, -499},
        {"link past the image", [&] { set(p + kNext, 0xFFFFF000); }, -498, -498},
        {"link closing a circle", [&] { set(s + kNext, next); }, -498, -498},
        {"prev link of a secondary", [&] { add(s + kPrev, page); }, 0, -498},
        {"front fence free", [&] { set(s + kSecondarySize, 19); }, -492, -492},
        {"rear fence free", [&] { set(s + page - 20, 19); }, 0, -492},
        {"front fence foot", [&] { set(s + kSecondarySize + 12, 16); }, 0, -488},
        {"chunk tag of 0", [&] { set(c, 0); }, -491, -491},
        {"chunk past the rear fence", [&] { set(c, 0xFFFFFFF0); }, -491, -491},
        {"two free chunks side by side", [&] { retag(live, 48, 49); }, -490, -491},
        {"two free extents side by side", [&] { retag(l, page, page + 1); }, 0, -494},
        {"chunk foot tag", [&] { add(c + BlockSize(c) - 4, 8); }, 0, -488},
        {"extent foot tag", [&] { add(s + page - 4, page); }, 0, -488},
        {"a free gap word", [&] { set(base + FirstExtentOffset() - 4, 1); }, 0, -488},
        {"free chunks counted once more", [&] { add(stats + 12, 1); }, -490, -490},
        {"live chunks counted once more", [&] { add(stats + 20, 1); }, -490, -490},
        {"extents counted once more", [&] { add(stats, 1); }, 0, -490},
        {"free chunk unlinked from its ring", [&] { _LumFreeListRemove(r, one); }, 0, -486},
        {"free chunk in the wrong bin",
         [&] { _LumFreeListRemove(r, one), _LumFreeListInsert(r, bins, one, 64); }, 0, -486},
        {"ring broken one way", [&] { set(two + bin_array::kLinkDown, ring); }, 0, -487},
        {"ring link out of the image", [&] { set(one + bin_array::kLinkUp, 0xFFFFFFF4); }, 0, -487},
        {"a ring through a forged free chunk",
         [&] { set(forged, 49), link(one, forged), link(forged, base + ring); }, 0, -487},
        {"sentinel's link_down", [&] { set(base + ring + 8, offset(one)); }, 0, -487},
        {"the last bin's link_up", [&] { set(bins + bin_array::kSize - 8, offset(one)); }, 0, -487},
        {"live extent in no segment",
         [&] { retag(free_extent, page, page), set(free_extent + kKind, 2); }, 0, -498},
    };
    const std::vector<uint8_t> sound(base, base + used);
    ASSERT_EQ(LumRegionVerifyDeep(r), 0);
    for (const auto &[what, damage, plain, deep] : rows) {
        damage();
        EXPECT_EQ(LumRegionVerify(r), plain) << what;
        EXPECT_EQ(LumRegionVerifyDeep(r), deep) << what;
        EXPECT_TRUE(deep == -492 || !strstr(LumRCToString(deep), "Unknown")) << deep;
        std::copy(sound.begin(), sound.end(), base);
        ASSERT_EQ(LumRegionVerifyDeep(r), 0) << "after " << what;
    }
    {
        lumtest::MallocFailure no_memory(1); // for the deep walk's record of what it found
        EXPECT_EQ(LumRegionVerifyDeep(r), LUM_RC_NO_MEMORY);
    }
    LumSegmentClose(segment);
    LumSegmentClose(last);
    EXPECT_EQ(LumRegionClose(r), 0);
}
