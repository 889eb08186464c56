// The hot path of every logged write, inline in each writer. A change of the
// image reaches the durable side in one way: RecordChange places its
// LOG_DATA record behind the records in the log buffer and marks its pages
// in both dirty maps. _LumImageMarkDirty takes it for a short change that
// fits the open buffer; the allocator's batch takes it with its cursor in
// registers; _LumImageMarkDirtyOutOfLine takes it for everything else.
#pragma once

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstring>

#include "durable/durable.h"

// The payloads that a logged write copies without a call: every field a
// host writes with LumMemLogCpy*, the allocator's links, tags and counters,
// and the chunks of small allocations. Longer ones are copied out of line,
// where the call costs less than the bytes.
inline constexpr uint32_t kShortPayload = 128;

// Copies 16 bytes through a register.
inline void Copy16(uint8_t *to, const uint8_t *from) {
    uint8_t bytes[16];
    memcpy(bytes, from, 16);
    memcpy(to, bytes, 16);
}

// Copies a payload of 1 to kShortPayload bytes, exactly `length` bytes:
// above 16 bytes in blocks of 16 and a last block that overlaps, below
// with two overlapping loads and stores of the widest size that fits.
inline void CopyShortPayload(uint8_t *to, const uint8_t *from, uint32_t length) {
    if (length > 16) {
        for (uint32_t i = 0; i < length - 16; i += 16)
            Copy16(to + i, from + i);
        Copy16(to + length - 16, from + length - 16);
    } else if (length >= 8) {
        uint64_t head, tail;
        memcpy(&head, from, 8);
        memcpy(&tail, from + length - 8, 8);
        memcpy(to, &head, 8);
        memcpy(to + length - 8, &tail, 8);
    } else if (length >= 4) {
        uint32_t head = ImageLoad32(from), tail = ImageLoad32(from + length - 4);
        ImageStore32(to, head);
        ImageStore32(to + length - 4, tail);
    } else { // 1 to 3 bytes: the first, the middle and the last
        uint8_t first = from[0], middle = from[length / 2], last = from[length - 1];
        to[0] = first;
        to[length / 2] = middle;
        to[length - 1] = last;
    }
}

// Copies a payload of any length.
inline void CopyPayload(uint8_t *to, const uint8_t *from, uint32_t length) {
    memcpy(to, from, length);
}

// Whether a LOG_DATA record of `length` bytes can be stored behind the
// records already in the buffer: the region logs, its log has not failed,
// the buffer is open (a non-empty buffer opens with a LOG_SIZE) and has the
// room. Every other case goes to _LumImageMarkDirtyOutOfLine, which
// flushes, opens, splits or drops.
inline bool LogBufferTakes(const LumRegion *region, uint32_t length) {
    const LogBuffer *buffer = region->log_buffer;
    return length <= log_record::kMaxPayload && buffer->used != 0 &&
           buffer->capacity - buffer->used >= log_record::Size(LOG_DATA, length) &&
           region->online.load(std::memory_order_relaxed) != 0 &&
           region->log_failed.load(std::memory_order_relaxed) == 0;
}

// The two dirty maps of a persistent region as a writer marks them, read
// from the region once, before the byte stores of a change, which the
// compiler must assume may alias the region's fields.
struct DirtyMaps {
    uint32_t *even_words;
    uint32_t *odd_words;
    uint32_t page_count; // pages that each map covers: the whole reservation
    uint32_t page_shift;
    bool trust_set_bits; // see dirty_map.cc
};

inline DirtyMaps DirtyMapsOf(const LumRegion *region) {
    return {region->dirty_map[0]->Words(), region->dirty_map[1]->Words(),
            static_cast<uint32_t>(region->dirty_map[0]->page_count), region_page_shift,
            region_write_barrier != 0};
}

// The writer's mark of one page in both maps; see dirty_map.cc for why a
// bit found set may be trusted without the atomic set when the platform has
// its write barrier. The signal fence keeps the compiler from moving the
// caller's stores below the test.
inline void DirtyMapsMark(const DirtyMaps &maps, uint32_t page) {
    uint32_t index = page / kPagesPerMapWord;
    uint32_t shift = page % kPagesPerMapWord;
    std::atomic_ref<uint32_t> even(maps.even_words[index]);
    std::atomic_ref<uint32_t> odd(maps.odd_words[index]);
    std::atomic_signal_fence(std::memory_order_seq_cst);
    if (maps.trust_set_bits &&
        ((even.load(std::memory_order_relaxed) & odd.load(std::memory_order_relaxed)) >> shift &
         1) != 0)
        return;
    uint32_t bit = 1u << shift;
    even.fetch_or(bit, std::memory_order_release);
    odd.fetch_or(bit, std::memory_order_release);
}

