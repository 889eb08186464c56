// The platform seam's table: production entries from posix_vm.cc and
// posix_file.cc, plain POSIX calls where no wrapping is needed.
#include <cstdio>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/platform.h"

using namespace lum_system;

const LumPlatform lum_platform_system = {
    .reserve = VmReserve,
    .commit = VmCommit,
    .decommit = VmDecommit,
    .release = VmRelease,
    .protect = VmProtect,
    .populate = VmPopulate,
    .page_size = VmPageSize,
    .flush_write_buffers = VmFlushWriteBuffers,
    .open = FileOpen,
    .close = ::close,
    .read = FileRead,
    .write = FileWrite,
    .pread = FilePread,
    .pwrite = FilePwrite,
    .lseek = ::lseek,
    .ftruncate = ::ftruncate,
    .fsync = ::fsync,
    .fdatasync = ::fdatasync,
    .unlink = ::unlink,
    .rename = ::rename,
    .stat = FileStat,
    .mkdir = ::mkdir,
    .flock = ::flock,
};

LumPlatform lum_platform = lum_platform_system;
