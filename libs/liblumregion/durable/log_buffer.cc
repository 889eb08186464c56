// The log buffer: redo records collected between flushes, the way of every
// record into it that the writer's inline path does not take, and the flush
// that writes them to the log of the current generation.
//
// States of a region's log:
//   empty    buffer used 0            left by the next accepted append
//   filling  buffer used > 0          left by a flush
//   failed   log_failed 1             left by the first append after the
//                                     generation moved on from flushed_generation
// While failed, appends drop their records and flushes do nothing; the
// pages stay marked, so the next checkpoint saves what the log lost.
//
// Invariants:
//   1. Every log file starts with a LOG_SIZE: an append that finds the
//      buffer empty opens it with one, also after a flush of its own.
//   2. No record longer than fits an empty buffer behind that LOG_SIZE, or
//      longer than kMaxPayload, is stored: a longer change is recorded in
//      consecutive records that replay the same bytes.
//   3. flushed_generation names the generation whose log the files hold; a
//      flush that finds generation different restarts ("zaps") the log of
//      its parity: truncate, new header, position 32.
//   4. The first log restarted after a failed log (or after a region came
//      online with its offline changes unlogged) carries kFollowsGap in its
//      header: records are missing behind its predecessor, and recovery
//      never replays it there.
// Only the host's writer appends and flushes; the checkpoint thread moves
// `generation`, which a flush reads once.
#include <algorithm>
#include <cassert>
#include <cerrno>
#include <cstring>
#include <unistd.h>

#include "durable/write_path.h"
#include "platform/platform.h"

namespace {

constexpr uint32_t kMinimumCapacity = 131072;

bool IsLogging(const LumRegion *region) {
    return IsPersistent(region) && region->online.load(std::memory_order_relaxed) != 0;
}

// Opens an empty buffer with the image's size, so that the log file these
// records reach starts with a LOG_SIZE whatever comes first.
void OpenWithSize(LumRegion *region) {
    log_record::StoreHead(region->log_buffer->data, LOG_SIZE, region->used, 0);
    region->log_buffer->used = log_record::kHeadSize;
}

// The longest LOG_DATA payload that fits an empty buffer behind its opening
// LOG_SIZE and the format's limit.
uint32_t MaxPayload(const LogBuffer *buffer) {
    uint32_t room = (buffer->capacity - 2 * log_record::kHeadSize) & ~3u;
    return std::min(room, log_record::kMaxPayload);
}

// Failure of a flush: the buffer's records are lost to the log, and the
// log stays failed until the generation moves on. The next log to start
// follows that gap and says so.
void FailLog(LumRegion *region, uint32_t generation, int error) {
    LumLog(LUM_LOG_FAILURE, 1, region_catalog, kSetReport, 1, "Logging failed: \"%s\": %s",
           region->name, strerror(error));
    region->log_failed.store(1, std::memory_order_relaxed);
    NoteLogFailure(region, generation);
    region->log_follows_gap = true;
    region->log_buffer->used = 0;
    region->flushed_generation.store(generation, std::memory_order_relaxed);
}

// Restarts the log of `parity` for `generation`, its header marked as
// following a gap when a log failed (or the region came online unlogged)
// since the last restart. 0, or the errno of the failing step.
int ZapLog(LumRegion *region, uint32_t generation, int parity) {
    int fd = region->log_fd[parity];
    LumLog(LUM_LOG_DEBUG, RegionDebug(), region_catalog, kSetReport, 4,
           "_LumLogBufferFlush(): zapping log %d", parity);
    if (lum_platform.ftruncate(fd, 0) != 0) {
        int error = errno;
        LumLog(LUM_LOG_DEBUG, RegionDebug(), region_catalog, kSetReport, 5,
               "_LumLogBufferFlush(): failed to zap log %d: ftruncate(): %s", parity,
               strerror(error));
        return error;
    }
    uint8_t flags = region->log_follows_gap ? file_header::kFollowsGap : 0;
    if (_LumFileHeaderWriteStamped(fd, generation, RegionNextTimestamp(region), flags) != 0)
        return errno != 0 ? errno : EIO; // a short write sets no errno, and must not pass
    region->log_follows_gap = false;
    if (lum_platform.lseek(fd, file_header::kSize, SEEK_SET) != file_header::kSize)
        return errno;
    return 0;
}

// Readies the buffer of a logging region for a record of `type` and `size`
// bytes. False when the record is dropped because the log of this
// generation has failed; a failed log of an earlier generation is forgotten
// here, so that the new generation starts afresh. An empty buffer is opened
// with a LOG_SIZE first, also after a flush that this makes for want of
// room.
LUM_SLOW_PATH bool Ready(LumRegion *region, uint32_t type, uint32_t size) {
    LogBuffer *buffer = region->log_buffer;
    if (region->log_failed.load(std::memory_order_relaxed) != 0) {
        if (region->flushed_generation.load(std::memory_order_relaxed) ==
            region->generation.load(std::memory_order_relaxed))
            return false;
        region->log_failed.store(0, std::memory_order_relaxed);
        buffer->used = 0;
    }
    if (buffer->used == 0 && type != LOG_SIZE)
        OpenWithSize(region);
    if (buffer->capacity - buffer->used < size) {
        _LumLogBufferFlush(region);
        if (region->log_failed.load(std::memory_order_relaxed) != 0)
            return false;
        if (type != LOG_SIZE)
            OpenWithSize(region);
    }
    return true;
}

// Claims `size` bytes at the end of the buffer for a record of `type`, to
// be filled by the caller at once, and returns where they lie; null when
// the record is dropped: the region logs nothing now (volatile, offline),
// or its log has failed.
// REQUIRES: size fits an empty buffer behind its LOG_SIZE.
inline uint8_t *Claim(LumRegion *region, uint32_t type, uint32_t size) {
    if (!IsLogging(region))
        return nullptr;
    LogBuffer *buffer = region->log_buffer;
    bool open_with_room = buffer->used != 0 && buffer->capacity - buffer->used >= size &&
                          region->log_failed.load(std::memory_order_relaxed) == 0;
    if (!open_with_room && !Ready(region, type, size))
        return nullptr;
    uint8_t *at = buffer->data + buffer->used;
    buffer->used += size;
    return at;
}

} // namespace

