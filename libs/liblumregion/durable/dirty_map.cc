// Dirty page tracking: two maps of the pages that may differ from the chk
// file of each parity. The writer marks through DirtyMapsMarkRange
// (write_path.h), which every change of the image passes; the checkpoint
// takes marks through here.
//
// Every change sets its pages in both maps; a checkpoint clears bits only in
// the map of the file it writes, and clears them before it reads the pages.
//
// The writer's mark is the hot path of every logged write, so it tests the
// bit with a plain load and pays for the atomic set only when the bit is
// clear. A test can be stale: the writer's store may still sit in its store
// buffer when the checkpoint clears the bit and reads the page, and then
// neither the mark nor the page would carry the change. The checkpoint
// closes that gap: between taking a window of marks and reading its pages
// it calls lum_platform.flush_write_buffers, which drains every thread's
// stores. A writer whose test came before the clear has its store in
// memory by then; a writer whose test came after finds the bit clear and
// sets it. Without that barrier (region_write_barrier 0) every mark sets.
#include <algorithm>
#include <atomic>
#include <cstring>

#include "durable/write_path.h"

namespace {

uint32_t WordCount(int32_t page_count) {
    return (static_cast<uint32_t>(page_count) + kPagesPerMapWord - 1) / kPagesPerMapWord;
}

std::atomic_ref<uint32_t> WordOf(DirtyMap *map, uint32_t page) {
    return std::atomic_ref<uint32_t>(map->Words()[page / kPagesPerMapWord]);
}

uint32_t BitOf(uint32_t page) {
    return 1u << (page % kPagesPerMapWord);
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

uint32_t _LumDirtyMapTake(DirtyMap *map, uint32_t word, uint32_t bits) {
    std::atomic_ref<uint32_t> marks(map->Words()[word]);
    return marks.fetch_and(~bits, std::memory_order_acq_rel) & bits;
}

void DirtyMapsMarkPages(uint32_t *even_words, uint32_t *odd_words, bool trust_set_bits,
                        uint32_t first, uint32_t end, uint32_t page_count) {
    DirtyMaps maps{even_words, odd_words, page_count, 0, trust_set_bits};
    for (uint32_t page = first; page < std::min(end, page_count); ++page)
        DirtyMapsMark(maps, page);
}
