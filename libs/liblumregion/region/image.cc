// The image of a region: its reservation, its size and its handle.
//
// The address space of the image is reserved once, up to the hard limit,
// and never moves, so a pointer into the image stays good for the life of
// the handle. Memory is committed inside the reservation in steps of 1 MiB
// as the image grows, and decommitted as it shrinks; `used`, the size the
// allocators see, moves in pages within that.
#include <algorithm>
#include <cstring>
#include <new>

#include "durable/durable.h"
#include "platform/platform.h"
#include "region/region.h"

namespace {

constexpr uint32_t kCommitStep = 0x100000; // 1 MiB

// The largest page multiple that a 32-bit size can hold.
uint32_t LastPageEnd() {
    return ~(region_page_size - 1);
}

// Frees what exists of a handle's mutexes and durability records.
void DestroyParts(LumRegion *region) {
    if (region->mutex)
        LumMutexDestroy(region->mutex);
    if (region->handle_mutex)
        LumMutexDestroy(region->handle_mutex);
    for (DirtyMap *map : region->dirty_map)
        lum_free(map);
    if (region->log_buffer)
        _LumLogBufferDestroy(region->log_buffer);
}

// The log buffer's record limit: the chunk that holds an allocation of
// `largest_record` bytes, which may be logged whole, and at least 16.
uint32_t LogRequest(uint32_t largest_record) {
    uint64_t chunk = (static_cast<uint64_t>(largest_record) + 15) & ~uint64_t{7};
    return static_cast<uint32_t>(std::clamp<uint64_t>(chunk, 16, UINT32_MAX));
}

// A persistent region's two dirty maps and log buffer; false when any of
// them cannot be had (all three are tried).
bool CreateDurability(LumRegion *region, uint32_t hard_limit, uint32_t largest_record) {
    region->dirty_map[0] = _LumDirtyMapCreate(hard_limit);
    region->dirty_map[1] = _LumDirtyMapCreate(hard_limit);
    region->log_buffer = _LumLogBufferCreate(LogRequest(largest_record));
    return region->dirty_map[0] && region->dirty_map[1] && region->log_buffer;
}

// Undoes a partly built handle: what exists of its parts, then the record.
int32_t AbandonHandle(LumRegion *region, int32_t rc, LumRegion **out) {
    DestroyParts(region);
    lum_free(region);
    *out = nullptr;
    return rc;
}

// Commits [committed, target) or decommits [target, committed). A failed
// commit changes nothing; a failed decommit is reported and ignored, so
// `committed` then claims less than is really there, which a later commit
// of the same range survives.
int32_t MoveCommitted(LumRegion *region, uint64_t target) {
    if (target > region->committed) {
        if (target > region->hard_limit)
            return LUM_RC_EXTEND; // beyond the reservation
        if (lum_platform.commit(region->base + region->committed, target - region->committed) != 0)
            return LUM_RC_EXTEND;
        // Memory behind the new pages at once, so that neither the logged
        // writes nor a restore or replay take a fault per page.
        lum_platform.populate(region->base + region->committed, target - region->committed);
    } else if (target < region->committed) {
        if (lum_platform.decommit(region->base + target, region->committed - target) != 0)
            LumLog(LUM_LOG_ERROR, 1, region_catalog, kSetError, 1, "VF error %p %u %u",
                   static_cast<void *>(region->base), region->committed,
                   static_cast<uint32_t>(target));
    }
    region->committed = static_cast<uint32_t>(target);
    return 0;
}

} // namespace

int32_t _LumImageCreate(const char *name, int32_t type, uint32_t hard_limit, uint32_t soft_limit,
                        uint32_t largest_record, int32_t protect, const char *directory,
                        LumRegion **out) {
    // A hard limit of 0, or one that rounds past 4 GiB, leaves nothing to
    // reserve: refused before anything is made. A soft limit that rounds
    // past 4 GiB is the last page a size can reach.
    uint64_t reserved = RoundUpTo(hard_limit, kCommitStep);
    if (reserved == 0 || reserved > UINT32_MAX) {
        *out = nullptr;
        return LUM_RC_RESERVE;
    }
    hard_limit = static_cast<uint32_t>(reserved);
    soft_limit = static_cast<uint32_t>(std::min<uint64_t>(PageRoundUp(soft_limit), LastPageEnd()));

    void *memory = lum_malloc(sizeof(LumRegion));
    if (memory == nullptr) {
        *out = nullptr;
        return LUM_RC_NO_MEMORY;
    }
    auto *region = new (memory) LumRegion{}; // all fields zero; offline
    for (int parity = 0; parity < 2; ++parity) {
        region->chk_fd[parity] = -1;
        region->log_fd[parity] = -1;
    }
    if (LumMutexCreate("RegionAnon", &region->mutex) != 0)
        return AbandonHandle(region, LUM_RC_NO_MEMORY, out);
    if (type == LUM_REGION_PERSISTENT && !CreateDurability(region, hard_limit, largest_record))
        return AbandonHandle(region, LUM_RC_NO_MEMORY, out);
    if (LumMutexCreate("RegionHandle", &region->handle_mutex) != 0)
        return AbandonHandle(region, LUM_RC_NO_MEMORY, out);
    region->base = static_cast<uint8_t *>(lum_platform.reserve(hard_limit));
    if (region->base == nullptr)
        return AbandonHandle(region, LUM_RC_RESERVE, out);

    strcpy(region->name, name);
    strcpy(region->directory, directory ? directory : "");
    region->type = type;
    region->hard_limit = hard_limit;
    region->soft_limit = soft_limit;
    region->protect = protect;
    *out = region;
    return 0;
}

void _LumImageDestroy(LumRegion *region) {
    lum_platform.decommit(region->base, region->hard_limit);
    lum_platform.release(region->base, region->hard_limit);
    DestroyParts(region);
    lum_free(region);
}

int32_t _LumImageSetSize(LumRegion *region, uint32_t size) {
    uint64_t new_used = PageRoundUp(size);
    if (new_used > region->soft_limit) {
        LumLog(LUM_LOG_FAILURE, 1, region_catalog, kSetReport, 29,
               "Soft limit exceeded for region : %s", region->name);
        return LUM_RC_SOFT_LIMIT;
    }
    // new_used <= soft_limit < 4 GiB, and the hard limit bounds the commit.
    uint64_t target = RoundUpTo(new_used, kCommitStep);
    if (int32_t rc = MoveCommitted(region, target); rc != 0)
        return rc;
    region->used.store(static_cast<uint32_t>(new_used), std::memory_order_relaxed);
    _LumLogBufferAppend(region, LOG_SIZE, static_cast<uint32_t>(new_used), 0);
    return 0;
}
