// Layouts of the image. The image is a file format: it is stored verbatim
// in checkpoint and snapshot files, so every offset here is a file offset
// too. All words are 32-bit little-endian; every reference inside the image
// is a RegionOffset, a byte offset from the image's base (0: none).
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "region/region.h"

static_assert(std::endian::native == std::endian::little, "image words are little-endian");

using RegionOffset = uint32_t;

inline uint32_t ImageLoad32(const uint8_t *at) {
    uint32_t word;
    memcpy(&word, at, sizeof word);
    return word;
}

inline void ImageStore32(uint8_t *at, uint32_t word) {
    memcpy(at, &word, sizeof word);
}

inline RegionOffset ImageOffsetOf(const LumRegion *region, const uint8_t *at) {
    return static_cast<RegionOffset>(at - region->base);
}

// Tags: a block's size in bytes, a multiple of 8, with flags in the low
// three bits; the same word stands at both ends of a block.
inline constexpr uint32_t CHUNK_FREE = 1;
inline constexpr uint32_t CHUNK_FENCE = 2;
inline constexpr uint32_t kTagFlags = 7;

// The size that a tag carries.
inline constexpr uint32_t TagSize(uint32_t tag) {
    return tag & ~kTagFlags;
}

// The size of the block whose head tag stands at `block`.
inline uint32_t BlockSize(const uint8_t *block) {
    return TagSize(ImageLoad32(block));
}

// BinArray: 128 sentinels of free rings. Sentinel i begins at 4 + 12 i;
// its first word stands where an item has its tag and is never used.
namespace bin_array {
inline constexpr uint32_t kBins = 128;
inline constexpr uint32_t kSize = 1540;
inline constexpr uint32_t kLinkUp = 4;   // from the sentinel or item
inline constexpr uint32_t kLinkDown = 8; // from the sentinel or item
constexpr uint32_t SentinelOffset(uint32_t bin) {
    return 4 + 12 * bin;
}
static_assert(SentinelOffset(kBins - 1) + kLinkDown + 4 == kSize);
} // namespace bin_array

// RegionHeader: the first bytes of every image.
namespace region_header {
inline constexpr uint32_t kReserved = 0;    // 32 bytes: the file header in a stored image
inline constexpr uint32_t kSegmentMap = 32; // 128 RegionOffsets of primary extents
inline constexpr uint32_t kSegmentSlots = 128;
inline constexpr uint32_t kSegmentCount = 544;  // non-zero entries of the map
inline constexpr uint32_t kExtentBins = 548;    // BinArray of the free extents
inline constexpr uint32_t kPageSizeWord = 2084; // last word of extent_bins: page size | 2
inline constexpr uint32_t kSize = 2088;
static_assert(kSegmentMap + 4 * kSegmentSlots == kSegmentCount);
static_assert(kExtentBins + bin_array::kSize == kSize);
static_assert(kPageSizeWord + 4 == kSize);
} // namespace region_header

// ExtentHeader: the head of every extent. A free extent's prev and next
// are its link_up and link_down in extent_bins; its kind is stale.
namespace extent_header {
inline constexpr uint32_t kTag = 0;
inline constexpr uint32_t kPrev = 4; // previous extent of the segment; 0 in a primary
inline constexpr uint32_t kNext = 8; // next extent of the segment; 0 in the last
inline constexpr uint32_t kKind = 12;
inline constexpr uint32_t kPrimary = 1;
inline constexpr uint32_t kSecondary = 2;
inline constexpr uint32_t kPrimarySize = 1604; // header of a PrimaryExtent
inline constexpr uint32_t kSecondarySize = 20; // header of a SecondaryExtent
inline constexpr uint32_t kFenceTag = 16 | CHUNK_FENCE;
// A formatted extent: header, 16-byte front fence, chunks, 16-byte rear
// fence, foot tag. Its overhead over the chunk area:
constexpr uint32_t Overhead(uint32_t header) {
    return header + 36;
}
static_assert(bin_array::kLinkUp == kPrev && bin_array::kLinkDown == kNext);
static_assert((kPrimarySize + 16) % 8 == 4 && (kSecondarySize + 16) % 8 == 4,
              "chunk addresses are 4 modulo 8");
} // namespace extent_header

// PrimaryExtent: the head of a segment, behind its ExtentHeader (prev 0,
// next the newest secondary extent, kind 1).
namespace primary_extent {
inline constexpr uint32_t kSegmentId = 16;     // index in segment_map; 9999 once dropped
inline constexpr uint32_t kPrimarySize = 24;   // page multiple
inline constexpr uint32_t kSecondarySize = 28; // first secondary extent; may be 0
inline constexpr uint32_t kGrowthPercent = 32; // growth of each further secondary
inline constexpr uint32_t kMaximumSize = 36;   // total_bytes at which growth stops; 0: none
inline constexpr uint32_t kStats = 40;         // SegmentStats, six words
inline constexpr uint32_t kUsedBytes = 56;     // stats.used_bytes
inline constexpr uint32_t kChunkBins = 64;     // BinArray of the free chunks
inline constexpr uint32_t kDroppedId = 9999;
static_assert(kChunkBins + bin_array::kSize == extent_header::kPrimarySize);
} // namespace primary_extent

