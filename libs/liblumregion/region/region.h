// The region handle and the operations on it: the image (reservation, size,
// protection), the life of a handle (creation, references, close, drop) and
// the registry that the checkpoint thread walks.
//
// Invariants of a handle, kept by image.cc:
//   1. base never moves between _LumImageCreate and _LumImageDestroy.
//   2. used <= committed <= hard_limit; after each successful size change
//      committed is used rounded up to 1 MiB, and used <= soft_limit.
//   3. hard_limit is a multiple of 1 MiB, used a multiple of the page size.
// Invariants of references, kept by lifecycle.cc:
//   4. A handle in region_registry holds the host's reference, so the
//      checkpoint thread may take one more under the registry mutex.
//   5. Whoever drops the last reference closes the files, deletes what must
//      go and frees the handle.
#pragma once

#include <atomic>
#include <cstdint>

#include "frame/frame.h"

struct LogBuffer;
struct DirtyMap;

// Where a checkpoint stands with respect to the commit that acknowledges it.
enum CheckpointState : uint32_t {
    CHECKPOINT_RUNNING = 0,
    CHECKPOINT_DONE = 1,
    CHECKPOINT_ACKED = 2,
};

// A volatile summary of which bins of one BinArray may hold items, so that
// a search skips empty bins without reading their sentinels. A set bit may
// stand for an empty bin (the search clears it); a clear bit always means
// empty. Whoever rewrites an image's bins other than through the bin
// operations (a restore from files) must forget the summaries.
struct BinSummary {
    uint64_t maybe_filled[2];
    bool known; // false: not built yet, every bin may hold items
};

// Summaries of extent_bins (slot 128) and of the chunk_bins of each segment
// id (slots 0 to 127).
inline constexpr uint32_t kBinSummarySlots = 129;

// The allocations of a region that protects its pages which LumMemAlloc has
// handed out and no LumMemLog, LumMemNoLog or LumMemFree has finished yet.
// The host fills them with plain stores, so every page one of them touches
// stays writable: the protect step leaves such pages alone. Kept by
// protect.cc, used by the writer's thread alone.
//
// The set is bounded. An allocation that finds it full sets `overflowed`,
// and from then on the region's pages are no longer made read-only (an
// allocation the set does not hold must not be closed under the host).
inline constexpr uint32_t kOpenChunkSlots = LUM_REGION_OPEN_ALLOCATIONS;
struct OpenChunk {
    uint8_t *chunk;  // the head tag
    uintptr_t first; // the first page the chunk touches
    uintptr_t end;   // the page behind the last one it touches
};
struct OpenChunks {
    OpenChunk slots[kOpenChunkSlots];
    uint32_t count;
    bool overflowed;
};

// The volatile record of an open region. The handle is a pointer to it, and
// `name` comes first so that the handle serves as the region's name in log
// messages. Allocated with lum_malloc and value-initialised (all zero).
//
// Words that the host's thread and the checkpoint thread share are atomics.
struct LumRegion {
    char name[kNameBufferSize];
    std::atomic<int32_t> online;        // 0: nothing is logged, no checkpoint visits
    char directory[kPathBufferSize];    // ends in its separator; empty if volatile
    int32_t type;                       // LUM_REGION_PERSISTENT or a volatile type
    uint8_t *base;                      // start of the reservation and of the image
    std::atomic<uint32_t> used;         // bytes of the image in use, page multiple; the
                                        // checkpoint thread reads it while the writer moves it
    uint32_t committed;                 // bytes committed from base, 1 MiB multiple
    uint32_t hard_limit;                // bytes reserved, 1 MiB multiple, fixed
    uint32_t soft_limit;                // the most that used may reach
    int32_t protect;                    // pages read-only between logged writes
    DirtyMap *dirty_map[2];             // by generation parity; null if volatile
    LogBuffer *log_buffer;              // null if volatile
    LumMutex *mutex;                    // "RegionAnon": checkpoint, offline, online
    std::atomic<int32_t> checkpointing; // the checkpoint thread may visit
    std::atomic<uint32_t> generation;
    std::atomic<uint32_t> next_generation;
    std::atomic<uint32_t> flushed_generation;
    std::atomic<uint32_t> log_failed;
    std::atomic<uint32_t> protected_generation; // see GenerationAfterFailure (durable.h)
    bool log_follows_gap;                       // the next log restart marks a gap; writer only
    std::atomic<bool> log_failing;              // a log failed since the last acknowledgement
    std::atomic<uint32_t> log_failed_since;     // the generation of that first failure
    int32_t sync_failed;                        // the last sync failed: working files stay at close
    std::atomic<int32_t> last_timestamp; // the newest header timestamp of this region's files
    std::atomic<uint32_t> checkpoint_state;
    int chk_fd[2];                            // "_0.chk", "_1.chk"; -1 for none
    int log_fd[2];                            // "_0.log", "_1.log"; -1 for none
    uint32_t ref_count;                       // guarded by handle_mutex
    int32_t drop_requested;                   // the .tab file goes too at the last reference
    LumMutex *handle_mutex;                   // "RegionHandle": guards ref_count
    BinSummary bin_summary[kBinSummarySlots]; // owned by bins.cc
    OpenChunks open_chunks;                   // owned by protect.cc
    bool protect_failure_reported;            // a failed protection change was logged
};

// The volatile handle of a segment: its region and its primary extent. The
// logged writes take one and use its region.
struct LumSegment {
    LumRegion *region;
    uint8_t *primary;
};

inline bool IsPersistent(const LumRegion *region) {
    return region->type == LUM_REGION_PERSISTENT;
}

