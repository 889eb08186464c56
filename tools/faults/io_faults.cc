// File-call faults: every file entry of the platform seam numbers its call
// and fails it when the plan says so (see io_faults.h).
#include "io_faults.h"

#include <atomic>
#include <cerrno>

#include "platform/platform.h"

namespace faults {
namespace {

IoPlan plan;
IoEntry *call_record = nullptr;
uint32_t record_capacity = 0;
std::atomic<int64_t> calls{0};
std::atomic<bool> fired{false};

// Numbers one call; true when it is to fail.
bool Fails(IoEntry entry) {
    int64_t number = ++calls;
    if (call_record != nullptr && number <= record_capacity)
        call_record[number - 1] = entry;
    bool due =
        plan.fail_at > 0 && (number == plan.fail_at || (plan.from_on && number > plan.fail_at));
    if (due)
        fired = true;
    return due;
}

// An entry other than a write or a close: EIO instead of the call.
template <auto kEntry, IoEntry kName> struct Hook;
template <typename R, typename... Args, R (*LumPlatform::*kEntry)(Args...), IoEntry kName>
struct Hook<kEntry, kName> {
    static R Call(Args... args) {
        if (!Fails(kName))
            return (lum_platform_system.*kEntry)(args...);
        errno = EIO;
        return R(-1);
    }
};

// A write: an error, or half of the bytes written and reported.
template <typename Pass> ssize_t Write(IoEntry entry, size_t count, Pass pass) {
    if (!Fails(entry))
        return pass(count);
    if (plan.failure == IoFailure::kShortWrite)
        return pass(count / 2);
    errno = plan.failure == IoFailure::kNoSpace ? ENOSPC : EIO;
    return -1;
}

} // namespace

const char *IoEntryName(IoEntry entry) {
    static const char *const kNames[] = {"open",   "close",  "read",      "write", "pread",
                                         "pwrite", "lseek",  "ftruncate", "fsync", "fdatasync",
                                         "unlink", "rename", "stat",      "mkdir", "flock"};
    return kNames[static_cast<int>(entry)];
}

void InstallIoFaults(const IoPlan &chosen, IoEntry *record, uint32_t capacity) {
    plan = chosen;
    call_record = record;
    record_capacity = capacity;
    lum_platform.open = Hook<&LumPlatform::open, IoEntry::kOpen>::Call;
    lum_platform.close = [](int fd) { // closes even when it fails, as close(2) does
        int result = lum_platform_system.close(fd);
        if (!Fails(IoEntry::kClose))
            return result;
        errno = EIO;
        return -1;
    };
    lum_platform.read = Hook<&LumPlatform::read, IoEntry::kRead>::Call;
    lum_platform.pread = Hook<&LumPlatform::pread, IoEntry::kPread>::Call;
    lum_platform.lseek = Hook<&LumPlatform::lseek, IoEntry::kLseek>::Call;
    lum_platform.ftruncate = Hook<&LumPlatform::ftruncate, IoEntry::kFtruncate>::Call;
    lum_platform.fsync = Hook<&LumPlatform::fsync, IoEntry::kFsync>::Call;
    lum_platform.fdatasync = Hook<&LumPlatform::fdatasync, IoEntry::kFdatasync>::Call;
    lum_platform.unlink = Hook<&LumPlatform::unlink, IoEntry::kUnlink>::Call;
    lum_platform.rename = Hook<&LumPlatform::rename, IoEntry::kRename>::Call;
    lum_platform.stat = Hook<&LumPlatform::stat, IoEntry::kStat>::Call;
    lum_platform.mkdir = Hook<&LumPlatform::mkdir, IoEntry::kMkdir>::Call;
    lum_platform.flock = Hook<&LumPlatform::flock, IoEntry::kFlock>::Call;
    lum_platform.write = [](int fd, const void *bytes, size_t count) {
        return Write(IoEntry::kWrite, count,
                     [&](size_t part) { return lum_platform_system.write(fd, bytes, part); });
    };
    lum_platform.pwrite = [](int fd, const void *bytes, size_t count, off_t at) {
        return Write(IoEntry::kPwrite, count,
                     [&](size_t part) { return lum_platform_system.pwrite(fd, bytes, part, at); });
    };
}

int64_t IoCalls() {
    return calls;
}

bool IoFaultFired() {
    return fired;
}

} // namespace faults
