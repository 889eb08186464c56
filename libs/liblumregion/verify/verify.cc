// Region verification: a walk over the image that proves the extents tile
// it in page multiples, that every live segment is where segment_map says,
// that its chunks have sane sizes, and that the kept statistics equal what
// the walk adds up. It changes nothing and logs nothing.
//
// The walk is safe on an image from untrusted files: it reads only between
// base and base + used, whatever a tag, a link or a size says, and every
// loop advances or ends. A chain link that leaves the image, is not on a
// page, or closes a circle ends the walk with -498, as a secondary extent
// that cannot be; an extent that reaches past the image ends it with -499
// or -498 by its kind, and a chunk that reaches past its rear fence with
// -491.
#include "verify/verify.h"
#include "alloc/layout.h"
#include "durable/durable.h"

namespace {

using namespace extent_header;

struct ChunkSums {
    uint32_t free_bytes = 0, free_chunks = 0, used_bytes = 0, used_chunks = 0;
};

bool OnPage(uint64_t value) {
    return value % region_page_size == 0;
}

int32_t BadSize(uint32_t kind) {
    return kind == kPrimary ? LUM_RC_PRIMARY_SIZE : LUM_RC_SECONDARY_SIZE;
}

// Checks one extent of a chain and adds up its chunks.
int32_t VerifyExtent(LumRegion *region, uint64_t offset, ChunkSums *sums) {
    const uint8_t *extent = region->base + offset;
    uint32_t tag = ImageLoad32(extent + kTag);
    uint32_t kind = ImageLoad32(extent + kKind);
    if ((tag & CHUNK_FREE) || kind == 0)
        return LUM_RC_FREE_EXTENT;
    if (kind != kPrimary && kind != kSecondary)
        return LUM_RC_EXTENT_KIND;
    uint32_t size = TagSize(tag);
    if (size == 0 || !OnPage(size) || offset + size > region->used)
        return BadSize(kind);
    uint32_t header = kind == kPrimary ? kPrimarySize : kSecondarySize;
    if (ImageLoad32(extent + header) & CHUNK_FREE)
        return LUM_RC_FENCE_FREE;
    uint32_t bound = size - 20; // the rear fence
    for (uint32_t at = header + 16; at < bound;) {
        uint32_t chunk_tag = ImageLoad32(extent + at);
        uint32_t chunk_size = TagSize(chunk_tag);
        if (chunk_size < 16 || chunk_size > bound - at)
            return LUM_RC_BAD_CHUNK;
        if (chunk_tag & CHUNK_FREE) {
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

} // namespace

int32_t _LumSegmentVerify(LumRegion *region, uint8_t *primary, int32_t check_stats) {
    uint32_t id = ImageLoad32(primary + primary_extent::kSegmentId);
    if (id >= region_header::kSegmentSlots)
        return LUM_RC_SEGMENT_INDEX;
    RegionOffset entry = ImageLoad32(region->base + region_header::kSegmentMap + 4 * id);
    if (entry == 0)
        return LUM_RC_SEGMENT_OFFSET;
    if (region->base + entry != primary)
        return LUM_RC_SEGMENT_MISMATCH;

    ChunkSums sums;
    // Each extent holds a page at least, so a longer chain closes a circle.
    uint32_t steps_left = region->used / region_page_size;
    uint64_t offset = ImageOffsetOf(region, primary);
    for (;;) {
        if (int32_t rc = VerifyExtent(region, offset, &sums); rc != 0)
            return rc;
        RegionOffset next = ImageLoad32(region->base + offset + kNext);
        if (next == 0)
            break;
        if (--steps_left == 0 || !OnPage(next) || next + uint64_t{region_page_size} > region->used)
            return LUM_RC_SECONDARY_SIZE;
        offset = next;
    }
    if (check_stats == 1) {
        SegmentStats stats;
        memcpy(&stats, primary + primary_extent::kStats, sizeof stats);
        if (stats.free_bytes != sums.free_bytes || stats.free_chunks != sums.free_chunks ||
            stats.used_bytes != sums.used_bytes || stats.used_chunks != sums.used_chunks)
            return LUM_RC_EXTENT_STATS;
    }
    return 0;
}

int32_t LumRegionVerify(LumRegion *region) {
    if (region == nullptr)
        return LUM_RC_FAILURE;
    uint64_t used = region->used;
    for (uint64_t offset = FirstExtentOffset(); offset < used;) {
        uint8_t *extent = region->base + offset;
        uint32_t tag = ImageLoad32(extent + kTag);
        if (!(tag & CHUNK_FREE) && ImageLoad32(extent + kKind) == kPrimary) {
            if (int32_t rc = _LumSegmentVerify(region, extent, 1); rc != 0)
                return rc;
        }
        uint32_t size = TagSize(tag);
        if (size < region_page_size || !OnPage(size) || offset + size > used)
            return LUM_RC_PRIMARY_SIZE;
        offset += size;
    }
    return 0;
}
