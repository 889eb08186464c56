// Verification of any image: the input becomes the image of a scratch
// region, and LumRegionVerifyDeep walks it. It gives a code for every
// damage and never reads outside the image or loops.
#include <cstring>

#include "durable/durable.h"
#include "fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    FuzzStart();
    LumRegion *region;
    void *base;
    if (size > 4 * kFuzzMiB || LumRegionCreate("v", LUM_REGION_SCRATCH, 8 * kFuzzMiB, 8 * kFuzzMiB,
                                               0, 0, nullptr, &region, &base) != 0)
        return 0;
    uint32_t pages = static_cast<uint32_t>(PageRoundUp(size));
    if (pages > region->used && _LumImageSetSize(region, pages) != 0)
        abort();
    memcpy(region->base, data, size);
    LumRegionVerifyDeep(region);
    LumRegionClose(region);
    return 0;
}
