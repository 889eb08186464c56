// Shared helpers of the library's test suites: guards that swap platform
// entries or schedule lum_malloc failures and put things back, and a way to
// run a piece of a test in a child process; with those of capture.h.
#pragma once

#include <cerrno>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "capture.h"
#include "platform/platform.h"

namespace lumtest {

// Restores the whole platform table when it goes out of scope, so a test
// may replace any entries it likes.
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

// Runs `body` in a forked child and returns its exit status as waitpid
// reports it. The child exits with body's result, or dies of a signal.
int RunInChild(const std::function<int()> &body);

// Runs `access` in a forked child that turns SIGSEGV and SIGBUS into an
// exit of its own: true when the access faulted.
bool FaultsInChild(const std::function<void()> &access);
// The exit code of a child that exited normally, -1 otherwise.
int ExitCode(int status);

// One call of a virtual-memory entry, as a recording platform saw it.
struct VmCall {
    void *address;
    size_t length;
    int writable; // protect only
};

// Records the commit, decommit and protect calls made while it lives, and
// passes them on to the system. Calls fail on purpose when the matching
// fail_ flag is set.
struct VmRecorder {
    VmRecorder();
    ~VmRecorder() { active_ = nullptr; }
    std::vector<VmCall> commits, decommits, protects;
    bool fail_commit = false, fail_decommit = false;

  private:
    static inline VmRecorder *active_;
    PlatformGuard guard_;
};

// Makes chosen file calls fail while it lives; every other call goes to the
// system. Counts the writes and opens it sees.
struct FileFaults {
    FileFaults();
    ~FileFaults() { active_ = nullptr; }
    int fail_write_at = 0;        // the n-th write from now fails (1 is the next)
    int write_errno = ENOSPC;     // ... with this errno, or
    bool short_write = false;     // ... writes half and reports it
    std::string fail_open_suffix; // opens of paths ending so fail with EACCES
    bool fail_rename = false;     // renames fail with EXDEV
    bool fail_ftruncate = false;  // truncates fail with EIO
    int writes = 0, opens = 0;

  private:
    // A write (or pwrite) through `pass`, unless it is the one that fails.
    template <typename Pass> static ssize_t Write(size_t count, Pass pass);
    static inline FileFaults *active_;
    PlatformGuard guard_;
};

// The whole content of a file; empty when it cannot be read.
std::vector<uint8_t> ReadFile(const std::string &path);

} // namespace lumtest
