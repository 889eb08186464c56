// Extents: blocks of whole pages that the region hands to its segments,
// taken from extent_bins or from the end of the image.
//
// Layout of the image: the region header, a gap up to the first extent at
// F (2088 rounded up to a page), then extents up to `used`. An extent has a
// head tag and a foot tag (its size, CHUNK_FREE when free) and, when live,
// prev/next links of its segment's chain and its kind.
//
// Invariants:
//   1. From F to `used` the extents tile the image; sizes and offsets are
//      page multiples; head and foot tag agree.
//   2. No two free extents are neighbours, and the last extent below `used`
//      is never free: a free block that would reach `used` is cut off.
//   3. Every free extent lies in extent_bins.
//   4. The word at F - 4, in the gap, has no CHUNK_FREE: nothing coalesces
//      into the header.
#include "alloc/layout.h"
#include "durable/write_path.h"

namespace {

uint8_t *ExtentBins(LumRegion *region) {
    return region->base + region_header::kExtentBins;
}

// Writes `tag` at both ends of the block of `size` bytes.
void WriteTags(uint8_t *block, uint32_t size, uint32_t tag) {
    ImageStore32(block, tag);
    ImageStore32(block + size - 4, tag);
}

// Logs a block's head (its tag and the three words behind) and foot tag.
void MarkEnds(LumRegion *region, uint8_t *block, uint32_t size) {
    _LumImageMarkDirty(region, block, 16);
    _LumImageMarkDirty(region, block + size - 4, 4);
}

// Puts the free block of `size` bytes at `block`, whose pages are writable,
// into extent_bins.
void InsertFreeBlock(LumRegion *region, uint8_t *block, uint32_t size) {
    WriteTags(block, size, size | CHUNK_FREE);
    _LumFreeListInsert(region, ExtentBins(region), block, size);
}

} // namespace

int32_t _LumExtentAlloc(LumRegion *region, uint32_t size, uint8_t **out) {
    // A size whose pages, or whose end behind the image, do not fit 32 bits
    // cannot be had.
    if (static_cast<uint64_t>(region->used) + size + region_page_size > UINT32_MAX) {
        *out = nullptr;
        return LUM_RC_EXTEND;
    }
    size = static_cast<uint32_t>(PageRoundUp(size)); // fits: checked above
    uint8_t *extent = _LumFreeListFind(region, ExtentBins(region), size);
    uint32_t have = size;
    if (extent != nullptr) {
        have = BlockSize(extent);
    } else {
        extent = region->base + region->used;
        if (int32_t rc = _LumImageSetSize(region, region->used + size); rc != 0) {
            *out = nullptr;
            return rc;
        }
    }
    _LumPageUnprotect(region, extent, have);
    // The low end is used and the rest, whole pages, stays free at the top.
    if (uint32_t rest = have - size; rest >= region_page_size) {
        uint8_t *block = extent + size;
        InsertFreeBlock(region, block, rest);
        _LumPageProtect(region, block, rest);
        MarkEnds(region, block, rest);
        have = size;
    }
    WriteTags(extent, have, have);
    MarkEnds(region, extent, have);
    *out = extent;
    return 0;
}

int32_t _LumExtentFree(LumRegion *region, uint8_t *extent) {
    uint8_t *end = region->base + region->used;
    uint32_t size = BlockSize(extent);
    uint32_t below_tag = ImageLoad32(extent - 4);
    if (below_tag & CHUNK_FREE) {
        extent -= TagSize(below_tag);
        _LumFreeListRemove(region, extent);
        size += TagSize(below_tag);
    }
    uint8_t *above = extent + size;
    if (above < end && (ImageLoad32(above) & CHUNK_FREE)) {
        size += BlockSize(above);
        _LumFreeListRemove(region, above);
    }
    if (extent + size < end) {
        _LumPageUnprotect(region, extent, 16);
        _LumPageUnprotect(region, extent + size - 4, 4);
        InsertFreeBlock(region, extent, size);
        _LumPageProtect(region, extent, 16);
        _LumPageProtect(region, extent + size - 4, 4);
        MarkEnds(region, extent, size);
        return 0;
    }
    // The block reaches the end of the image: the size change alone is logged.
    return _LumImageSetSize(region, region->used - size);
}

uint8_t *_LumExtentFormat(LumRegion *region, uint8_t *extent) {
    using namespace extent_header;
    uint32_t size = BlockSize(extent + kTag);
    uint32_t header = ImageLoad32(extent + kKind) == kPrimary ? kPrimarySize : kSecondarySize;
    uint8_t *chunk = extent + header + 16;
    WriteTags(extent + header, 16, kFenceTag);
    WriteTags(chunk, size - Overhead(header), (size - Overhead(header)) | CHUNK_FREE);
    WriteTags(extent + size - 20, 16, kFenceTag);
    _LumImageMarkDirty(region, extent, header + 32);
    _LumImageMarkDirty(region, extent + size - 44, 40);
    return chunk;
}
