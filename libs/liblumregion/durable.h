// File formats and durability state: the header of every file, the redo
// records of the logs, the log buffer and the dirty-page maps, and the
// calls through which every change of the image reaches them.
//
// Files of a persistent region (directory + name + suffix):
//   "_0.chk", "_1.chk"  checkpoint images, by generation parity
//   "_0.log", "_1.log"  logs, by generation parity
//   ".tab"              the whole image, written by a sync
//   ".tabnew"           a snapshot being written; renamed to ".tab" when whole
// Every file starts with a FileHeader. A .chk or .tab file is the image
// page for page (image offset N at file offset N), except that the header
// stands in place of the image's first 32 bytes, which the image reserves
// for it. A log is a header and then records back to back from offset 32.
#pragma once

#include <atomic>
#include <cstdint>
#include <cstring>

#include "layout.h"
#include "region.h"

// FileHeader: 32 bytes at the head of every file.
namespace file_header {
inline constexpr uint32_t kMagic = 0;      // "LSB\0": the only field a reader judges
inline constexpr uint32_t kVersion = 4;    // "010\0": written, never read
inline constexpr uint32_t kGeneration = 8; // the generation the file belongs to
inline constexpr uint32_t kTimestamp = 12; // seconds since 1970, signed
inline constexpr uint32_t kPageSize = 16;  // page size of the writer
inline constexpr uint32_t kReserved = 20;  // 12 zero bytes
inline constexpr uint32_t kSize = 32;
inline constexpr char kMagicText[4] = "LSB";
inline constexpr char kVersionText[4] = "010";
static_assert(kReserved + 12 == kSize);
static_assert(kSize <= region_header::kSegmentMap, "the header fits the image's reserved bytes");
} // namespace file_header

// Types of the records in a log file.
enum LogRecordType : uint32_t {
    LOG_DATA = 0,       // redo: payload of `length` bytes for image offset `value`
    LOG_SIZE = 1,       // the image's used size is `value` from here on
    LOG_CHECKPOINT = 2, // the chk file of this log's parity is complete
    LOG_COMMIT = 3,     // everything before belongs to a commit
};

// LogRecord: a 12-byte head, then for LOG_DATA `length` bytes of payload
// padded to a multiple of 4 (the filler is never read).
namespace log_record {
inline constexpr uint32_t kType = 0;
inline constexpr uint32_t kLength = 4;
inline constexpr uint32_t kValue = 8;
inline constexpr uint32_t kHeadSize = 12;
// The largest payload that recovery reads in one block.
inline constexpr uint32_t kMaxPayload = 1048576;
constexpr uint32_t Size(uint32_t type, uint32_t length) {
    return kHeadSize + (type == LOG_DATA ? (length + 3) & ~3u : 0);
}
static_assert(Size(LOG_DATA, 5) == 20);
static_assert(Size(LOG_COMMIT, 0) == 12);
inline void StoreHead(uint8_t *head, uint32_t type, uint32_t value, uint32_t length) {
    ImageStore32(head + kType, type);
    ImageStore32(head + kLength, length);
    ImageStore32(head + kValue, value);
}
} // namespace log_record

// The records of a persistent region waiting for the next flush, in the
// form in which they go to the log. Invariant: data holds whole records
// from 0 to used, and used <= capacity.
struct LogBuffer {
    uint32_t capacity;
    uint8_t *data;
    uint32_t used;
};

inline constexpr uint32_t kPagesPerMapWord = 32;

// One bit per page of the reservation: set when the page may differ from
// the chk file of the map's parity. Allocated as one block: page_count,
// then the bit words (page i is bit i % 32 of word i / 32), rounded up to
// whole words. The writer sets bits while the checkpoint thread clears
// them, so every bit is read and changed atomically (see pagetable.cc).
struct DirtyMap {
    int32_t page_count;
    uint32_t *Words() { return reinterpret_cast<uint32_t *>(this + 1); }
};
static_assert(sizeof(DirtyMap) == 4);

