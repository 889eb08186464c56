// The life of a handle after creation: references, the registry of open
// regions, and the two ends of a region, close and drop.
//
// Life of a handle:
//   being built  _LumImageCreate             refs 0  not registered
//   open         Ref + RegistryAdd           refs 1  registered
//   visited      the checkpoint thread's Ref refs 2  registered
//   closing      RegistryRemove              refs 1-2 not registered
//   gone         the Unref that finds 0
// Locks: region_registry_mutex may be held while a handle_mutex is taken,
// never the other way round; _LumRegionUnref runs outside the registry mutex.
#include <atomic>

#include "durable/durable.h"
#include "platform/platform.h"
#include "region/region.h"

// Counts the registry's changes, so that a thread may keep its last answer
// of _LumRegionHolding for as long as no handle came or went.
static std::atomic<uint64_t> registry_changes{1};

void _LumRegionRef(LumRegion *region) {
    LumMutexLock(region->handle_mutex);
    ++region->ref_count;
    LumMutexUnlock(region->handle_mutex);
}

void _LumRegionUnref(LumRegion *region) {
    LumMutexLock(region->handle_mutex);
    if (--region->ref_count > 0) {
        LumMutexUnlock(region->handle_mutex);
        return;
    }
    // The last holder: handle_mutex is destroyed held, with the handle. The
    // files go before the descriptors, and with them the region's lock, so
    // that no other user can lock and open them in between.
    _LumRegionDeleteFiles(region, region->drop_requested);
    _LumRegionCloseFiles(region);
    _LumImageDestroy(region);
}

// Puts `to` into the first registry slot that holds `from`; a registry
// without such a slot stays as it is.
static void ReplaceRegistrySlot(const LumRegion *from, LumRegion *to) {
    LumMutexLock(region_registry_mutex);
    for (LumRegion *&slot : region_registry) {
        if (slot == from) {
            slot = to;
            registry_changes.fetch_add(1, std::memory_order_release);
            break;
        }
    }
    LumMutexUnlock(region_registry_mutex);
}

static LumRegion *RegistryLookup(const uint8_t *address) {
    LumRegion *found = nullptr;
    LumMutexLock(region_registry_mutex);
    for (LumRegion *region : region_registry) {
        if (region != nullptr && address >= region->base &&
            address < region->base + region->hard_limit) {
            found = region;
            break;
        }
    }
    LumMutexUnlock(region_registry_mutex);
    return found;
}

LumRegion *_LumRegionHolding(const void *address) {
    struct Answer {
        uint64_t changes;
        LumRegion *region;
    };
    thread_local Answer last{0, nullptr};
    const auto *at = static_cast<const uint8_t *>(address);
    uint64_t changes = registry_changes.load(std::memory_order_acquire);
    if (last.changes == changes && last.region != nullptr && at >= last.region->base &&
        at < last.region->base + last.region->hard_limit)
        return last.region;
    LumRegion *region = RegistryLookup(at);
    if (region != nullptr)
        last = {changes, region};
    return region;
}

void _LumRegistryAdd(LumRegion *region) {
    ReplaceRegistrySlot(nullptr, region);
}

int32_t _LumRegistryRemove(LumRegion *region) {
    ReplaceRegistrySlot(region, nullptr);
    return 0;
}

void _LumRegionCloseFiles(LumRegion *region) {
    if (!IsPersistent(region))
        return;
    for (int fd : {region->chk_fd[0], region->log_fd[0], region->chk_fd[1], region->log_fd[1]}) {
        if (fd != -1)
            lum_platform.close(fd);
    }
}

void _LumRegionDeleteFiles(LumRegion *region, int32_t with_tab) {
    if (!IsPersistent(region))
        return;
    char path[kPathBufferSize];
    if (region->sync_failed == 0) {
        for (const char *suffix : {"_0.chk", "_1.chk", "_0.log", "_1.log"}) {
            RegionFilePath(path, region->directory, region->name, suffix);
            lum_platform.unlink(path);
        }
    }
    if (with_tab) {
        RegionFilePath(path, region->directory, region->name, ".tab");
        lum_platform.unlink(path);
    }
}

// Ends the host's reference. A checkpoint visit that began before the
// region left the registry is waited for, so that the host's reference is
// the last: the handle, and the files that must go, are gone on return.
static void ReleaseHostReference(LumRegion *region, int32_t drop) {
    _LumRegistryRemove(region);
    RegionAwaitVisit();
    region->drop_requested = drop;
    _LumRegionUnref(region);
}

// A persistent region is synced to its own directory first; the working
// files go with the last reference only when that sync succeeded.
int32_t LumRegionClose(LumRegion *region) {
    if (region == nullptr)
        return LUM_RC_FAILURE;
    int32_t rc = IsPersistent(region) ? _LumRegionSync(region, region->directory) : 0;
    ReleaseHostReference(region, 0);
    return rc;
}

int32_t LumRegionDrop(LumRegion *region) {
    if (region == nullptr)
        return LUM_RC_FAILURE;
    if (ImageLoad32(region->base + region_header::kSegmentCount) != 0)
        return LUM_RC_SEGMENTS_REMAIN;
    ReleaseHostReference(region, 1);
    return 0;
}
