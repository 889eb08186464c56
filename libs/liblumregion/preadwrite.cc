// Positioned reads and writes: a seek, then one transfer at the shared
// file position. The checkpoint and the sync write straight from the image,
// whose pages may be decommitted under them when it shrinks; the kernel
// then fails the write with EFAULT, which callers tell apart from a full
// disk or a bad descriptor.
#include <unistd.h>

#include "durable.h"
#include "platform.h"

namespace {

bool SeekTo(int fd, int64_t offset) {
    return lum_platform.lseek(fd, static_cast<off_t>(offset), SEEK_SET) == offset;
}

} // namespace

ssize_t _LumPread(int fd, void *buffer, uint32_t count, int64_t offset) {
    return SeekTo(fd, offset) ? lum_platform.read(fd, buffer, count) : -1;
}

ssize_t _LumPwrite(int fd, const void *buffer, uint32_t count, int64_t offset) {
    return SeekTo(fd, offset) ? lum_platform.write(fd, buffer, count) : -1;
}