// DirtyMapsMark of pages [first, min(end, page_count)), out of line
// (dirty_map.cc). Its arguments travel in registers, so that the caller
// does not build a DirtyMaps in memory on its way to the common case.
__attribute__((noinline)) void DirtyMapsMarkPages(uint32_t *even_words, uint32_t *odd_words,
                                                  bool trust_set_bits, uint32_t first, uint32_t end,
                                                  uint32_t page_count);

// Marks the pages of image bytes [offset, offset + length) in both maps.
// This is the one bound of every mark: a page at or beyond page_count lies
// outside the reservation, where no change can be, and is never marked,
// whatever address a caller came with. The common change, one page inside
// the maps, is marked here after a single test; any other goes out of line.
// REQUIRES: length > 0 and offset + length <= 2^32 (a wrapped end marks
// nothing).
inline void DirtyMapsMarkRange(const DirtyMaps &maps, uint32_t offset, uint32_t length) {
    uint32_t first = offset >> maps.page_shift;
    uint32_t last = (offset + length - 1) >> maps.page_shift;
    if ((first >= maps.page_count) | (last != first)) [[unlikely]] {
        DirtyMapsMarkPages(maps.even_words, maps.odd_words, maps.trust_set_bits, first, last + 1,
                           maps.page_count);
        return;
    }
    DirtyMapsMark(maps, first);
}

// Records the change of image bytes [offset, offset + length), which stand
// at `bytes` and hold their new values already: places its LOG_DATA record
// at `cursor`, the payload copied by kCopy, then marks its pages in the maps
// that `maps_of()` gives (record, then bits). The maps are asked for only
// after the copy, so that a caller which reads them from the region holds
// no registers for them across it. Returns the position behind the record.
// REQUIRES: length > 0; the caller has claimed room for the record at
// `cursor` (log_record::Size(LOG_DATA, length) bytes); kCopy copies any
// length that it is given.
template <void (*kCopy)(uint8_t *, const uint8_t *, uint32_t), typename MapsOf>
inline uint8_t *RecordChange(uint8_t *cursor, const uint8_t *bytes, uint32_t offset,
                             uint32_t length, MapsOf maps_of) {
    log_record::StoreHead(cursor, LOG_DATA, offset, length);
    kCopy(cursor + log_record::kHeadSize, bytes, length);
    DirtyMapsMarkRange(maps_of(), offset, length);
    return cursor + log_record::Size(LOG_DATA, length);
}

// Announces a change of [address, address + length), made already: logs the
// bytes as they now stand, then marks their pages in both maps (image,
// record, bits). Does nothing for a volatile region or a length of 0.
//
// A short change that fits the open buffer of a logging region is recorded
// here, without a call and so without saving registers; everything else
// goes to _LumImageMarkDirtyOutOfLine.
[[gnu::always_inline]] inline void _LumImageMarkDirty(LumRegion *region, void *address,
                                                      uint32_t length) {
    if (!IsPersistent(region) || length == 0)
        return;
    auto *bytes = static_cast<uint8_t *>(address);
    uint32_t offset = ImageOffsetOf(region, bytes);
    if (length > kShortPayload || !LogBufferTakes(region, length)) {
        _LumImageMarkDirtyOutOfLine(region, bytes, offset, length);
        return;
    }
    LogBuffer *buffer = region->log_buffer;
    uint8_t *cursor = buffer->data + buffer->used;
    buffer->used += log_record::Size(LOG_DATA, length);
    RecordChange<CopyShortPayload>(cursor, bytes, offset, length,
                                   [region] { return DirtyMapsOf(region); });
}

// The one order of every change of the image: lift the protection of the
// target, `store` into it, put the protection back, then announce the
// change (record, then bits).
template <typename Store>
inline void LoggedStore(LumRegion *region, void *target, uint32_t length, Store store) {
    _LumPageUnprotect(region, target, length);
    store();
    _LumPageProtect(region, target, length);
    _LumImageMarkDirty(region, target, length);
}

// LoggedStore of one image word.
inline void LoggedStore32(LumRegion *region, uint8_t *at, uint32_t value) {
    LoggedStore(region, at, 4, [&] { ImageStore32(at, value); });
}