// image.cc ----------------------------------------------------------------

// Builds a handle with its mutexes, its durability records (persistent
// type) and the reservation of hard_limit (rounded up to 1 MiB) bytes. The
// handle is offline, unreferenced, with nothing committed. Every failure
// undoes what was done and sets *region to null.
// Returns 0, 12 or -401.
int32_t _LumImageCreate(const char *name, int32_t type, uint32_t hard_limit, uint32_t soft_limit,
                        uint32_t largest_record, int32_t protect, const char *directory,
                        LumRegion **region);

// Gives back the memory, the mutexes, the durability records and the handle.
void _LumImageDestroy(LumRegion *region);

// Moves the end of the image to `size` rounded up to a page, committing or
// decommitting in 1 MiB steps, and logs the new size.
// Returns 0, -402 (above the soft limit) or -403 (commit failed).
int32_t _LumImageSetSize(LumRegion *region, uint32_t size);

// protect.cc ------------------------------------------------------------

// Makes every page that [address, address + length) touches writable
// (writable != 0), or read-only except the pages of open allocations (see
// OpenChunks). Called only for a region that protects. A failed change is
// logged, once per region, and otherwise ignored.
LUM_SLOW_PATH void _LumPageAccessSet(LumRegion *region, void *address, uint32_t length,
                                     int32_t writable);

// Make every page that [address, address + length) touches writable or
// read-only, when the region or Region.ProtectAll asks for protection. The
// calls do not nest, with one exception: a page that an open allocation
// touches stays writable. Inline: every write of the allocator passes here,
// and most regions do not protect.
inline bool ProtectsPages(const LumRegion *region) {
    return (region->protect | region_protect_all) != 0;
}
inline void _LumPageUnprotect(LumRegion *region, void *address, uint32_t length) {
    if (ProtectsPages(region))
        _LumPageAccessSet(region, address, length, 1);
}
inline void _LumPageProtect(LumRegion *region, void *address, uint32_t length) {
    if (ProtectsPages(region))
        _LumPageAccessSet(region, address, length, 0);
}

// Opens the new allocation whose chunk of `size` bytes starts at `chunk`:
// its pages stay writable until _LumOpenChunkEnd. REQUIRES: the region
// protects its pages, and the chunk's pages are writable now.
LUM_SLOW_PATH void _LumOpenChunkAdd(LumRegion *region, uint8_t *chunk, uint32_t size);

// Ends the open allocation at `chunk`, if there is one; its pages are left
// as they are. REQUIRES: the region protects its pages.
LUM_SLOW_PATH void _LumOpenChunkEnd(LumRegion *region, uint8_t *chunk);

// Ends the allocation at `chunk` and protects its pages (LumMemLog and
// LumMemNoLog), those that another open allocation touches excepted.
inline void _LumOpenChunkProtect(LumRegion *region, uint8_t *chunk, uint32_t size) {
    if (ProtectsPages(region)) {
        _LumOpenChunkEnd(region, chunk);
        _LumPageAccessSet(region, chunk, size, 0);
    }
}

// create.cc -------------------------------------------------------------

// The checks of a new or reopened region's arguments: a started library, a
// known type, a name that can name files, and for a persistent region a
// directory that is not relative to '.' and fits a path with the name.
bool RegionArgumentsAcceptable(const char *name, int32_t type, const char *directory);

// Builds a region ready for use: the handle and image, the lock and the
// working files of a persistent region, and an initialised region header.
// Not registered and unreferenced. On failure *region is null and nothing
// is left behind, except an "_0.chk" made for a lock that was refused
// (LUM_RC_IN_USE).
int32_t _LumRegionNew(const char *name, int32_t type, uint32_t hard_limit, uint32_t soft_limit,
                      uint32_t largest_record, int32_t protect, const char *directory,
                      LumRegion **region);

// lifecycle.cc ---------------------------------------------------------

void _LumRegionRef(LumRegion *region);
// Drops one reference; the last one closes and deletes the region's files
// as its state asks and frees the handle. The handle may be gone afterwards.
void _LumRegionUnref(LumRegion *region);
// Enters the handle in the first free registry slot; a full registry
// leaves it out, silently.
void _LumRegistryAdd(LumRegion *region);
// Clears the slot that holds the handle, if any. Always 0.
int32_t _LumRegistryRemove(LumRegion *region);
// The registered region whose reservation holds `address`, or null. The
// answer stays good while the host keeps that region open; a thread asks
// the registry's mutex only when the registry changed or the address lies
// in another region than its last answer.
LumRegion *_LumRegionHolding(const void *address);
// Closes every open descriptor of a persistent region; fields keep their values.
void _LumRegionCloseFiles(LumRegion *region);
// Unlinks the working files (unless the last sync failed) and, if
// `with_tab`, the .tab file of a persistent region.
void _LumRegionDeleteFiles(LumRegion *region, int32_t with_tab);

// paths.cc ----------------------------------------------------------------

// True when `name` can name files inside a directory (it is not empty,
// "." or "..", and holds no path separator), and `name` and `directory`
// (may be null) fit the handle's fields and, joined with the longest file
// suffix, a path buffer.
bool RegionNameAndDirectoryFit(const char *name, const char *directory);

// Builds directory + name + suffix into `path` (kPathBufferSize bytes).
void RegionFilePath(char *path, const char *directory, const char *name, const char *suffix);

// Creates (truncating) directory + name + suffix, write-only, owner read
// and write, into *fd. 0 when the descriptor is above 0, else -1.
int32_t _LumRegionFileCreate(const char *name, const char *directory, const char *suffix, int *fd);
