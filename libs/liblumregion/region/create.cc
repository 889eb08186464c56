// Creating a region: checking the caller's arguments, building the handle
// and its image, initialising the region header, and making the region
// known to the registry.
#include <cerrno>
#include <fcntl.h>

#include "alloc/layout.h"
#include "durable/write_path.h"
#include "platform/platform.h"
#include "region/region.h"

namespace {

bool IsKnownType(int32_t type) {
    return type == LUM_REGION_PERSISTENT || type == LUM_REGION_VOLATILE ||
           type == LUM_REGION_SCRATCH;
}

// A persistent region needs a directory that is not relative to '.'.
bool DirectoryAcceptable(int32_t type, const char *directory) {
    return type != LUM_REGION_PERSISTENT || (directory != nullptr && directory[0] != '.');
}

// Writes the header of a new image. The reserved words, segment_map and the
// gap up to the first extent are left alone: freshly committed memory reads
// as zero.
void InitialiseRegionHeader(LumRegion *region) {
    uint8_t *base = region->base;
    _LumPageUnprotect(region, base, region_header::kSize);
    ImageStore32(base + region_header::kSegmentCount, 0);
    _LumFreeListInit(region, base + region_header::kExtentBins);
    ImageStore32(base + region_header::kPageSizeWord, region_page_size | 2);
    _LumPageProtect(region, base, region_header::kSize);
    _LumImageMarkDirty(region, base, region_header::kSize);
}

// Opens "_0.chk" without emptying it, created if missing, and takes the
// region's lock on it: one user of a region at a time. The descriptor is
// chk_fd[0] and holds the lock for the life of the handle. On failure no
// descriptor is kept and no existing file has changed: -1 when the file
// cannot be opened, LUM_RC_IN_USE when another user holds the lock, -19
// when it cannot be taken.
int32_t LockRegionFiles(LumRegion *region) {
    char path[kPathBufferSize];
    RegionFilePath(path, region->directory, region->name, "_0.chk");
    int fd = lum_platform.open(path, O_RDWR | O_CREAT, 0600);
    int32_t rc = fd > 0 ? _LumFileLock(fd) : LUM_RC_FILE_CREATE;
    if (rc != 0) {
        if (fd >= 0)
            lum_platform.close(fd);
        return rc;
    }
    region->chk_fd[0] = fd;
    return 0;
}

// Under the region's lock: empties the locked "_0.chk", removes the
// snapshot of an earlier region of the name, creates (emptying) the other
// three working files, and with Region.SyncCommit on forces the directory.
// All steps are tried. An old ".tab" that stays would be taken by recovery
// over the new region's logs, so failing to remove it fails the create.
int32_t CreateWorkingFiles(LumRegion *region) {
    int32_t failed = lum_platform.ftruncate(region->chk_fd[0], 0) == 0 ? 0 : LUM_RC_FILE_CREATE;
    char path[kPathBufferSize];
    for (const char *suffix : {".tab", ".tabnew"}) {
        RegionFilePath(path, region->directory, region->name, suffix);
        if (lum_platform.unlink(path) != 0 && errno != ENOENT) // there may be none
            failed |= LUM_RC_FILE_CREATE;
    }
    failed |= _LumRegionFileCreate(region->name, region->directory, "_1.chk", &region->chk_fd[1]);
    failed |= _LumRegionFileCreate(region->name, region->directory, "_0.log", &region->log_fd[0]);
    failed |= _LumRegionFileCreate(region->name, region->directory, "_1.log", &region->log_fd[1]);
    if (region_sync_commit == 1)
        failed |= _LumDirectoryForce(region->directory) == 0 ? 0 : LUM_RC_FILE_CREATE;
    return failed == 0 ? 0 : LUM_RC_FILE_CREATE;
}

// Undoes a region that failed half-way under its lock: its files (unlinked
// before the lock goes with the descriptors) and its image.
int32_t AbandonRegion(LumRegion *region, int32_t rc, LumRegion **out) {
    _LumRegionDeleteFiles(region, 0);
    _LumRegionCloseFiles(region);
    _LumImageDestroy(region);
    *out = nullptr;
    return rc;
}

} // namespace

int32_t _LumRegionNew(const char *name, int32_t type, uint32_t hard_limit, uint32_t soft_limit,
                      uint32_t largest_record, int32_t protect, const char *directory,
                      LumRegion **out) {
    LumRegion *region;
    int32_t rc = _LumImageCreate(name, type, hard_limit, soft_limit, largest_record, protect,
                                 directory, &region);
    if (rc != 0) {
        *out = nullptr;
        return rc;
    }
    if (IsPersistent(region)) {
        if (rc = LockRegionFiles(region); rc != 0) {
            _LumImageDestroy(region); // no file of the name was changed
            *out = nullptr;
            return rc;
        }
        if (rc = CreateWorkingFiles(region); rc != 0)
            return AbandonRegion(region, rc, out);
        // Both chk files are empty: every page differs from both.
        _LumDirtyMapFill(region, 0, 1);
        _LumDirtyMapFill(region, 1, 1);
    }
    region->checkpointing.store(1, std::memory_order_relaxed);
    region->generation.store(0, std::memory_order_relaxed);
    region->next_generation.store(0, std::memory_order_relaxed);
    region->protected_generation.store(0, std::memory_order_relaxed); // log 0: all history
    region->flushed_generation.store(99, std::memory_order_relaxed);  // differs: first flush zaps
    region->sync_failed = 0;
    region->checkpoint_state.store(CHECKPOINT_ACKED, std::memory_order_relaxed);
    region->online.store(1, std::memory_order_relaxed); // so that the sizing below is logged

    // Nothing is flushed here: the files stay empty until the first flush
    // or checkpoint, and flushed_generation 99 makes that flush start "_0.log".
    if (rc = _LumImageSetSize(region, region_header::kSize); rc != 0)
        return AbandonRegion(region, rc, out);
    InitialiseRegionHeader(region);
    *out = region;
    return 0;
}

bool RegionArgumentsAcceptable(const char *name, int32_t type, const char *directory) {
    if (name == nullptr || !IsKnownType(type))
        return false;
    if (region_started == 0 || region_registry_mutex == nullptr)
        return false;
    if (!DirectoryAcceptable(type, directory))
        return false;
    return RegionNameAndDirectoryFit(name, type == LUM_REGION_PERSISTENT ? directory : nullptr);
}

int32_t LumRegionCreate(const char *name, int32_t type, uint32_t hard_limit, uint32_t soft_limit,
                        uint32_t largest_record, int32_t protect, const char *directory,
                        LumRegion **out_region, void **out_base) {
    if (out_region == nullptr || out_base == nullptr ||
        !RegionArgumentsAcceptable(name, type, directory))
        return LUM_RC_FAILURE;
    if (type != LUM_REGION_PERSISTENT)
        directory = nullptr;
    LumRegion *region;
    int32_t rc = _LumRegionNew(name, type, hard_limit, soft_limit, largest_record, protect,
                               directory, &region);
    if (rc != 0)
        return rc;
    _LumRegionRef(region);
    _LumRegistryAdd(region);
    *out_region = region;
    *out_base = region->base;
    return 0;
}
