// File calls behind the platform seam. They give the library the semantics
// it was written against: a write transfers the whole buffer or fails, a
// read fills the buffer unless the file ends first, and neither returns
// early because a signal arrived.
//
// A write whose buffer lies in memory that was decommitted under it (an
// image shrinking while a checkpoint or a sync writes it out) fails with -1
// and errno EFAULT; the kernel reports that without a signal, so the process
// goes on.
#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

#include "platform/platform.h"

namespace lum_system {

int FileOpen(const char *path, int flags, mode_t mode) {
    int fd;
    do {
        fd = ::open(path, flags | O_CLOEXEC, mode);
    } while (fd < 0 && errno == EINTR);
    return fd;
}

namespace {

// Moves `count` bytes with `step` (a read or write at a running position),
// retrying after signals and partial transfers. A read stops at the end of
// the file; a write that transfers nothing is a failure.
template <typename Step> ssize_t Transfer(size_t count, bool is_write, Step step) {
    size_t done = 0;
    while (done < count) {
        ssize_t n = step(done);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0 || (n == 0 && is_write))
            return -1;
        if (n == 0)
            break;
        done += static_cast<size_t>(n);
    }
    return static_cast<ssize_t>(done);
}

} // namespace

ssize_t FileRead(int fd, void *buffer, size_t count) {
    auto *at = static_cast<char *>(buffer);
    return Transfer(count, false, [&](size_t done) { return ::read(fd, at + done, count - done); });
}

ssize_t FileWrite(int fd, const void *buffer, size_t count) {
    const auto *at = static_cast<const char *>(buffer);
    return Transfer(count, true, [&](size_t done) { return ::write(fd, at + done, count - done); });
}

ssize_t FilePread(int fd, void *buffer, size_t count, off_t offset) {
    auto *at = static_cast<char *>(buffer);
    return Transfer(count, false, [&](size_t done) {
        return ::pread(fd, at + done, count - done, offset + static_cast<off_t>(done));
    });
}

ssize_t FilePwrite(int fd, const void *buffer, size_t count, off_t offset) {
    const auto *at = static_cast<const char *>(buffer);
    return Transfer(count, true, [&](size_t done) {
        return ::pwrite(fd, at + done, count - done, offset + static_cast<off_t>(done));
    });
}

int FileStat(const char *path, struct stat *info) {
    return ::stat(path, info);
}

} // namespace lum_system
