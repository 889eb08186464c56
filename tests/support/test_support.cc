#include "test_support.h"

#include <fstream>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

namespace lumtest {

int RunInChild(const std::function<int()> &body) {
    fflush(nullptr);
    pid_t child = fork();
    if (child == 0)
        _exit(body());
    int status = 0;
    waitpid(child, &status, 0);
    return status;
}

bool FaultsInChild(const std::function<void()> &access) {
    constexpr int kFaultExit = 77;
    int status = RunInChild([&] {
        struct sigaction action {};
        action.sa_handler = [](int) { _exit(kFaultExit); };
        sigaction(SIGSEGV, &action, nullptr);
        sigaction(SIGBUS, &action, nullptr);
        access();
        return 0;
    });
    return ExitCode(status) == kFaultExit;
}

int ExitCode(int status) {
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

VmRecorder::VmRecorder() {
    active_ = this;
    lum_platform.commit = [](void *address, size_t length) {
        active_->commits.push_back({address, length, 1});
        return active_->fail_commit ? ENOMEM : lum_platform_system.commit(address, length);
    };
    lum_platform.decommit = [](void *address, size_t length) {
        active_->decommits.push_back({address, length, 0});
        return active_->fail_decommit ? EINVAL : lum_platform_system.decommit(address, length);
    };
    lum_platform.protect = [](void *address, size_t length, int writable) {
        active_->protects.push_back({address, length, writable});
        return lum_platform_system.protect(address, length, writable);
    };
}

template <typename Pass> ssize_t FileFaults::Write(size_t count, Pass pass) {
    if (++active_->writes != active_->fail_write_at)
        return pass(count);
    if (active_->short_write)
        return pass(count / 2);
    errno = ENOSPC;
    return -1;
}

// Fails a call with `error` when `fails`, else passes it on.
template <typename Pass> static int FailOrPass(bool fails, int error, Pass pass) {
    if (!fails)
        return pass();
    errno = error;
    return -1;
}

FileFaults::FileFaults() {
    active_ = this;
    lum_platform.write = [](int fd, const void *buffer, size_t count) {
        return Write(count, [&](size_t n) { return lum_platform_system.write(fd, buffer, n); });
    };
    lum_platform.pwrite = [](int fd, const void *buffer, size_t count, off_t offset) {
        return Write(count,
                     [&](size_t n) { return lum_platform_system.pwrite(fd, buffer, n, offset); });
    };
    lum_platform.open = [](const char *path, int flags, mode_t mode) {
        const std::string &suffix = active_->fail_open_suffix;
        ++active_->opens;
        return FailOrPass(!suffix.empty() && std::string_view(path).ends_with(suffix), EACCES,
                          [&] { return lum_platform_system.open(path, flags, mode); });
    };
    lum_platform.rename = [](const char *from, const char *to) {
        return FailOrPass(active_->fail_rename, EXDEV,
                          [&] { return lum_platform_system.rename(from, to); });
    };
    lum_platform.ftruncate = [](int fd, off_t length) {
        return FailOrPass(active_->fail_ftruncate, EIO,
                          [&] { return lum_platform_system.ftruncate(fd, length); });
    };
}

std::vector<uint8_t> ReadFile(const std::string &path) {
    std::ifstream file(path, std::ios::binary);
    return std::vector<uint8_t>(std::istreambuf_iterator<char>(file), {});
}

} // namespace lumtest
