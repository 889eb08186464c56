// Checkpoints: the thread "REGIONCHKPT", its pass over the registry, and
// _LumRegionCheckpoint, which writes a region's dirty pages to the chk file
// of the next generation while the host goes on writing.
//
// States of checkpoint_state, and who moves them:
//   ACKED    -> RUNNING  _LumRegionCheckpoint starts              (checkpoint)
//   RUNNING  -> DONE     all pages written, next_generation = G+1 (checkpoint)
//   RUNNING  -> ACKED    a write failed: next_generation = G, the
//                        generation it wrote for, while the log is
//                        good, else GenerationAfterFailure        (checkpoint)
//   DONE     -> ACKED    a commit writes LOG_CHECKPOINT, or its log fails:
//                        next_generation = GenerationAfterFailure (commit.cc)
//   DONE     -> ACKED    LumRegionOnline's checkpoint fails: as a failed
//                        acknowledgement                          (commit.cc)
// A failure never moves the generation onto the parity of the protected
// generation (GenerationAfterFailure in durable.h says why).
// Each transition has one writer: the checkpoint leaves ACKED and RUNNING,
// the commit leaves DONE. next_generation is stored before the state with
// release order, and read after the state with acquire order, so whoever
// sees a new state sees the next_generation that goes with it.
//
// The fuzzy write: a checkpoint stops nobody. It clears a page's bit before
// it reads the page, and a write barrier lies between the two, so a change
// after the clear marks the page again for this file's next checkpoint, and
// a change before it is in the page. Pages may hold changes of a transaction
// in flight; the chk file counts only once a later commit acknowledges it,
// when the log holds all those records.
//
// The thread sleeps on region_checkpoint_event for the interval of the
// property Region.CheckpointInterval (60 seconds unless set), or until
// LumRegionShutdown signals it, and then visits every registered region.
// Lock order: region_registry_mutex, then visit_lock, then the region's
// mutex, then its handle_mutex. visit_lock is taken with the reference,
// inside the registry mutex, and released after the reference is dropped,
// so a host that removed a region from the registry and then takes
// visit_lock knows that no visit of that region is running or can begin.
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <mutex>
#include <unistd.h>

#include "durable/durable.h"
#include "platform/platform.h"

#if defined(__SANITIZE_THREAD__)
#define LUM_THREAD_SANITIZER 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define LUM_THREAD_SANITIZER 1
#endif
#endif
#ifdef LUM_THREAD_SANITIZER
extern "C" void AnnotateIgnoreReadsBegin(const char *file, int line);
extern "C" void AnnotateIgnoreReadsEnd(const char *file, int line);
#endif

namespace {

// The fuzzy read of a page that the writer may be changing is the intended
// race of a checkpoint; under ThreadSanitizer it is declared as such, and
// nothing else is hidden.
struct FuzzyPageRead {
#ifdef LUM_THREAD_SANITIZER
    FuzzyPageRead() {
        AnnotateIgnoreReadsBegin(__FILE__, __LINE__);
    }
    ~FuzzyPageRead() {
        AnnotateIgnoreReadsEnd(__FILE__, __LINE__);
    }
#endif
};

std::mutex visit_lock;

void Report(uint32_t id, const char *text) {
    LumLog(LUM_LOG_DEBUG, RegionDebug(), region_catalog, kSetReport, id, "%s", text);
}

// The marks of one window of pages [first, end), taken from a map at once,
// so that one write barrier serves them all (dirty_map.cc says why it is
// needed). 64 words: 8 MiB of 4 KiB pages.
struct Window {
    static constexpr uint32_t kWords = 64;
    static constexpr uint32_t kPages = kWords * kPagesPerMapWord;
    uint32_t first; // a multiple of kPagesPerMapWord
    uint32_t end;
    uint32_t marks[kWords];