// SegmentStats: the six counters at offset 40 of a PrimaryExtent. Callers
// keep a copy while they work and write it back as one 24-byte record.
// Invariant: total_bytes = free_bytes + used_bytes + 1640 + 56 (extents - 1).
struct SegmentStats {
    uint32_t extents;
    uint32_t total_bytes;
    uint32_t free_bytes;
    uint32_t free_chunks;
    uint32_t used_bytes;
    uint32_t used_chunks;
};
static_assert(sizeof(SegmentStats) == 24);
static_assert(primary_extent::kStats + offsetof(SegmentStats, used_bytes) ==
              primary_extent::kUsedBytes);

// The first extent of an image: behind the region header, on a page.
inline uint32_t FirstExtentOffset() {
    return static_cast<uint32_t>(PageRoundUp(region_header::kSize));
}

// bins.cc --------------------------------------------------------------------

// Makes all 128 bins of the BinArray at `bins` empty. No protection, no
// marking: the caller holds the array writable and marks it.
void _LumFreeListInit(LumRegion *region, uint8_t *bins);

// The bin of a block of `size` bytes (tags included): 0 to 126.
uint32_t _LumFreeListIndex(uint32_t size);
// Puts `item`, whose tags are written, into its bin. Leaves the item's first
// 12 bytes writable with its links written and unmarked: the caller protects
// the item and marks its first 12 bytes and its foot tag.
void _LumFreeListInsert(LumRegion *region, uint8_t *bins, uint8_t *item, uint32_t size);
// The smallest item of at least `size` bytes, unlinked, its own words as
// they were; null when none fits.
uint8_t *_LumFreeListFind(LumRegion *region, uint8_t *bins, uint32_t size);
// Unlinks `item` from its ring; its own words stay.
void _LumFreeListRemove(LumRegion *region, uint8_t *item);

// segment.cc -----------------------------------------------------------------

// A walk along a segment's chain of extents for readers that must not trust
// the image: the primary extent, then each `next` link. A link that names
// no extent of the image (off a page, at or past the used bytes, or one
// whose size reaches past them) ends the walk as the chain's end does, and
// so does a chain longer than the image has pages: a cycle cannot loop.
struct ExtentChain {
    const LumRegion *region;
    uint8_t *extent;     // the current extent; null once the walk has ended
    uint32_t steps_left; // one per page of the image
    bool broken;         // the walk ended at a link that names no extent
};
ExtentChain _LumExtentChainBegin(const LumSegment *segment);
void _LumExtentChainNext(ExtentChain *chain);

// The chunk area of an extent of `segment`: from behind its header and
// front fence up to its rear fence.
struct ChunkArea {
    uint8_t *extent;
    uint8_t *begin;
    uint8_t *end;
};
inline ChunkArea ChunkAreaOf(const LumSegment *segment, uint8_t *extent) {
    uint32_t header =
        extent == segment->primary ? extent_header::kPrimarySize : extent_header::kSecondarySize;
    return {extent, extent + header + 16, extent + BlockSize(extent) - 20};
}

// Adds a secondary extent with room for a chunk of `chunk_size` bytes behind
// the primary one and formats it; *chunk is its one free chunk, in no bin,
// and the extent stays writable. `stats` is the caller's copy. 0, -407 at
// the maximum, -403 for a size beyond the region, or the code of
// _LumExtentAlloc.
LUM_SLOW_PATH int32_t _LumSegmentExtend(LumSegment *segment, uint32_t chunk_size,
                                        SegmentStats *stats, uint8_t **chunk);
// Takes a wholly free secondary extent out of the chain and frees it.
LUM_SLOW_PATH int32_t _LumSegmentShrink(LumSegment *segment, SegmentStats *stats, uint8_t *extent);

// extent.cc ------------------------------------------------------------------

// An extent of `size` bytes rounded up to pages: the smallest free extent
// that fits, split at its high end, or new pages at the end of the image.
// Its tags are written and marked, the whole extent is writable, the rest
// is the caller's. 0, or the code of _LumImageSetSize with *extent null.
int32_t _LumExtentAlloc(LumRegion *region, uint32_t size, uint8_t **extent);
// Frees an extent out of its segment's chain, merging it with free
// neighbours, or cutting it off the image when it reaches the end. 0, or
// the code of _LumImageSetSize.
int32_t _LumExtentFree(LumRegion *region, uint8_t *extent);
// Writes the fences and the one free chunk of an extent whose tag and kind
// are set and whose pages are writable; returns the free chunk, in no bin.
uint8_t *_LumExtentFormat(LumRegion *region, uint8_t *extent);
