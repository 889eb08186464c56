// Page protection of the image. A region created with `protect`, or every
// region when Region.ProtectAll is on, keeps its pages read-only; each
// writer lifts the protection of the pages it touches, stores, and puts it
// back. The calls act on whole pages and do not nest, with one exception:
// an allocation that LumMemAlloc handed out stays writable until the host
// has filled it and ended it with LumMemLog, LumMemNoLog or LumMemFree, so
// the protect step leaves every page that such an open allocation touches
// as it is. The open allocations stand in the handle (OpenChunks).
#include <algorithm>
#include <cstdint>
#include <cstring>

#include "platform/platform.h"
#include "region/region.h"

namespace {

// One platform call for [start, end). The first failure of a region is
// reported; the protection of the range is then whatever the system left.
void SetAccess(LumRegion *region, uintptr_t start, uintptr_t end, int32_t writable) {
    int rc = lum_platform.protect(reinterpret_cast<void *>(start), end - start, writable);
    if (rc == 0 || region->protect_failure_reported)
        return;
    region->protect_failure_reported = true;
    LumLog(LUM_LOG_ERROR, 1, region_catalog, kSetError, 14,
           "Failed to change the page protection of region %s: %s", region->name, strerror(rc));
}

// Makes the pages of [start, end) read-only, except those that an open
// allocation touches. Each round either steps over the pages of the open
// allocation that holds `at`, or protects the run up to the next one.
void ProtectUntouched(LumRegion *region, uintptr_t start, uintptr_t end) {
    const OpenChunks &open = region->open_chunks;
    uintptr_t at = start;
    while (at < end) {
        uintptr_t run_end = end;
        bool inside = false;
        for (uint32_t i = 0; i < open.count && !inside; ++i) {
            const OpenChunk &chunk = open.slots[i];
            if (chunk.first <= at && at < chunk.end) {
                at = chunk.end;
                inside = true;
            } else if (chunk.first > at) {
                run_end = std::min(run_end, chunk.first);
            }
        }
        if (!inside) {
            SetAccess(region, at, run_end, 0);
            at = run_end;
        }
    }
}

// The pages [*first, *end) that [address, address + length) touches.
void PagesOf(const void *address, uint32_t length, uintptr_t *first, uintptr_t *end) {
    uintptr_t at = reinterpret_cast<uintptr_t>(address);
    *first = PageStart(at);
    *end = *first + PageRoundUp(at - *first + length);
}

} // namespace

void _LumPageAccessSet(LumRegion *region, void *address, uint32_t length, int32_t writable) {
    uintptr_t first, end;
    PagesOf(address, length, &first, &end);
    if (writable)
        SetAccess(region, first, end, 1);
    else if (!region->open_chunks.overflowed)
        ProtectUntouched(region, first, end);
}

void _LumOpenChunkAdd(LumRegion *region, uint8_t *chunk, uint32_t size) {
    OpenChunks &open = region->open_chunks;
    if (open.count == kOpenChunkSlots) {
        open.overflowed = true;
        return;
    }
    OpenChunk &slot = open.slots[open.count++];
    slot.chunk = chunk;
    PagesOf(chunk, size, &slot.first, &slot.end);
}

void _LumOpenChunkEnd(LumRegion *region, uint8_t *chunk) {
    OpenChunks &open = region->open_chunks;
    for (uint32_t i = 0; i < open.count; ++i) {
        if (open.slots[i].chunk == chunk) {
            open.slots[i] = open.slots[--open.count];
            return;
        }
    }
}