    bool Marked(uint32_t page) const {
        uint32_t index = page - first;
        return (marks[index / kPagesPerMapWord] >> (index % kPagesPerMapWord) & 1) != 0;
    }
};

// Clears the window's marks in the map and keeps them. True when any was set.
bool TakeMarks(DirtyMap *map, Window *window) {
    bool any = false;
    for (uint32_t i = 0; window->first + i * kPagesPerMapWord < window->end; ++i) {
        uint32_t from = window->first + i * kPagesPerMapWord;
        uint32_t count = std::min(kPagesPerMapWord, window->end - from);
        uint32_t bits = count == kPagesPerMapWord ? ~0u : (1u << count) - 1;
        window->marks[i] = _LumDirtyMapTake(map, from / kPagesPerMapWord, bits);
        any = any || window->marks[i] != 0;
    }
    return any;
}

// Marks again the pages from `page` on that the window took and did not write.
void GiveBackMarks(DirtyMap *map, const Window &window, uint32_t page) {
    for (; page < window.end; ++page) {
        if (window.Marked(page))
            _LumDirtyMapSet(map, page);
    }
}

// Writes pages [first, end) of the image to the chk file in one call: the
// image and the file share their offsets, so neighbouring pages are one
// stretch of both. The first 32 bytes of page 0 are the file's header and
// are not written over. True when all went; else errno and *written (what
// _LumPwrite returned) say why.
bool WritePages(LumRegion *region, int fd, uint32_t first, uint32_t end, ssize_t *written) {
    [[maybe_unused]] FuzzyPageRead fuzzy;
    uint64_t from = first == 0 ? file_header::kSize : uint64_t{first} * region_page_size;
    uint64_t to = uint64_t{end} * region_page_size;
    errno = 0;
    *written = _LumPwrite(fd, region->base + from, static_cast<uint32_t>(to - from),
                          static_cast<int64_t>(from));
    return *written == static_cast<ssize_t>(to - from);
}

// Writes a run of marked pages and returns the first page not written: `end`
// when all were. A write fails with EFAULT when a page of the run vanished
// (the image shrank under the checkpoint); the run then goes again page by
// page, to find where the image now ends.
uint32_t WriteRun(LumRegion *region, int fd, uint32_t first, uint32_t end, ssize_t *written) {
    if (WritePages(region, fd, first, end, written))
        return end;
    if (errno != EFAULT)
        return first;
    uint32_t page = first;
    while (page < end && WritePages(region, fd, page, page + 1, written))
        ++page;
    return page;
}

// Writes the window's marked pages, a run of neighbours at a time. When the
// image turns out to end inside the window, *pages becomes the new end.
// False on a failed write.
bool WriteWindow(LumRegion *region, int fd, DirtyMap *map, const Window &window, uint32_t *pages) {
    uint32_t page = window.first;
    while (page < window.end) {
        if (!window.Marked(page)) {
            ++page;
            continue;
        }
        uint32_t end = page + 1;
        while (end < window.end && window.Marked(end))
            ++end;
        ssize_t written = 0;
        uint32_t stopped = WriteRun(region, fd, page, end, &written);
        if (stopped < end) {
            int error = errno;
            GiveBackMarks(map, window, stopped);
            if (error == EFAULT && stopped > 0) {
                *pages = stopped; // the image shrank under the checkpoint: it ends here
                return true;
            }
            LumLog(LUM_LOG_DEBUG, RegionDebug(), region_catalog, kSetReport, 7,
                   "_LumRegionCheckpoint(): write failed: written %d, pagesize %u, errno %d (%s)",
                   static_cast<int>(written), region_page_size, error, strerror(error));
            return false;
        }
        page = end;
    }
    return true;
}

// Writes every marked page below `used`, window by window, and cuts the
// file where the image ends. False on a failed barrier, write or truncate
// (after reporting it); the marks of pages not written stay.
bool WriteDirtyPages(LumRegion *region, int parity) {
    DirtyMap *map = region->dirty_map[parity];
    int fd = region->chk_fd[parity];
    uint32_t pages = region->used.load(std::memory_order_relaxed) / region_page_size;
    for (uint32_t first = 0; first < pages; first += Window::kPages) {
        Window window{first, std::min(pages, first + Window::kPages), {}};
        if (!TakeMarks(map, &window))
            continue;
        if (region_write_barrier != 0) {
            if (int error = lum_platform.flush_write_buffers(); error != 0) {
                GiveBackMarks(map, window, first);
                LumLog(LUM_LOG_DEBUG, RegionDebug(), region_catalog, kSetReport, 30,
                       "_LumRegionCheckpoint(): write barrier failed: %s", strerror(error));
                return false;
            }
        }
        if (!WriteWindow(region, fd, map, window, &pages))
            return false;
    }
    if (lum_platform.ftruncate(fd, static_cast<off_t>(pages) * region_page_size) != 0) {
        LumLog(LUM_LOG_DEBUG, RegionDebug(), region_catalog, kSetReport, 8,
               "_LumRegionCheckpoint(): couldn't truncate after chkpting: ftruncate(): %s",
               strerror(errno));
        return false;
    }
    return true;
}

// With Region.SyncCommit on, forces the chk file to disk before the commit
// that acknowledges it: recovery may start from it once acknowledged.
bool ForcedWhenAsked(int fd) {
    if (region_sync_commit != 1 || lum_platform.fdatasync(fd) == 0)
        return true;
    LumLog(LUM_LOG_FAILURE, 1, region_catalog, kSetReport, 32,
           "_LumRegionCheckpoint(): failed to force the chk file to disk: %s", strerror(errno));
    return false;
}

// One visit, under the region's mutex so that the region cannot go offline
// during it.
void VisitRegion(LumRegion *region) {
    LumMutexLock(region->mutex);
    if (region->online.load(std::memory_order_relaxed) != 0 &&
        region->checkpointing.load(std::memory_order_relaxed) != 0 && IsPersistent(region))
        _LumRegionCheckpoint(region);
    LumMutexUnlock(region->mutex);
}

} // namespace

