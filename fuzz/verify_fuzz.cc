// Verification of any image: the input becomes the image of a scratch
// region, and LumRegionVerifyDeep walks it. It gives a code for every
// damage and never reads outside the image or loops.
#include <cstring>

#include "fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    FuzzStart();
    LumRegion *region = RegionHolding(data, size);
    if (region == nullptr)
        return 0;
    LumRegionVerifyDeep(region);
    LumRegionClose(region);
    return 0;
}
