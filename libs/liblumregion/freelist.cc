// Size bins: the BinArray of 128 rings of free items that both the extent
// and the chunk allocator use.
#include "layout.h"
#include "region.h"

void _LumFreeListInit(LumRegion *region, uint8_t *bins) {
    for (uint32_t i = 0; i < bin_array::kBins; ++i) {
        uint8_t *sentinel = bins + bin_array::SentinelOffset(i);
        uint32_t self = ImageOffsetOf(region, sentinel);
        ImageStore32(sentinel + bin_array::kLinkUp, self);
        ImageStore32(sentinel + bin_array::kLinkDown, self);
    }
}
