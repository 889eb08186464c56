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
    ExtentChain chain; // its extent is the one being walked; null once the scan has ended
    uint8_t *chunk;    // the chunk returned last; null before the first
};

namespace {

// Whether the block at `at` lies inside the chunk area of the scan's
// extent, rear fence included.
bool InsideExtent(const LumSegmentScan &scan, const uint8_t *at) {
    const uint8_t *extent = scan.chain.extent;
    uint64_t offset = at - extent;
    uint64_t size = BlockSize(at);
    return size >= 16 && offset + size + 4 <= BlockSize(extent);
}

int32_t EndScan(LumSegmentScan *scan, void **pointer) {
    scan->chain.extent = nullptr;
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
    *out = new (memory) LumSegmentScan{segment, _LumExtentChainBegin(segment), nullptr};
    return 0;
}

int32_t LumSegmentScanNext(LumSegmentScan *scan, void **pointer) {
    if (scan == nullptr || pointer == nullptr)
        return LUM_RC_FAILURE;
    if (scan->chain.extent == nullptr)
        return EndScan(scan, pointer); // ended before: stays ended
    uint8_t *at = scan->chunk == nullptr ? ChunkAreaOf(scan->segment, scan->chain.extent).begin
                                         : scan->chunk + BlockSize(scan->chunk);
    for (;;) {
        if (!InsideExtent(*scan, at))
            return EndScan(scan, pointer);
        uint32_t tag = ImageLoad32(at);
        if ((tag & CHUNK_FENCE) != 0) { // the rear fence: on to the next extent
            _LumExtentChainNext(&scan->chain);
            if (scan->chain.extent == nullptr)
                return EndScan(scan, pointer);
            at = ChunkAreaOf(scan->segment, scan->chain.extent).begin;
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