int32_t _LumRegionCheckpoint(LumRegion *region) {
    LumLog(LUM_LOG_DEBUG, RegionDebug(), region_catalog, kSetReport, 2,
           "_LumRegionCheckpoint(): starting region %s", region->name);
    if (region->checkpoint_state.load(std::memory_order_acquire) != CHECKPOINT_ACKED) {
        Report(3, "_LumRegionCheckpoint(): last checkpoint not yet acknowledged");
        return LUM_RC_FAILURE;
    }
    region->checkpoint_state.store(CHECKPOINT_RUNNING, std::memory_order_relaxed);

    // The switch: from this store on, flushes go to the new generation's log.
    uint32_t old_generation = region->generation.load(std::memory_order_relaxed);
    uint32_t generation = region->next_generation.load(std::memory_order_relaxed);
    if (generation != old_generation)
        region->generation.store(generation, std::memory_order_release);
    int parity = generation % 2;

    bool written = true;
    if (_LumFileHeaderWriteStamped(region->chk_fd[parity], generation, RegionNextTimestamp(region),
                                   0) != 0) {
        Report(6, "_LumRegionCheckpoint(): failed to write file header");
        written = false;
    } else {
        written = WriteDirtyPages(region, parity) && ForcedWhenAsked(region->chk_fd[parity]);
    }

    if (!written) {
        // While the log is good, the retry stays in this generation and
        // rewrites its chk file in place: that file is no acknowledged one,
        // and the log of this generation holds every commit since the switch,
        // which moving on would zap. A failed log has to move on.
        bool in_place = region->log_failed.load(std::memory_order_relaxed) == 0;
        uint32_t retry = in_place ? generation : GenerationAfterFailure(region);
        region->next_generation.store(retry, std::memory_order_relaxed);
        region->checkpoint_state.store(CHECKPOINT_ACKED, std::memory_order_release);
        return LUM_RC_FAILURE;
    }
    region->next_generation.store(generation + 1, std::memory_order_relaxed);
    region->checkpoint_state.store(CHECKPOINT_DONE, std::memory_order_release);
    LumLog(LUM_LOG_DEBUG, RegionDebug(), region_catalog, kSetReport, 9,
           "_LumRegionCheckpoint(): done region %s", region->name);
    return 0;
}

int32_t LumRegionCheckpoint(LumRegion *region) {
    if (region == nullptr || !IsPersistent(region))
        return LUM_RC_FAILURE;
    LumMutexLock(region->mutex);
    int32_t rc = region->online.load(std::memory_order_relaxed) != 0 ? _LumRegionCheckpoint(region)
                                                                     : LUM_RC_FAILURE;
    LumMutexUnlock(region->mutex);
    return rc;
}

void _LumCheckpointPass() {
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
        LumEventTimedWait(region_checkpoint_event,
                          static_cast<uint32_t>(region_checkpoint_interval));
        Report(12, "CHKPT: awake");
        if (LumThreadShouldContinue(word) == 0) {
            Report(13, "CHKPT: told to stop during sleep");
            Report(14, "CHKPT: stopped");
            return 0;
        }
        _LumCheckpointPass();
    }
}
