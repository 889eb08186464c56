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

#include "platform.h"

namespace lum_system {

int FileOpen(const char *path, int flags, mode_t mode) {
    int fd;
    do {
        fd = ::open(path, flags | O_CLOEXEC, mode);
    } while (fd < 0 && errno == EINTR);
    return fd;
}

ssize_t FileRead(int fd, void *buffer, size_t count) {
    auto *at = static_cast<char *>(buffer);
    size_t done = 0;
    while (done < count) {
        ssize_t n = ::read(fd, at + done, count - done);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            return -1;
        if (n == 0)
            break;
        done += static_cast<size_t>(n);
    }
    return static_cast<ssize_t>(done);
}

ssize_t FileWrite(int fd, const void *buffer, size_t count) {
    const auto *at = static_cast<const char *>(buffer);
    size_t done = 0;
    while (done < count) {
        ssize_t n = ::write(fd, at + done, count - done);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return -1;
        done += static_cast<size_t>(n);
    }
    return static_cast<ssize_t>(done);
}

int FileStat(const char *path, struct stat *info) {
    return ::stat(path, info);
}

} // namespace lum_system