extern "C" {

// fileheader.cc -------------------------------------------------------------

// Writes a new header for `generation` at offset 0, leaving the file
// position alone. Returns 0, or -19 when fewer than 32 bytes were written.
int32_t _LumFileHeaderWrite(int fd, uint32_t generation);
// The same with a given timestamp in place of the present time.
int32_t _LumFileHeaderWriteStamped(int fd, uint32_t generation, int32_t timestamp);
// Reads the 32 header bytes at offset 0 without judging them. 0 or -19.
int32_t _LumFileHeaderRead(int fd, uint8_t *header);

// preadwrite.cc -------------------------------------------------------------

// Read or write `count` bytes at file offset `offset`: the count, short at
// the end of the file (reads), or -1 with errno. A write from memory that
// vanished under it gives -1 with errno EFAULT, and the process goes on.
ssize_t _LumPread(int fd, void *buffer, uint32_t count, int64_t offset);
ssize_t _LumPwrite(int fd, const void *buffer, uint32_t count, int64_t offset);

// utils.cc ------------------------------------------------------------------

// Creates (truncating) directory + name + suffix, write-only, owner read
// and write, into *fd. 0 when the descriptor is above 0, else -1.
int32_t _LumRegionFileCreate(const char *name, const char *directory, const char *suffix, int *fd);

// buffer.cc -----------------------------------------------------------------

// A buffer for records of up to `size` bytes: capacity is the larger of
// 131072 and size + 12. Null when memory fails.
LogBuffer *_LumLogBufferCreate(uint32_t size);
void _LumLogBufferDestroy(LogBuffer *buffer);

// Appends a record to the region's log buffer; for LOG_DATA the payload is
// copied from the image at base + value, as it stands now. Does nothing for
// a volatile or offline region. Failure is a state: see log_failed.
LUM_SLOW_PATH void _LumLogBufferAppend(LumRegion *region, uint32_t type, uint32_t value,
                                       uint32_t length);

// Writes the buffer to the log of the current generation's parity,
// restarting that log first when the generation has moved since the last
// flush. Does nothing for a volatile or offline region, or a failed log.
void _LumLogBufferFlush(LumRegion *region);

// pagetable.cc --------------------------------------------------------------

// A map for the pages of `size` bytes (rounded down to pages); null when it
// would have no page or memory fails. Free with lum_free.
DirtyMap *_LumDirtyMapCreate(uint32_t size);
DirtyMap *_LumDirtyMapAlloc(int32_t page_count);
// Sets (set != 0) or clears every bit of dirty_map[index], rounding included.
void _LumDirtyMapFill(LumRegion *region, int32_t index, int32_t set);
int32_t _LumDirtyMapTest(DirtyMap *map, uint32_t page);
void _LumDirtyMapSet(DirtyMap *map, uint32_t page);
// Clears the bits of `bits` in word `word` (pages 32 word to 32 word + 31)
// and returns those of them that were set: the checkpoint's take.
uint32_t _LumDirtyMapTake(DirtyMap *map, uint32_t word, uint32_t bits);

// _LumImageMarkDirty of image bytes [offset, offset + length) for any
// length and any state of the buffer: the record in place or through
// _LumLogBufferAppend, then the bits of every page.
__attribute__((noinline)) void _LumImageMarkDirtyOutOfLine(LumRegion *region, uint32_t offset,
                                                           uint32_t length);

// checkpoint.cc -------------------------------------------------------------

// Writes the pages marked in the map of the next generation's parity to its
// chk file, switching `generation` first when next_generation differs. The
// caller holds the region's mutex. 0, or -19 when the last checkpoint is
// not acknowledged yet or a write fails.
int32_t _LumRegionCheckpoint(LumRegion *region);

// sync.cc -------------------------------------------------------------------

// Writes the whole image of a persistent region to directory + name +
// ".tab" by way of ".tabnew", forced to disk. Sets sync_failed. Returns 0,
// errno of the failure, or -19 when errno is 0.
int32_t _LumRegionSync(LumRegion *region, const char *directory);
// `path` without its trailing separators (the first character always
// stays), as a new string for lum_free. 0 or the conversion's code.
int32_t _LumPathStrip(const char *path, char **stripped);
// -412 when `path` (stripped already) names the home directory, compared
// without regard to case; 0 otherwise; or the code of _LumPathStrip.
int32_t _LumPathCheckHome(const char *home, const char *path);

} // extern "C"

// The hot path of every logged write, inline in each writer. ---------------

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
extern "C" inline void _LumImageMarkDirty(LumRegion *region, void *address, uint32_t length) {
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
