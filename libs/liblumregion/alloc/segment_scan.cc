// The segment scan: a cursor over the live chunks of a segment, one per
// call, in the order of its chain of extents (the primary extent, then the
// secondary ones from the newest) and by rising address inside each. It
// reads the image only, as the tags stand at each call; the caller keeps
// the chain still while a scan is open.
//
// The walk trusts no word it reads: a chunk that does not lie inside its
// extent, a link to a place that is no extent of the image, or a chain
// longer than the image has pages ends the scan as its end does, so that a
// damaged image is never read outside itself and a cycle never loops.
#include <new>

#include "alloc/layout.h"

struct LumSegmentScan {
    LumSegment *segment;
    uint8_t *extent;       // the extent being walked; null once the scan has ended
    uint8_t *chunk;        // the chunk returned last; null before the first
    uint32_t extents_left; // more extents than this would make a cycle
};

namespace {

uint32_t HeaderSize(const uint8_t *extent, const LumSegmentScan &scan) {
    return extent == scan.segment->primary ? extent_header::kPrimarySize
                                           : extent_header::kSecondarySize;
}

// The first chunk of `extent`, behind its header and front fence.
uint8_t *FirstChunk(uint8_t *extent, const LumSegmentScan &scan) {
    return extent + HeaderSize(extent, scan) + 16;
}

// Whether the block at `at` lies inside the chunk area of the scan's
// extent, rear fence included.
bool InsideExtent(const LumSegmentScan &scan, const uint8_t *at) {
    uint64_t extent_size = BlockSize(scan.extent);
    uint64_t offset = at - scan.extent;
    uint64_t size = BlockSize(at);
    return size >= 16 && offset + size + 4 <= extent_size;
}

// The next extent of the chain, or null at its end or at a link that
// names no extent of the image.
uint8_t *NextExtent(LumSegmentScan *scan) {
    const LumRegion *region = scan->segment->region;
    RegionOffset next = ImageLoad32(scan->extent + extent_header::kNext);
    uint32_t used = region->used.load(std::memory_order_relaxed);
    if (next == 0 || next % region_page_size != 0 || next >= used || scan->extents_left-- == 0)
        return nullptr;
    uint8_t *extent = region->base + next;
    uint32_t size = BlockSize(extent);
    if (size < region_page_size || uint64_t{next} + size > used)
        return nullptr;
    return extent;
}

int32_t EndScan(LumSegmentScan *scan, void **pointer) {
    scan->extent = nullptr;
    scan->chunk = nullptr;
    *pointer = nullptr;
    return LUM_RC_FAILURE;
}

} // namespace

int32_t LumSegmentScanBegin(LumSegment *segment, LumSegmentScan **out) {
    if (segment == nullptr || out == nullptr)
        return LUM_RC_FAILURE;
    void *memory = lum_malloc(sizeof(LumSegmentScan));
    if (memory == nullptr)
        return LUM_RC_FAILURE;
    uint32_t pages = segment->region->used.load(std::memory_order_relaxed) / region_page_size;
    *out = new (memory) LumSegmentScan{segment, segment->primary, nullptr, pages};
    return 0;
}

int32_t LumSegmentScanNext(LumSegmentScan *scan, void **pointer) {
    if (scan == nullptr || pointer == nullptr)
        return LUM_RC_FAILURE;
    if (scan->extent == nullptr)
        return EndScan(scan, pointer); // ended before: stays ended
    uint8_t *at = scan->chunk == nullptr ? FirstChunk(scan->extent, *scan)
                                         : scan->chunk + BlockSize(scan->chunk);
    for (;;) {
        if (!InsideExtent(*scan, at))
            return EndScan(scan, pointer);
        uint32_t tag = ImageLoad32(at);
        if ((tag & CHUNK_FENCE) != 0) { // the rear fence: on to the next extent
            scan->extent = NextExtent(scan);
            if (scan->extent == nullptr)
                return EndScan(scan, pointer);
            at = FirstChunk(scan->extent, *scan);
        } else if ((tag & CHUNK_FREE) != 0) {
            at += TagSize(tag);
        } else {
            scan->chunk = at;
            *pointer = at + 4;
            return 0;
        }
    }
}

int32_t LumSegmentScanEnd(LumSegmentScan *scan) {
    lum_free(scan);
    return 0;
}
