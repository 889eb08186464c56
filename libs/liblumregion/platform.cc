// The platform seam's table: production entries from platform_vm.cc and
// platform_file.cc, plain POSIX calls where no wrapping is needed.
#include <cstdio>
#include <sys/stat.h>
#include <unistd.h>

#include "platform.h"

using namespace lum_system;

const LumPlatform lum_platform_system = {
    VmReserve, VmCommit, VmDecommit,  VmRelease, VmProtect, VmPageSize, FileOpen, ::close, FileRead,
    FileWrite, ::lseek,  ::ftruncate, ::fsync,   ::unlink,  ::rename,   FileStat, ::mkdir,
};

LumPlatform lum_platform = lum_platform_system;
