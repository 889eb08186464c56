// Region verification: walks over an image that prove what the allocator
// relies on. They change nothing and log nothing.
//
// LumRegionVerify proves that segment_count counts the entries of
// segment_map in use, that the extents tile the image in page multiples,
// that every live segment stands in the map under its id, that its chunks
// have sane sizes, and that its kept chunk statistics equal what the walk
// adds up.
//
// LumRegionVerifyDeep runs the same walk with a record of the blocks found
// (Found) and proves besides: the word below the first extent is no free
// tag, and every extent, fence and chunk has a foot tag equal to its head
// tag; no two free chunks and no two free extents lie side by side, and the
// last extent is live; each secondary extent's prev link names the extent
// before it in its chain; every map entry names a live primary extent, and
// every live extent lies in exactly one chain; every free chunk and every
// free extent lies exactly once on the ring of the bin that its size
// selects, and every ring is closed in both directions; all six counters
// equal a recount. That is all that allocation, release and drop trust of
// an image, so on an image that passes, they touch only the image.
//
// Both walks are safe on an image from untrusted files: they read only
// between base and base + used, whatever a tag, a link or a size says, and
// every loop advances or ends. A chain link that leaves the image, is not
// on a page, or closes a circle ends the walk with -498, as a secondary
// extent that cannot be; an extent that reaches past the image ends it with
// -499 or -498 by its kind, and a chunk that reaches past its rear fence
// with -491.
#include "verify/verify.h"
#include "alloc/layout.h"
#include "durable/durable.h"

namespace {

using namespace extent_header;

// A set of block offsets of the image, one bit for each `1 << shift` bytes.
struct BlockSet {
    uint64_t *words;
    uint32_t shift;

