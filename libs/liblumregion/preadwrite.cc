// Positioned reads and writes, at a file offset and without moving the
// descriptor's position, so that the checkpoint and the sync never race a
// seek. The checkpoint and the sync write straight from the image, whose
// pages may be decommitted under them when it shrinks; the kernel then fails
// the write with EFAULT, which callers tell apart from a full disk or a bad
// descriptor, and the process goes on.
#include "durable.h"
#include "platform.h"

ssize_t _LumPread(int fd, void *buffer, uint32_t count, int64_t offset) {
    return lum_platform.pread(fd, buffer, count, static_cast<off_t>(offset));
}

ssize_t _LumPwrite(int fd, const void *buffer, uint32_t count, int64_t offset) {
    return lum_platform.pwrite(fd, buffer, count, static_cast<off_t>(offset));
}
