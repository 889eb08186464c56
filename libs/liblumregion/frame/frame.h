// Library-wide state and the frame shared by every mechanism: the globals
// that LumRegionStartup fills, the registry of open regions, the message
// sets, and the fixed sizes of names and paths.
//
// All globals are zero at load. After a successful start-up the page size,
// the property values, the catalogue and region_home never change,
// so every thread reads them without a lock. region_debug and
// region_mutation_debug are written by the runtime at any time and read
// with relaxed atomic loads at each log call.
#pragma once

#include <cstddef>
#include <cstdint>

#include "lum_rs.h"
#include "lumregion.h"

// Marks the slow side of a hot path: never inlined into the writer's code,
// kept apart from it, and its calls taken as unlikely.
#define LUM_SLOW_PATH __attribute__((noinline, cold))
// Compiles a hot entry point as one body: every call inside it whose code
// the compiler sees is inlined, down to the bins, the log buffer and the
// dirty maps, so that no call overhead sits between its many small writes.
#define LUM_HOT_PATH __attribute__((flatten))

// The path separator of this system, used wherever a directory must end in one.
inline constexpr char kPathSeparator = '/';

// Paths are built by concatenating a directory (with its separator), a
// region name and a suffix into buffers of this size.
inline constexpr size_t kPathBufferSize = 264;
inline constexpr size_t kNameBufferSize = LUM_REGION_NAME_MAX + 1;
// The longest suffix a region's file gets; name and directory are refused
// when they would not fit a path buffer with it.
inline constexpr char kLongestSuffix[] = ".tabnew";

inline constexpr uint32_t kRegistrySlots = 256;

// Catalogue sets of the library's log messages.
inline constexpr uint32_t kSetReport = 2;      // severities 1, 2 and 4
inline constexpr uint32_t kSetError = 3;       // severities 4 and 5
inline constexpr uint32_t kSetMutation = 4;    // the mutation check's verdicts
inline constexpr uint32_t kSetVerify = 5;      // verification after recovery
inline constexpr uint32_t kSetContainer = 102; // the containers' reports and exceptions

extern int32_t region_started;
extern LumCatalog *region_catalog;
extern int32_t region_debug;
extern int32_t region_mutation_debug;
extern uint32_t region_page_size;
extern uint32_t region_page_shift; // log2 of region_page_size, a power of two
extern int32_t region_protect_all;
// 1 when lum_platform.flush_write_buffers worked at start-up: a writer then
// tests a dirty bit before it pays for setting it (durable/dirty_map.cc).
extern int32_t region_write_barrier;
extern int32_t region_mutation_check;
extern int32_t region_verify_on_recovery;
// 1: a commit forces its log, a checkpoint its chk file, and a new file
// its directory to disk before they count.
extern int32_t region_sync_commit;
// Milliseconds the checkpoint thread sleeps between its passes.
extern int32_t region_checkpoint_interval;
extern LumRegion *region_registry[kRegistrySlots];
extern LumMutex *region_registry_mutex;
extern LumEvent *region_checkpoint_event;
extern LumThread *region_checkpoint_thread;
// The data directory with its trailing separator: room for a region's
// directory field and one separator more.
extern char region_home[kPathBufferSize + 1];

// `value` rounded up to a multiple of `step`, a power of two. Worked out in
// 64 bits, so that a 32-bit size within a step of 4 GiB does not wrap to 0:
// callers compare the result with their limit before they narrow it.
inline uint64_t RoundUpTo(uint64_t value, uint64_t step) {
    return (value + step - 1) & ~(step - 1);
}

// `size` rounded up to whole pages; see RoundUpTo.
inline uint64_t PageRoundUp(uint64_t size) {
    return RoundUpTo(size, region_page_size);
}

// The page that holds `address`.
inline uintptr_t PageStart(uintptr_t address) {
    return address & ~uintptr_t{region_page_size - 1};
}

// The switch of the "region" facility, for severity-1 reports.
inline int32_t RegionDebug() {
    return __atomic_load_n(&region_debug, __ATOMIC_RELAXED);
}

// Sets the property globals from `properties`, in table order; a property
// that cannot be read takes its default.
void RegionReadProperties(const LumPropMgr *properties);

// The library's version string, "liblumregion: <version>".
extern const char region_version[];
