// The checkpoint thread "REGIONCHKPT" and its pass over the registry.
//
// The thread sleeps on region_checkpoint_event for 60 seconds, or until
// LumRegionShutdown signals it, and after each sleep visits every
// registered region once. A visit holds a reference, so the handle outlives
// it, and the region's mutex, so that the region does not go offline under
// it. The registry mutex is not held during a visit.
//
// Lock order: region_registry_mutex, then visit_lock, then the region's
// mutex, then its handle_mutex. visit_lock is taken with the reference,
// inside the registry mutex, and released after the reference is dropped,
// so a host that removed a region from the registry and then takes
// visit_lock knows that no visit of that region is running or can begin.
#include <mutex>

#include "region.h"

namespace {

constexpr uint32_t kSleepMilliseconds = 60000;

std::mutex visit_lock;

void Report(uint32_t id, const char *text) {
    LumLog(LUM_LOG_DEBUG, RegionDebug(), region_catalog, kSetReport, id, "%s", text);
}

// One visit, under the region's mutex so that the region cannot go offline
// during it. Only persistent regions have pages to write, and this build
// creates none, so a visit writes nothing.
void VisitRegion(LumRegion *region) {
    LumMutexLock(region->mutex);
    LumMutexUnlock(region->mutex);
}

} // namespace

void RegionCheckpointPass() {
    LumMutexLock(region_registry_mutex);
    for (LumRegion *region : region_registry) {
        if (region == nullptr)
            continue;
        _LumRegionRef(region);
        visit_lock.lock();
        LumMutexUnlock(region_registry_mutex);
        VisitRegion(region);
        _LumRegionUnref(region);
        visit_lock.unlock();
        LumMutexLock(region_registry_mutex);
    }
    LumMutexUnlock(region_registry_mutex);
}

void RegionAwaitVisit() {
    std::lock_guard<std::mutex> wait(visit_lock);
}

uintptr_t _LumCheckpointThread(uintptr_t word) {
    Report(10, "CHKPT: started");
    for (;;) {
        Report(11, "CHKPT: sleeping ...");
        LumEventTimedWait(region_checkpoint_event, kSleepMilliseconds);
        Report(12, "CHKPT: awake");
        if (LumThreadShouldContinue(word) == 0) {
            Report(13, "CHKPT: told to stop during sleep");
            Report(14, "CHKPT: stopped");
            return 0;
        }
        RegionCheckpointPass();
    }
}
