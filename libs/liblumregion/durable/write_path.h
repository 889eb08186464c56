// The hot path of every logged write, inline in each writer: the copy of a
// short payload, the record placed in the log buffer, the mark in both
// dirty maps, and _LumImageMarkDirty, which joins them.
#pragma once

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

// Whether a LOG_DATA record of `length` bytes can be stored behind the
// records already in the buffer: the region logs, its log has not failed,
// the buffer is open (a non-empty buffer opens with a LOG_SIZE) and has the
// room. Every other case goes to _LumLogBufferAppend, which flushes, opens,
// splits or drops.
inline bool LogBufferTakes(const LumRegion *region, uint32_t length) {
    const LogBuffer *buffer = region->log_buffer;
    return length <= log_record::kMaxPayload && buffer->used != 0 &&
           buffer->capacity - buffer->used >= log_record::Size(LOG_DATA, length) &&
           region->online.load(std::memory_order_relaxed) != 0 &&
           region->log_failed.load(std::memory_order_relaxed) == 0;
}

// Stores the head of the LOG_DATA record of image bytes [offset, offset +
// length) in place, where LogBufferTakes said it fits, and returns where
// its payload goes.
inline uint8_t *LogBufferPlaceData(LumRegion *region, uint32_t offset, uint32_t length) {
    LogBuffer *buffer = region->log_buffer;
    uint8_t *head = buffer->data + buffer->used;
    log_record::StoreHead(head, LOG_DATA, offset, length);
    buffer->used += log_record::Size(LOG_DATA, length);
    return head + log_record::kHeadSize;
}

// The writer's mark of one page in both maps, given their words; see
// pagetable.cc for why bits found set may be trusted without the atomic
// set when the platform has its write barrier. The signal fence keeps the
// compiler from moving the caller's stores below the test.
inline void DirtyMapsMark(uint32_t *even_words, uint32_t *odd_words, uint32_t page,
                          bool trust_set_bits) {
    uint32_t index = page / kPagesPerMapWord;
    uint32_t shift = page % kPagesPerMapWord;
    std::atomic_ref<uint32_t> even(even_words[index]);
    std::atomic_ref<uint32_t> odd(odd_words[index]);
    std::atomic_signal_fence(std::memory_order_seq_cst);
    if (trust_set_bits &&
        ((even.load(std::memory_order_relaxed) & odd.load(std::memory_order_relaxed)) >> shift &
         1) != 0)
        return;
    uint32_t bit = 1u << shift;
    even.fetch_or(bit, std::memory_order_release);
    odd.fetch_or(bit, std::memory_order_release);
}

inline void DirtyMapsMark(LumRegion *region, uint32_t page) {
    DirtyMapsMark(region->dirty_map[0]->Words(), region->dirty_map[1]->Words(), page,
                  region_write_barrier != 0);
}

// Announces a change of [address, address + length), made already: logs the
// bytes as they now stand, then marks their pages in both maps (image,
// record, bits). Does nothing for a volatile region or a length of 0.
//
// A short change within one page of a logging region is stored and marked
// here, without a call and so without saving registers; everything else
// goes to _LumImageMarkDirtyOutOfLine.
inline void _LumImageMarkDirty(LumRegion *region, void *address, uint32_t length) {
    if (!IsPersistent(region) || length == 0)
        return;
    uint32_t offset = ImageOffsetOf(region, static_cast<uint8_t *>(address));
    uint32_t page = offset >> region_page_shift;
    bool one_page = length <= region_page_size - (offset & (region_page_size - 1));
    if (length > kShortPayload || !one_page ||
        page >= static_cast<uint32_t>(region->dirty_map[0]->page_count) ||
        !LogBufferTakes(region, length)) {
        _LumImageMarkDirtyOutOfLine(region, offset, length);
        return;
    }
    CopyShortPayload(LogBufferPlaceData(region, offset, length), region->base + offset, length);
    DirtyMapsMark(region, page);
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
