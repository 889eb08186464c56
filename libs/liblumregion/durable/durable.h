// Durability state and operations: the log buffer, the dirty-page maps,
// and the operations of the files, the log, the checkpoint and the
// snapshot. The inline path through which every change of the image
// reaches them is in write_path.h.
#pragma once

#include <atomic>
#include <cstdint>
#include <sys/types.h>

#include "durable/formats.h"
#include "region/region.h"

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
// them, so every bit is read and changed atomically (see dirty_map.cc).
struct DirtyMap {
    int32_t page_count;
    uint32_t *Words() { return reinterpret_cast<uint32_t *>(this + 1); }
};
static_assert(sizeof(DirtyMap) == 4);

// file_io.cc ----------------------------------------------------------------

// Writes a new header for `generation`, stamped `timestamp` (a region's
// files take it from RegionNextTimestamp) and carrying `flags` in byte
// file_header::kFlags (0, or kFollowsGap for a log), at offset 0, leaving
// the file position alone. Returns 0, or -19 when fewer than 32 bytes were
// written.
int32_t _LumFileHeaderWriteStamped(int fd, uint32_t generation, int32_t timestamp, uint8_t flags);
// Reads the 32 header bytes at offset 0 without judging them. 0 or -19.
int32_t _LumFileHeaderRead(int fd, uint8_t *header);
// Forces the entries of `directory` (empty: the current one) to disk, so
// that files made or renamed there survive the machine. 0, or the errno
// value (-19 when there is none) after reporting the failure.
int32_t _LumDirectoryForce(const char *directory);

// The timestamp of the next header the region writes: max(now, last + 1),
// so that every file of a region is ordered by time as by generation, also
// within one second. LumRegionOpen seeds `last_timestamp` from the newest
// file it judged.
int32_t RegionNextTimestamp(LumRegion *region);

// Takes the exclusive advisory lock that marks a region as in use; it is
// held while `fd` stays open. 0, LUM_RC_IN_USE when another open file
// description holds it (this process or another), or -19.
int32_t _LumFileLock(int fd);

// Read or write `count` bytes at file offset `offset`: the count, short at
// the end of the file (reads), or -1 with errno. A write from memory that
// vanished under it gives -1 with errno EFAULT, and the process goes on.
ssize_t _LumPread(int fd, void *buffer, uint32_t count, int64_t offset);
ssize_t _LumPwrite(int fd, const void *buffer, uint32_t count, int64_t offset);

// logged_write.cc ------------------------------------------------------------

// The logged writes of the library's own bookkeeping: no mutation check and
// no report. _LumMemCopy always writes, also between overlapping ranges;
// _LumMemWriteWord only a new value.
void *_LumMemCopy(LumSegment *segment, void *target, const void *source, uint32_t length);
void _LumMemWriteWord(LumSegment *segment, void *target, uint32_t value);

// log_buffer.cc -------------------------------------------------------------

// A buffer for records of up to `size` bytes: capacity is the larger of
// 131072 and size + 12. Null when memory fails.
LogBuffer *_LumLogBufferCreate(uint32_t size);
void _LumLogBufferDestroy(LogBuffer *buffer);

// Appends a record without payload (LOG_SIZE, LOG_CHECKPOINT, LOG_COMMIT)
// to the region's log buffer, flushing first when it is full. Does nothing
// for a volatile or offline region, or a failed log of this generation:
// failure is a state, see log_failed.
// REQUIRES: type is not LOG_DATA and length is 0. A data record comes with
// the marks of its pages, through _LumImageMarkDirty.
LUM_SLOW_PATH void _LumLogBufferAppend(LumRegion *region, uint32_t type, uint32_t value,
                                       uint32_t length);