LogBuffer *_LumLogBufferCreate(uint32_t size) {
    uint64_t wanted = static_cast<uint64_t>(size) + log_record::kHeadSize;
    if (wanted > UINT32_MAX)
        return nullptr;
    auto *buffer = static_cast<LogBuffer *>(lum_malloc(sizeof(LogBuffer)));
    if (buffer == nullptr)
        return nullptr;
    buffer->capacity = std::max<uint32_t>(static_cast<uint32_t>(wanted), kMinimumCapacity);
    buffer->used = 0;
    buffer->data = static_cast<uint8_t *>(lum_malloc(buffer->capacity));
    if (buffer->data == nullptr) {
        lum_free(buffer);
        return nullptr;
    }
    return buffer;
}

void _LumLogBufferDestroy(LogBuffer *buffer) {
    lum_free(buffer->data);
    lum_free(buffer);
}

void _LumLogBufferAppend(LumRegion *region, uint32_t type, uint32_t value, uint32_t length) {
    assert(type != LOG_DATA && length == 0);
    if (uint8_t *at = Claim(region, type, log_record::Size(type, length)))
        log_record::StoreHead(at, type, value, 0);
}

void _LumImageMarkDirtyOutOfLine(LumRegion *region, const uint8_t *bytes, uint32_t offset,
                                 uint32_t length) {
    auto maps = [region] { return DirtyMapsOf(region); };
    while (length > 0) {
        uint32_t piece = std::min(length, MaxPayload(region->log_buffer));
        uint8_t *cursor = Claim(region, LOG_DATA, log_record::Size(LOG_DATA, piece));
        if (cursor == nullptr) {
            // Nothing is logged now, but the pages are marked all the same:
            // the next checkpoint saves what the log does not hold.
            DirtyMapsMarkRange(maps(), offset, length);
            return;
        }
        RecordChange<CopyPayload>(cursor, bytes, offset, piece, maps);
        bytes += piece;
        offset += piece;
        length -= piece;
    }
}

void _LumLogBufferFlush(LumRegion *region) {
    if (!IsLogging(region))
        return;
    // Read once: a checkpoint may move it now, and this flush must write
    // the log it compares against.
    uint32_t generation = region->generation.load(std::memory_order_acquire);
    int parity = generation % 2;
    LogBuffer *buffer = region->log_buffer;
    if (region->log_failed.load(std::memory_order_relaxed) != 0)
        return;
    if (generation != region->flushed_generation.load(std::memory_order_relaxed)) {
        if (int error = ZapLog(region, generation, parity); error != 0) {
            FailLog(region, generation, error);
            return;
        }
    }
    if (lum_platform.write(region->log_fd[parity], buffer->data, buffer->used) !=
        static_cast<ssize_t>(buffer->used)) {
        FailLog(region, generation, errno);
        return;
    }
    buffer->used = 0;
    region->flushed_generation.store(generation, std::memory_order_relaxed);
}

void _LumLogBufferForce(LumRegion *region) {
    if (!IsLogging(region) || region->log_failed.load(std::memory_order_relaxed) != 0)
        return;
    uint32_t generation = region->flushed_generation.load(std::memory_order_relaxed);
    if (lum_platform.fdatasync(region->log_fd[generation % 2]) != 0)
        FailLog(region, generation, errno);
}
