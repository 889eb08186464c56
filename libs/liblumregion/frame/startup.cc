// Starting and stopping the library, the library-wide state, and the table
// of the library's result codes.
//
// States of one process: loaded (by the load hook), started (by the first
// successful LumRegionStartup), stopped (by LumRegionShutdown). A start
// after a success or after a stop returns 0 and does nothing.
//
// A failed start leaves the library loaded and may be retried as often as
// the host likes: it undoes the registry mutex and the event it made. The
// locale and the catalogue cannot be undone (the runtime keeps them for the
// life of the process), so they are made once and every later attempt
// reuses them. Registering the result codes again replaces them with the
// same texts.
#include <bit>
#include <cstring>
#include <iterator>

#include "durable/durable.h"
#include "frame/frame.h"
#include "platform/platform.h"

int32_t region_started;
LumCatalog *region_catalog;
uint32_t region_page_size;
uint32_t region_page_shift;
int32_t region_protect_all;
int32_t region_write_barrier;
int32_t region_mutation_check;
int32_t region_verify_on_recovery;
int32_t region_sync_commit;
int32_t region_checkpoint_interval;
LumRegion *region_registry[kRegistrySlots];
LumMutex *region_registry_mutex;
LumEvent *region_checkpoint_event;
LumThread *region_checkpoint_thread;
char region_home[kPathBufferSize + 1];

namespace {

LumLocale *region_locale; // made by the first attempt that got this far

// Catalogue set 1 holds the texts of these codes, ids 1 to 27 in this order.
// -492 has no row: it reaches hosts as a bare number.
const LumRCEntry kResultCodes[] = {
    {-401, 1, 1, "Failed to reserve swap space for region"},
    {-402, 1, 2, "Region soft limit exceeded"},
    {-403, 1, 3, "Failed to extend region"},
    {-404, 1, 4, "Failed to shrink region"},
    {-405, 1, 5, "Invalid allocator type requested"},
    {-406, 1, 6, "Maximum segments for region reached"},
    {-407, 1, 7, "Maximum size of segment reached"},
    {-408, 1, 8, "Tried to free a free object"},
    {-409, 1, 9, "Tried to increase soft limit beyond hard limit"},
    {-410, 1, 10, "Tried to decrease soft limit to less than current size of region"},
    {-411, 1, 11, "Invalid data files"},
    {-412, 1, 12, "Path is invalid"},
    {-413, 1, 13, "Segment(s) remain in region"},
    {-499, 1, 14, "Invalid primary extent size"},
    {-498, 1, 15, "Invalid secondary extent size"},
    {-497, 1, 16, "Segment map index exceeded"},
    {-496, 1, 17, "Segment map offset invalid"},
    {-495, 1, 18, "Segment map offset/primary extent offset mismatch"},
    {-494, 1, 19, "Free extent"},
    {-493, 1, 20, "Invalid extent kind"},
    {-491, 1, 21, "Invalid chunk"},
    {-490, 1, 22, "Extent statistics mismatch"},
    {-489, 1, 23, "Segment count mismatch"},
    {-488, 1, 24, "Boundary tag mismatch"},
    {-487, 1, 25, "Free list ring broken"},
    {-486, 1, 26, "Free block outside its bin"},
    {-414, 1, 27, "Region is in use"},
};
static_assert(sizeof kResultCodes / sizeof kResultCodes[0] == 27);

// Keeps the data directory with exactly one trailing separator added when
// it has none; separators already there stay as they are.
void KeepHome(const char *home) {
    size_t length = strlen(home);
    memcpy(region_home, home, length + 1);
    if (length == 0 || home[length - 1] != kPathSeparator) {
        region_home[length] = kPathSeparator;
        region_home[length + 1] = '\0';
    }
}

// The locale and the library's catalogue, once per process. A catalogue
// that cannot be opened is no failure: every text then is its default.
int32_t OpenCatalogue() {
    if (region_locale == nullptr) {
        LumLocale *locale = nullptr;
        if (int32_t rc = LumI18nLocaleCreate(0, 0, 0, 0, &locale); rc != 0)
            return rc;
        region_locale = locale;
    }
    if (region_catalog == nullptr)
        LumI18nCatalogOpen(region_locale, "liblumregion", &region_catalog);
    return 0;
}

void DestroyRegistryMutex() {
    LumMutexDestroy(region_registry_mutex);
    region_registry_mutex = nullptr;
}

// Creates the registry mutex, the event and the thread. A failure undoes
// what this call made, so nothing of it is left for a retry to lose.
int32_t StartCheckpointing() {
    if (int32_t rc = LumMutexCreate("RegionOpen", &region_registry_mutex); rc != 0)
        return rc;
    if (int32_t rc = LumEventCreate(&region_checkpoint_event); rc != 0) {
        DestroyRegistryMutex();
        return rc;
    }
    if (int32_t rc =
            LumThreadSpawn("REGIONCHKPT", _LumCheckpointThread, 0, 0, &region_checkpoint_thread);
        rc != 0) {
        LumEventDestroy(region_checkpoint_event);
        region_checkpoint_event = nullptr;
        DestroyRegistryMutex();
        return rc;
    }
    return 0;
}

} // namespace

int32_t LumRegionStartup(LumPropMgr *properties, const char *home) {
    if (region_started != 0)
        return 0;
    if (home == nullptr || strlen(home) >= kPathBufferSize)
        return LUM_RC_FAILURE;

    if (int32_t rc = OpenCatalogue(); rc != 0)
        return rc;
    if (int32_t rc = LumRCRegister(region_catalog, std::size(kResultCodes), kResultCodes); rc != 0)
        return rc;
    region_page_size = lum_platform.page_size();
    region_page_shift = static_cast<uint32_t>(std::countr_zero(region_page_size));
    region_write_barrier = lum_platform.flush_write_buffers() == 0 ? 1 : 0;
    RegionReadProperties(properties);
    for (LumRegion *&slot : region_registry)
        slot = nullptr;

    int32_t rc = StartCheckpointing();
    if (rc == 0)
        KeepHome(home);
    region_started = rc == 0 ? 1 : 0;
    return rc;
}

int32_t LumRegionShutdown() {
    if (region_started == 0 || region_registry_mutex == nullptr)
        return 0;
    LumThreadScheduleStop(region_checkpoint_thread);
    LumEventSignal(region_checkpoint_event);
    // The thread takes the registry mutex in its pass; it must be gone
    // before the mutex is.
    LumThreadJoin(region_checkpoint_thread);
    region_checkpoint_thread = nullptr;
    DestroyRegistryMutex();
    return 0;
}