    void Add(uint64_t offset) { words[offset >> shift >> 6] |= Bit(offset); }
    // Removes `offset`, which lies in the image; false when it was not there.
    bool Take(uint64_t offset) {
        uint64_t &word = words[offset >> shift >> 6];
        bool there = (word & Bit(offset)) != 0;
        word &= ~Bit(offset);
        return there;
    }
    uint64_t Bit(uint64_t offset) const { return uint64_t{1} << (offset >> shift & 63); }
};

// What the deep walk has found by tiling and not yet reached again through
// a ring or a chain, so that each block is reached exactly once. Chunks
// begin 4 bytes past a multiple of 8, extents on pages, so each has a bit
// of its own. The chains take the live extents out before extent_bins is
// walked, so only free ones are left for its rings.
struct Found {
    BlockSet free_chunks; // of the segment being checked; empty between segments
    BlockSet extents;     // live and free
    uint32_t free_extents = 0;
    uint32_t live_extents = 0;
    uint32_t primaries = 0;
};

struct Walk {
    const uint8_t *base;
    uint64_t used;
    Found *found; // null: the plain walk of LumRegionVerify
};

// What a segment's walk adds up, to compare with its statistics.
struct Sums {
    uint32_t extents = 0, total_bytes = 0;
    uint32_t free_bytes = 0, free_chunks = 0, used_bytes = 0, used_chunks = 0;
};

// What a BinArray may hold: the blocks of `set` (a segment's free chunks, or
// extents), `count` of them free, at offsets `residue` modulo `alignment`.
struct BinItems {
    BlockSet *set;
    uint32_t count;
    uint64_t alignment;
    uint64_t residue;
};

uint32_t WordAt(const Walk &walk, uint64_t offset) {
    return ImageLoad32(walk.base + offset);
}

bool OnPage(uint64_t value) {
    return value % region_page_size == 0;
}

int32_t BadSize(uint32_t kind) {
    return kind == kPrimary ? LUM_RC_PRIMARY_SIZE : LUM_RC_SECONDARY_SIZE;
}

// segment_count against the entries of segment_map in use, whose number
// goes to *mapped.
int32_t CheckSegmentCount(const Walk &walk, uint32_t *mapped) {
    *mapped = 0;
    for (uint32_t id = 0; id < region_header::kSegmentSlots; ++id)
        *mapped += WordAt(walk, region_header::kSegmentMap + 4 * id) != 0;
    return WordAt(walk, region_header::kSegmentCount) == *mapped ? 0 : LUM_RC_SEGMENT_COUNT;
}

// The fences of an extent: the plain walk refuses a free front fence, the
// deep one any fence that is not whole.
int32_t CheckFences(const Walk &walk, uint64_t extent, uint32_t header, uint32_t size) {
    if (WordAt(walk, extent + header) & CHUNK_FREE)
        return LUM_RC_FENCE_FREE;
    if (walk.found == nullptr)
        return 0;
    for (uint64_t fence : {extent + header, extent + size - 20}) {
        if (WordAt(walk, fence) != kFenceTag)
            return LUM_RC_FENCE_FREE;
        if (WordAt(walk, fence + 12) != kFenceTag)
            return LUM_RC_TAG_MISMATCH;
    }
    return 0;
}

// Walks the chunks between an extent's fences and adds them up; the last
// one must end at the rear fence. The deep walk also compares foot tags,
// refuses free chunks side by side and notes the free chunks.
int32_t CheckChunks(const Walk &walk, uint64_t extent, uint32_t header, uint32_t size, Sums *sums) {
    uint64_t bound = extent + size - 20; // the rear fence
    uint32_t tag_before = kFenceTag;
    for (uint64_t at = extent + header + 16; at < bound;) {
        uint32_t tag = WordAt(walk, at);
        uint32_t chunk_size = TagSize(tag);
        if (chunk_size < 16 || chunk_size > bound - at)
            return LUM_RC_BAD_CHUNK;
        if (walk.found != nullptr) {
            if (WordAt(walk, at + chunk_size - 4) != tag)
                return LUM_RC_TAG_MISMATCH;
            if (tag & tag_before & CHUNK_FREE)
                return LUM_RC_BAD_CHUNK; // two free chunks that did not merge
            if (tag & CHUNK_FREE)
                walk.found->free_chunks.Add(at);
        }
        tag_before = tag;
        if (tag & CHUNK_FREE) {
            sums->free_bytes += chunk_size;
            sums->free_chunks += 1;
        } else {
            sums->used_bytes += chunk_size;
            sums->used_chunks += 1;
        }
        at += chunk_size;
    }
    return 0;
}

// Checks one extent of a chain, whose previous extent lies at `prev` (0 for
// the primary extent), and adds it up with its chunks.
int32_t CheckExtent(const Walk &walk, uint64_t offset, uint64_t prev, Sums *sums) {
    uint32_t tag = WordAt(walk, offset + kTag);
    uint32_t kind = WordAt(walk, offset + kKind);
    if ((tag & CHUNK_FREE) || kind == 0)
        return LUM_RC_FREE_EXTENT;
    if (kind != kPrimary && kind != kSecondary)
        return LUM_RC_EXTENT_KIND;
    uint32_t size = TagSize(tag);
    if (size == 0 || !OnPage(size) || offset + size > walk.used)
        return BadSize(kind);
    if (walk.found != nullptr && prev != 0 && WordAt(walk, offset + kPrev) != prev)
        return LUM_RC_SECONDARY_SIZE;
    uint32_t header = kind == kPrimary ? kPrimarySize : kSecondarySize;
    if (int32_t rc = CheckFences(walk, offset, header, size); rc != 0)
        return rc;
    sums->extents += 1;
    sums->total_bytes += size;
    return CheckChunks(walk, offset, header, size, sums);
}

// Walks a segment's chain from its primary extent. Each extent holds a page
// at least, so a chain longer than the image has pages closes a circle.
int32_t CheckChain(const Walk &walk, uint64_t primary, Sums *sums) {
    uint64_t steps_left = walk.used / region_page_size;
    uint64_t prev = 0;
    for (uint64_t offset = primary;;) {
        if (int32_t rc = CheckExtent(walk, offset, prev, sums); rc != 0)
            return rc;
        RegionOffset next = WordAt(walk, offset + kNext);
        if (next == 0)
            return 0;
        if (--steps_left == 0 || !OnPage(next) || next + uint64_t{region_page_size} > walk.used)
            return LUM_RC_SECONDARY_SIZE;
        prev = offset;
        offset = next;
    }
}

// The kept statistics against the walk's sums: the chunk counters always,
// the extent counters in the deep walk.
int32_t CheckStats(const Walk &walk, uint64_t primary, const Sums &sums) {
    SegmentStats stats;
    memcpy(&stats, walk.base + primary + primary_extent::kStats, sizeof stats);
    bool chunks_agree =
        stats.free_bytes == sums.free_bytes && stats.free_chunks == sums.free_chunks &&
        stats.used_bytes == sums.used_bytes && stats.used_chunks == sums.used_chunks;
    bool extents_agree = walk.found == nullptr ||
                         (stats.extents == sums.extents && stats.total_bytes == sums.total_bytes);
    return chunks_agree && extents_agree ? 0 : LUM_RC_EXTENT_STATS;
}

// One ring of a BinArray, from its sentinel along link_up: every item is a
// free block of `items` not reached before, of this bin, whose link_down
// names the one before it; the ring returns to the sentinel, whose
// link_down names the last item. Each item taken from the set is one step
// less, so the walk ends.
int32_t CheckRing(const Walk &walk, uint64_t sentinel, uint32_t bin, const BinItems &items,
                  uint32_t *reached) {
    uint64_t prev = sentinel;
    for (uint64_t item = WordAt(walk, sentinel + bin_array::kLinkUp); item != sentinel;
         item = WordAt(walk, item + bin_array::kLinkUp)) {
        if (item >= walk.used || item % items.alignment != items.residue ||
            !items.set->Take(item) || WordAt(walk, item + bin_array::kLinkDown) != prev)
            return LUM_RC_BIN_RING;
        if (_LumFreeListIndex(BlockSize(walk.base + item)) != bin)
            return LUM_RC_BIN_MEMBER;
        prev = item;
        *reached += 1;
    }
    return WordAt(walk, sentinel + bin_array::kLinkDown) == prev ? 0 : LUM_RC_BIN_RING;
}

// Proves the bins of the BinArray at `bins`: every ring is sound, and
// together they hold every free block of `items`. The last bin never holds
// an item and only its link_up is read: its link_down is the array's last
// word, which the region header uses otherwise.
int32_t CheckBins(const Walk &walk, uint64_t bins, const BinItems &items) {
    uint32_t reached = 0;
    for (uint32_t bin = 0; bin + 1 < bin_array::kBins; ++bin) {
        uint64_t sentinel = bins + bin_array::SentinelOffset(bin);
        if (int32_t rc = CheckRing(walk, sentinel, bin, items, &reached); rc != 0)
            return rc;
    }
    uint64_t last = bins + bin_array::SentinelOffset(bin_array::kBins - 1);
    if (WordAt(walk, last + bin_array::kLinkUp) != last)
        return LUM_RC_BIN_RING;
    return reached == items.count ? 0 : LUM_RC_BIN_MEMBER;
}

// Checks the segment whose primary extent lies at `primary`: its map entry,
// its chain with the chunks, its statistics, and in the deep walk its bins.
int32_t CheckSegment(const Walk &walk, uint64_t primary) {
    uint32_t id = WordAt(walk, primary + primary_extent::kSegmentId);
    if (id >= region_header::kSegmentSlots)
        return LUM_RC_SEGMENT_INDEX;
    RegionOffset entry = WordAt(walk, region_header::kSegmentMap + 4 * id);
    if (entry == 0)
        return LUM_RC_SEGMENT_OFFSET;
    if (entry != primary)
        return LUM_RC_SEGMENT_MISMATCH;
    Sums sums;
    if (int32_t rc = CheckChain(walk, primary, &sums); rc != 0)
        return rc;
    if (int32_t rc = CheckStats(walk, primary, sums); rc != 0)
        return rc;
    if (walk.found == nullptr)
        return 0;
    walk.found->primaries += 1;
    return CheckBins(walk, primary + primary_extent::kChunkBins,
                     {&walk.found->free_chunks, sums.free_chunks, 8, 4});
}

// The deep walk's view of one extent of the tiling: its foot tag agrees, a
// free one has a live extent above it (free ones merge, and one at the end
// is cut off the image), and it joins the extents that the chains or
// extent_bins must reach.
int32_t NoteExtent(const Walk &walk, uint64_t offset, uint32_t tag, uint32_t size) {
    if (WordAt(walk, offset + size - 4) != tag)
        return LUM_RC_TAG_MISMATCH;
    if ((tag & CHUNK_FREE) &&
        (offset + size == walk.used || (WordAt(walk, offset + size) & CHUNK_FREE)))
        return LUM_RC_FREE_EXTENT;
    walk.found->extents.Add(offset);
    (tag & CHUNK_FREE ? walk.found->free_extents : walk.found->live_extents) += 1;
    return 0;
}

// The top-level walk over the extents from the first up to `used`. Live
// primary extents get their segment checked where the walk meets them;
// secondary extents are reached through their chains, and here only take
// part in the tiling. A free extent's kind is stale, so the flag is read
// first.
int32_t CheckTiling(const Walk &walk) {
    uint64_t first = FirstExtentOffset();
    if (walk.found != nullptr && (WordAt(walk, first - 4) & CHUNK_FREE))
        return LUM_RC_TAG_MISMATCH; // the extent below the first would be free
    for (uint64_t offset = first; offset < walk.used;) {
        uint32_t tag = WordAt(walk, offset + kTag);
        if (!(tag & CHUNK_FREE) && WordAt(walk, offset + kKind) == kPrimary) {
            if (int32_t rc = CheckSegment(walk, offset); rc != 0)
                return rc;
        }
        uint32_t size = TagSize(tag);
        if (size < region_page_size || !OnPage(size) || offset + size > walk.used)
            return LUM_RC_PRIMARY_SIZE;
        if (walk.found != nullptr) {
            if (int32_t rc = NoteExtent(walk, offset, tag, size); rc != 0)
                return rc;
        }
        offset += size;
    }
    return 0;
}

// Proves that the chains of the mapped segments, which the tiling has
// walked, hold every live extent exactly once.
int32_t CheckChainsHoldExtents(const Walk &walk) {
    uint32_t reached = 0;
    for (uint32_t id = 0; id < region_header::kSegmentSlots; ++id) {
        uint64_t offset = WordAt(walk, region_header::kSegmentMap + 4 * id);
        for (; offset != 0; offset = WordAt(walk, offset + kNext)) {
            if (!walk.found->extents.Take(offset))
                return LUM_RC_SECONDARY_SIZE;
            reached += 1;
        }
    }
    return reached == walk.found->live_extents ? 0 : LUM_RC_SECONDARY_SIZE;
}

// The walk of both verifications over an image of `used` bytes; `found`
// holds empty sets for the deep one.
int32_t VerifyImage(const LumRegion *region, uint64_t used, Found *found) {
    if (used < region_header::kSize)
        return LUM_RC_FAILURE; // not even a region header
    Walk walk{region->base, used, found};
    uint32_t mapped;
    if (int32_t rc = CheckSegmentCount(walk, &mapped); rc != 0)
        return rc;
    if (int32_t rc = CheckTiling(walk); rc != 0)
        return rc;
    if (found == nullptr)
        return 0;
    if (found->primaries != mapped)
        return LUM_RC_SEGMENT_OFFSET; // an entry that names no live primary extent
    if (int32_t rc = CheckChainsHoldExtents(walk); rc != 0)
        return rc;
    return CheckBins(walk, region_header::kExtentBins,
                     {&found->extents, found->free_extents, region_page_size, 0});
}

// Words of a BlockSet that covers `used` bytes, one bit for each
// `1 << shift` of them.
size_t SetWords(uint64_t used, uint32_t shift) {
    return (used >> shift) / 64 + 1;
}

} // namespace

int32_t LumRegionVerify(LumRegion *region) {
    if (region == nullptr)
        return LUM_RC_FAILURE;
    return VerifyImage(region, region->used, nullptr);
}

int32_t LumRegionVerifyDeep(LumRegion *region) {
    if (region == nullptr)
        return LUM_RC_FAILURE;
    uint64_t used = region->used;
    size_t chunk_words = SetWords(used, 3), page_words = SetWords(used, region_page_shift);
    size_t bytes = (chunk_words + page_words) * sizeof(uint64_t);
    auto *words = static_cast<uint64_t *>(lum_malloc(bytes));
    if (words == nullptr)
        return LUM_RC_NO_MEMORY;
    memset(words, 0, bytes);
    Found found{{words, 3}, {words + chunk_words, region_page_shift}};
    int32_t rc = VerifyImage(region, used, &found);
    lum_free(words);
    return rc;
}
