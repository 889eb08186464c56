// Dirty page tracking: two maps of the pages that may differ from the chk
// file of each parity, and _LumImageMarkDirty, the one place where a change
// of the image is announced.
//
// Every change sets its pages in both maps; a checkpoint clears bits only in
// the map of the file it writes, each bit before it reads the page. The
// writer sets with release order, after its store and its record, and the
// checkpoint clears with acquire order, so a page read after a clear holds
// every change whose mark the clear took away; a later change marks again.
#include <algorithm>
#include <atomic>
#include <bit>
#include <cstring>

#include "durable.h"

namespace {

constexpr uint32_t kBitsPerWord = 32;

uint32_t WordCount(int32_t page_count) {
    return (static_cast<uint32_t>(page_count) + kBitsPerWord - 1) / kBitsPerWord;
}

std::atomic_ref<uint32_t> WordOf(DirtyMap *map, uint32_t page) {
    return std::atomic_ref<uint32_t>(map->Words()[page / kBitsPerWord]);
}

uint32_t BitOf(uint32_t page) {
    return 1u << (page % kBitsPerWord);
}

} // namespace

DirtyMap *_LumDirtyMapAlloc(int32_t page_count) {
    if (page_count < 1)
        return nullptr;
    size_t bytes = sizeof(DirtyMap) + WordCount(page_count) * sizeof(uint32_t);
    auto *map = static_cast<DirtyMap *>(lum_malloc(bytes));
    if (map == nullptr)
        return nullptr;
    map->page_count = page_count;
    memset(map->Words(), 0, WordCount(page_count) * sizeof(uint32_t));
    return map;
}

DirtyMap *_LumDirtyMapCreate(uint32_t size) {
    return _LumDirtyMapAlloc(static_cast<int32_t>(size / region_page_size));
}

void _LumDirtyMapFill(LumRegion *region, int32_t index, int32_t set) {
    DirtyMap *map = region->dirty_map[index];
    uint32_t fill = set ? ~0u : 0u;
    for (uint32_t i = 0; i < WordCount(map->page_count); ++i)
        std::atomic_ref<uint32_t>(map->Words()[i]).store(fill, std::memory_order_release);
}

int32_t _LumDirtyMapTest(DirtyMap *map, uint32_t page) {
    return (WordOf(map, page).load(std::memory_order_acquire) & BitOf(page)) != 0;
}

void _LumDirtyMapSet(DirtyMap *map, uint32_t page) {
    WordOf(map, page).fetch_or(BitOf(page), std::memory_order_release);
}

void _LumDirtyMapClear(DirtyMap *map, uint32_t page) {
    WordOf(map, page).fetch_and(~BitOf(page), std::memory_order_acq_rel);
}

void _LumImageMarkDirty(LumRegion *region, void *address, uint32_t length) {
    if (!IsPersistent(region) || length == 0)
        return;
    uint32_t offset = ImageOffsetOf(region, static_cast<uint8_t *>(address));
    // The page size is a power of two: a shift, not a division, on this path.
    int shift = std::countr_zero(region_page_size);
    uint64_t first = offset >> shift;
    uint64_t last = (static_cast<uint64_t>(offset) + length - 1) >> shift;
    _LumLogBufferAppend(region, LOG_DATA, offset, length);
    // The maps cover the reservation; a range beyond it has no pages to mark.
    last = std::min<uint64_t>(last, static_cast<uint64_t>(region->dirty_map[0]->page_count) - 1);
    for (uint64_t page = first; page <= last; ++page) {
        _LumDirtyMapSet(region->dirty_map[0], static_cast<uint32_t>(page));
        _LumDirtyMapSet(region->dirty_map[1], static_cast<uint32_t>(page));
    }
}
