// Helpers of the library's suites: guards that swap platform entries or
// fail a lum_malloc and put things back, and child processes.
#pragma once

#include <cerrno>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "capture.h"
#include "platform/platform.h"

namespace lumtest {

// Restores the whole platform table on scope exit.
class PlatformGuard {
  public:
    PlatformGuard() : saved_(lum_platform) {}
    ~PlatformGuard() { lum_platform = saved_; }
    PlatformGuard(const PlatformGuard &) = delete;
    PlatformGuard &operator=(const PlatformGuard &) = delete;

  private:
    LumPlatform saved_;
};

// Schedules the n-th lum_malloc from now to fail; cancels it on scope exit.
struct MallocFailure {
    explicit MallocFailure(uint32_t nth) { lum_malloc_fail_at(nth); }
    ~MallocFailure() { lum_malloc_fail_at(0); }
};

// The waitpid status of a forked child that exits with body's result.
int RunInChild(const std::function<int()> &body);

// True when `access`, run in a forked child, raises SIGSEGV or SIGBUS.
bool FaultsInChild(const std::function<void()> &access);
// The exit code of a child that exited normally, -1 otherwise.
int ExitCode(int status);

struct VmCall {
    void *address;
    size_t length;
    int writable; // protect only
};

// Records the commit, decommit and protect calls made while it lives and
// passes them on, or fails them when the fail_ flag is set.
struct VmRecorder {
    VmRecorder();
    ~VmRecorder() { active_ = nullptr; }
    std::vector<VmCall> commits, decommits, protects;
    bool fail_commit = false, fail_decommit = false;

  private:
    static inline VmRecorder *active_;
    PlatformGuard guard_;
};

// Fails chosen file calls while it lives and passes the others on.
struct FileFaults {
    FileFaults();
    ~FileFaults() { active_ = nullptr; }
    int fail_write_at = 0;        // the n-th write from now fails with ENOSPC (1 is the next)
    bool short_write = false;     // ... or writes half and reports it
    std::string fail_open_suffix; // opens of paths ending so fail with EACCES
    bool fail_rename = false;     // renames fail with EXDEV
    bool fail_ftruncate = false;  // truncates fail with EIO
    int writes = 0, opens = 0;

  private:
    template <typename Pass> static ssize_t Write(size_t count, Pass pass);
    static inline FileFaults *active_;
    PlatformGuard guard_;
};

// The whole content of a file; empty when it cannot be read.
std::vector<uint8_t> ReadFile(const std::string &path);

} // namespace lumtest
