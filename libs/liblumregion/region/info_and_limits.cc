// Small operations on an open region: reading its state and setting its
// limits and switches. They read and write plain words and take no lock.
#include <cstring>

#include "alloc/layout.h"
#include "region/region.h"

void LumRegionGetInfo(LumRegion *region, LumRegionInfo *info) {
    if (region == nullptr || info == nullptr)
        return;
    memcpy(info->name, region->name, sizeof info->name);
    info->type = region->type;
    info->hard_limit = region->hard_limit;
    info->soft_limit = region->soft_limit;
    info->protect = region->protect;
    info->checkpointing = region->checkpointing.load(std::memory_order_relaxed);
    info->base = region->base;
    info->used = region->used;
    info->segment_count = ImageLoad32(region->base + region_header::kSegmentCount);
}

// Sums used_bytes of every segment in segment_map. An entry whose primary
// extent would reach past the image is skipped, so that a damaged map
// cannot make this read outside it.
uint32_t LumRegionGetUsedBytes(LumRegion *region) {
    if (region == nullptr)
        return 0;
    uint32_t total = 0;
    const uint8_t *map = region->base + region_header::kSegmentMap;
    for (uint32_t i = 0; i < region_header::kSegmentSlots; ++i) {
        RegionOffset primary = ImageLoad32(map + 4 * i);
        if (primary == 0 || primary > region->used - primary_extent::kUsedBytes - 4)
            continue;
        total += ImageLoad32(region->base + primary + primary_extent::kUsedBytes);
    }
    return total;
}

int32_t LumRegionSetSoftLimit(LumRegion *region, uint32_t limit) {
    if (region == nullptr)
        return LUM_RC_FAILURE;
    if (limit > region->hard_limit)
        return LUM_RC_SOFT_ABOVE_HARD;
    if (limit < region->used)
        return LUM_RC_SOFT_BELOW_USED;
    region->soft_limit = limit;
    return 0;
}

int32_t LumRegionSetCheckpointing(LumRegion *region, int32_t on) {
    if (region == nullptr || !IsPersistent(region))
        return LUM_RC_FAILURE;
    region->checkpointing.store(on, std::memory_order_relaxed);
    return 0;
}

void LumRegionLockForRead(LumRegion *) {}
void LumRegionLockForWrite(LumRegion *) {}
void LumRegionUnlock(LumRegion *) {}
