// File-call faults for lumregion-faults: hooks on every file entry of the
// platform seam that number the calls and fail the chosen ones.
#pragma once

#include <cstdint>

namespace faults {

// How the chosen call fails. Writes (write, pwrite) fail in each of the
// three ways; every other call fails with EIO.
enum class IoFailure : uint8_t { kError, kNoSpace, kShortWrite };

struct IoPlan {
    int64_t fail_at = 0;  // the number of the call that fails, 1 for the first; 0: none
    bool from_on = false; // every call after it fails too
    IoFailure failure = IoFailure::kError;
};

// The file entries of the seam, as the hooks number them.
enum class IoEntry : uint8_t {
    kOpen,
    kClose,
    kRead,
    kWrite,
    kPread,
    kPwrite,
    kLseek,
    kFtruncate,
    kFsync,
    kFdatasync,
    kUnlink,
    kRename,
    kStat,
    kMkdir,
    kFlock
};
const char *IoEntryName(IoEntry entry);
inline bool IsWrite(IoEntry entry) {
    return entry == IoEntry::kWrite || entry == IoEntry::kPwrite;
}

// Installs the hooks in `lum_platform`. When `record` is given, its entry
// i (up to `capacity`) is set to the entry of call i + 1.
void InstallIoFaults(const IoPlan &plan, IoEntry *record, uint32_t capacity);

// The calls numbered so far, and whether the plan has failed one.
int64_t IoCalls();
bool IoFaultFired();

} // namespace faults
