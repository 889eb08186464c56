// The platform seam: every virtual-memory and file call of the library goes
// through the one table `lum_platform`, so that tests can swap an entry to
// inject a failure (as an Env or a VFS does in other storage engines).
//
// Contracts of the virtual-memory entries (all lengths are page multiples
// and all addresses page-aligned; the image layer guarantees both):
//   reserve   sets aside `length` bytes of address space with no memory
//             behind it; any access faults. Null on failure.
//   commit    puts readable, writable memory behind a range of a
//             reservation. Pages not committed before read as zero.
//   decommit  takes the memory away: contents are lost, a later access
//             faults, and write(2) from the range fails with EFAULT. The
//             addresses stay reserved.
//   release   gives a whole reservation back.
//   protect   sets whole pages read-only (writable == 0) or read-write.
//   populate  puts memory behind committed pages, so that stores into
//             them take no page fault per page. Only a matter of speed:
//             callers ignore a failure.
//   flush_write_buffers
//             makes every store that any thread of the process has made
//             before the call visible to the caller, by having each of
//             them pass a full memory barrier. 0 or an errno value; a
//             system without it fails every call.
// The file entries follow their POSIX namesakes: -1 and errno on failure.
// The transfers move the whole count unless the file ends (reads) or an
// error stops them, so callers never see a short count that a retry would
// have completed.
#pragma once

#include <cstddef>
#include <cstdint>
#include <sys/stat.h>
#include <sys/types.h>

struct LumPlatform {
    // Virtual memory. All return 0 or an errno value, except reserve.
    void *(*reserve)(size_t length);
    int (*commit)(void *address, size_t length);
    int (*decommit)(void *address, size_t length);
    int (*release)(void *address, size_t length);
    int (*protect)(void *address, size_t length, int writable);
    int (*populate)(void *address, size_t length);
    uint32_t (*page_size)();
    int (*flush_write_buffers)();

    // Files, with the effect of the host runtime's calls of the same role.
    int (*open)(const char *path, int flags, mode_t mode);
    int (*close)(int fd);
    ssize_t (*read)(int fd, void *buffer, size_t count);
    ssize_t (*write)(int fd, const void *buffer, size_t count);
    ssize_t (*pread)(int fd, void *buffer, size_t count, off_t offset);
    ssize_t (*pwrite)(int fd, const void *buffer, size_t count, off_t offset);
    off_t (*lseek)(int fd, off_t offset, int whence);
    int (*ftruncate)(int fd, off_t length);
    int (*fsync)(int fd);
    int (*fdatasync)(int fd);
    int (*unlink)(const char *path);
    int (*rename)(const char *from, const char *to);
    int (*stat)(const char *path, struct stat *info);
    int (*mkdir)(const char *path, mode_t mode);
    int (*flock)(int fd, int operation);
};

// The table in use. Production fills it with the system calls; a test may
// replace entries and must put the originals back (see tests' PlatformGuard).
extern LumPlatform lum_platform;

// The production table, for tests that want to call through to the system.
extern const LumPlatform lum_platform_system;

// The system's implementations that make up lum_platform_system.
namespace lum_system {
void *VmReserve(size_t length);
int VmCommit(void *address, size_t length);
int VmDecommit(void *address, size_t length);
int VmRelease(void *address, size_t length);
int VmProtect(void *address, size_t length, int writable);
int VmPopulate(void *address, size_t length);
uint32_t VmPageSize();
int VmFlushWriteBuffers();
int FileOpen(const char *path, int flags, mode_t mode);
ssize_t FileRead(int fd, void *buffer, size_t count);
ssize_t FileWrite(int fd, const void *buffer, size_t count);
ssize_t FilePread(int fd, void *buffer, size_t count, off_t offset);
ssize_t FilePwrite(int fd, const void *buffer, size_t count, off_t offset);
int FileStat(const char *path, struct stat *info);
} // namespace lum_system