// _LumImageMarkDirty of image bytes [offset, offset + length), which stand
// at `bytes`, for any length and any state of the buffer: the buffer is
// opened or flushed as needed, a change longer than a record may be is
// recorded in consecutive records, and when the region logs nothing now
// (offline, or its log failed) the pages are marked all the same.
// REQUIRES: a persistent region; length > 0.
__attribute__((noinline)) void _LumImageMarkDirtyOutOfLine(LumRegion *region, const uint8_t *bytes,
                                                           uint32_t offset, uint32_t length);

// Writes the buffer to the log of the current generation's parity,
// restarting that log first when the generation has moved since the last
// flush. Does nothing for a volatile or offline region, or a failed log.
void _LumLogBufferFlush(LumRegion *region);
// Forces the log that the last flush wrote to disk (Region.SyncCommit); a
// failure fails that log as a failed write does. Does nothing when the
// region logs nothing now or its log has failed.
void _LumLogBufferForce(LumRegion *region);

// Notes that the log of `generation` failed. The first failure since the
// last acknowledged checkpoint is where LumRegionGetLogState says the run
// of failures began. Only the next acknowledged checkpoint ends it: the logs
// that start after a failure follow a gap, so recovery replays them only
// from a chk file taken after the failure, and commits before its
// acknowledgement are in no log that recovery could reach.
inline void NoteLogFailure(LumRegion *region, uint32_t generation) {
    if (region->log_failing.load(std::memory_order_relaxed))
        return;
    region->log_failed_since.store(generation, std::memory_order_relaxed);
    region->log_failing.store(true, std::memory_order_release);
}

// dirty_map.cc ---------------------------------------------------------------

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

// checkpoint.cc -------------------------------------------------------------

// The generation that a failure moves a region on to: the first after the
// current one whose parity differs from that of protected_generation.
//
// protected_generation (P) is the generation of the last acknowledged chk
// file (set by the commit whose LOG_CHECKPOINT reached the log, and by
// LumRegionOpen), or 0 while none was acknowledged since the region was
// created: log 0 holds the whole history then. The chk file and the log of
// P's parity are what recovery needs after a failure, so a failure never
// moves to a generation of that parity, whose first checkpoint and flush
// would rewrite them. Used wherever a failed log moves the generation on:
// a checkpoint that failed beside a failed log, a failed acknowledgement,
// and LumRegionOnline failing the log.
inline uint32_t GenerationAfterFailure(const LumRegion *region) {
    uint32_t current = region->generation.load(std::memory_order_relaxed);
    uint32_t protected_parity = region->protected_generation.load(std::memory_order_relaxed) % 2;
    return current % 2 == protected_parity ? current + 1 : current + 2;
}

// Writes the pages marked in the map of the next generation's parity to its
// chk file, switching `generation` first when next_generation differs. The
// caller holds the region's mutex. 0, or -19 when the last checkpoint is
// not acknowledged yet or a write fails.
int32_t _LumRegionCheckpoint(LumRegion *region);

// Body of the thread "REGIONCHKPT".
uintptr_t _LumCheckpointThread(uintptr_t word);

// Walks the registry once, as the checkpoint thread does after each sleep,
// checkpointing every online persistent region that allows it.
void _LumCheckpointPass();

// Returns once no checkpoint visit that had begun at the call is running.
// A region that has left the registry can then not be visited any more.
void RegionAwaitVisit();

// snapshot.cc -------------------------------------------------------------------

// Writes the whole image of a persistent region to directory + name +
// ".tab" by way of ".tabnew", forced to disk. Sets sync_failed. Returns 0,
// errno of the failure, -19 when errno is 0, or -412 when directory, name
// and ".tabnew" do not fit a path.
int32_t _LumRegionSync(LumRegion *region, const char *directory);
// `path` without its trailing separators (the first character always
// stays), as a new string for lum_free. 0 or the conversion's code.
int32_t _LumPathStrip(const char *path, char **stripped);
// -412 when `path` (stripped already) names the home directory, compared
// without regard to case; 0 otherwise; or the code of _LumPathStrip.
int32_t _LumPathCheckHome(const char *home, const char *path);
