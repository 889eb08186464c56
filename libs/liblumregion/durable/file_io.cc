// File I/O of a region: positioned reads and writes, and the 32-byte
// header at the head of every file.
//
// Reads and writes go to a file offset without moving the descriptor's
// position, so that the checkpoint and the sync never race a seek. The
// checkpoint and the sync write straight from the image, whose pages may be
// decommitted under them when it shrinks; the kernel then fails the write
// with EFAULT, which callers tell apart from a full disk or a bad
// descriptor, and the process goes on.
//
// A reader of a header judges the magic alone; generation and timestamp
// order the files.
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <sys/file.h>

#include "durable/durable.h"
#include "platform/platform.h"

// The checkpoint thread stamps a chk file while the host's thread may stamp
// a log or a snapshot, so the step is one compare-and-swap. A stamp seeded
// from a damaged or far-future file stops at the largest value instead of
// wrapping to the oldest.
int32_t RegionNextTimestamp(LumRegion *region) {
    int32_t now = static_cast<int32_t>(time(nullptr));
    int32_t last = region->last_timestamp.load(std::memory_order_relaxed);
    int32_t next;
    do {
        next = last == INT32_MAX ? last : std::max(now, last + 1);
    } while (!region->last_timestamp.compare_exchange_weak(last, next, std::memory_order_relaxed));
    return next;
}

int32_t _LumFileLock(int fd) {
    if (lum_platform.flock(fd, LOCK_EX | LOCK_NB) == 0)
        return 0;
    return errno == EWOULDBLOCK ? LUM_RC_IN_USE : LUM_RC_FAILURE;
}

ssize_t _LumPread(int fd, void *buffer, uint32_t count, int64_t offset) {
    return lum_platform.pread(fd, buffer, count, static_cast<off_t>(offset));
}

ssize_t _LumPwrite(int fd, const void *buffer, uint32_t count, int64_t offset) {
    return lum_platform.pwrite(fd, buffer, count, static_cast<off_t>(offset));
}

int32_t _LumFileHeaderWriteStamped(int fd, uint32_t generation, int32_t timestamp, uint8_t flags) {
    uint8_t header[file_header::kSize];
    lum_bzero(header, sizeof header);
    memcpy(header + file_header::kMagic, file_header::kMagicText, 4);
    memcpy(header + file_header::kVersion, file_header::kVersionText, 4);
    header[file_header::kFlags] = flags;
    ImageStore32(header + file_header::kGeneration, generation);
    ImageStore32(header + file_header::kTimestamp, static_cast<uint32_t>(timestamp));
    ImageStore32(header + file_header::kPageSize, region_page_size);
    return _LumPwrite(fd, header, sizeof header, 0) == file_header::kSize ? 0 : LUM_RC_FAILURE;
}

int32_t _LumDirectoryForce(const char *directory) {
    const char *path = directory[0] != '\0' ? directory : "."; // empty: the current one
    errno = 0;
    int fd = lum_platform.open(path, O_RDONLY | O_DIRECTORY, 0);
    bool forced = fd >= 0 && lum_platform.fsync(fd) == 0;
    int error = errno;
    if (fd >= 0)
        lum_platform.close(fd);
    if (forced)
        return 0;
    LumLog(LUM_LOG_FAILURE, 1, region_catalog, kSetReport, 31,
           "Failed to force directory \"%s\" to disk: %s", path, strerror(error));
    return error != 0 ? error : LUM_RC_FAILURE;
}

int32_t _LumFileHeaderRead(int fd, uint8_t *header) {
    return _LumPread(fd, header, file_header::kSize, 0) == file_header::kSize ? 0 : LUM_RC_FAILURE;
}
