// Virtual memory behind the platform seam, on mmap and mprotect.
//
// A reservation is an anonymous PROT_NONE mapping with MAP_NORESERVE, so it
// costs address space only. Committing turns pages read-write; decommitting
// maps fresh PROT_NONE pages over the range, which drops the old contents
// for good (an access faults, a write(2) from there fails with EFAULT) and
// makes a later commit of the same range read as zero.
//
// The process-wide write barrier is membarrier(2) in its expedited private
// form: the kernel interrupts every CPU that runs a thread of this process,
// and the interrupt is a full barrier there. The process registers for it
// once, at the first call.
#include <cerrno>
#include <linux/membarrier.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "platform/platform.h"

namespace lum_system {

void *VmReserve(size_t length) {
    void *address =
        mmap(nullptr, length, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    return address == MAP_FAILED ? nullptr : address;
}

int VmCommit(void *address, size_t length) {
    return mprotect(address, length, PROT_READ | PROT_WRITE) == 0 ? 0 : errno;
}

int VmPopulate(void *address, size_t length) {
    return madvise(address, length, MADV_POPULATE_WRITE) == 0 ? 0 : errno;
}

int VmDecommit(void *address, size_t length) {
    void *fresh = mmap(address, length, PROT_NONE,
                       MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE | MAP_FIXED, -1, 0);
    return fresh == MAP_FAILED ? errno : 0;
}

int VmRelease(void *address, size_t length) {
    return munmap(address, length) == 0 ? 0 : errno;
}

int VmProtect(void *address, size_t length, int writable) {
    int access = writable ? PROT_READ | PROT_WRITE : PROT_READ;
    return mprotect(address, length, access) == 0 ? 0 : errno;
}

uint32_t VmPageSize() {
    return static_cast<uint32_t>(getpagesize());
}

int VmFlushWriteBuffers() {
    static const int registered =
        syscall(SYS_membarrier, MEMBARRIER_CMD_REGISTER_PRIVATE_EXPEDITED, 0, 0) == 0 ? 0 : errno;
    if (registered != 0)
        return registered;
    return syscall(SYS_membarrier, MEMBARRIER_CMD_PRIVATE_EXPEDITED, 0, 0) == 0 ? 0 : errno;
}

} // namespace lum_system
