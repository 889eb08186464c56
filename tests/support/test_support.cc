#include "test_support.h"

#include <cerrno>
#include <cstdlib>
#include <dirent.h>
#include <filesystem>
#include <fstream>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

namespace lumtest {

LogCapture::LogCapture() {
    LumLogSetSink(&LogCapture::Sink, this);
}

LogCapture::~LogCapture() {
    LumLogSetSink(nullptr, nullptr);
}

void LogCapture::Sink(void *context, int32_t severity, uint32_t set, uint32_t id,
                      const char *text) {
    auto *self = static_cast<LogCapture *>(context);
    std::lock_guard<std::mutex> hold(self->mutex_);
    self->records_.push_back({severity, set, id, text});
}

std::vector<LogRecord> LogCapture::Records() const {
    std::lock_guard<std::mutex> hold(mutex_);
    return records_;
}

std::vector<LogRecord> LogCapture::Find(uint32_t set, uint32_t id) const {
    std::vector<LogRecord> found;
    for (const LogRecord &record : Records()) {
        if (record.set == set && record.id == id)
            found.push_back(record);
    }
    return found;
}

TempDir::TempDir() {
    std::string pattern = (std::filesystem::temp_directory_path() / "lumtest-XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr)
        abort();
    path_ = pattern + "/";
}

TempDir::~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

int RunInChild(const std::function<int()> &body) {
    fflush(nullptr);
    pid_t child = fork();
    if (child == 0)
        _exit(body());
    int status = 0;
    waitpid(child, &status, 0);
    return status;
}

static void ExitOnFault(int) {
    _exit(kFaultExit);
}

bool FaultsInChild(const std::function<void()> &access) {
    int status = RunInChild([&] {
        struct sigaction action {};
        action.sa_handler = ExitOnFault;
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

std::vector<std::string> ThreadNames() {
    std::vector<std::string> names;
    for (const auto &task : std::filesystem::directory_iterator("/proc/self/task")) {
        std::ifstream comm(task.path() / "comm");
        std::string name;
        if (std::getline(comm, name))
            names.push_back(name);
    }
    return names;
}

} // namespace lumtest

namespace lumtest {

VmRecorder *VmRecorder::active_;

VmRecorder::VmRecorder() {
    active_ = this;
    lum_platform.commit = Commit;
    lum_platform.decommit = Decommit;
    lum_platform.protect = Protect;
}

VmRecorder::~VmRecorder() {
    active_ = nullptr;
}

int VmRecorder::Commit(void *address, size_t length) {
    active_->commits.push_back({address, length, 1});
    return active_->fail_commit ? ENOMEM : lum_platform_system.commit(address, length);
}

int VmRecorder::Decommit(void *address, size_t length) {
    active_->decommits.push_back({address, length, 0});
    return active_->fail_decommit ? EINVAL : lum_platform_system.decommit(address, length);
}

int VmRecorder::Protect(void *address, size_t length, int writable) {
    active_->protects.push_back({address, length, writable});
    return lum_platform_system.protect(address, length, writable);
}

} // namespace lumtest

namespace lumtest {

FileFaults *FileFaults::active_;

FileFaults::FileFaults() {
    active_ = this;
    lum_platform.write = Write;
    lum_platform.pwrite = Pwrite;
    lum_platform.open = Open;
    lum_platform.rename = Rename;
    lum_platform.ftruncate = Ftruncate;
    lum_platform.fsync = Fsync;
}

FileFaults::~FileFaults() {
    active_ = nullptr;
}

bool FileFaults::FailsNow() {
    return ++active_->writes == active_->fail_write_at;
}

ssize_t FileFaults::Write(int fd, const void *buffer, size_t count) {
    if (!FailsNow())
        return lum_platform_system.write(fd, buffer, count);
    if (active_->short_write)
        return lum_platform_system.write(fd, buffer, count / 2);
    errno = active_->write_errno;
    return -1;
}

ssize_t FileFaults::Pwrite(int fd, const void *buffer, size_t count, off_t offset) {
    if (!FailsNow())
        return lum_platform_system.pwrite(fd, buffer, count, offset);
    if (active_->short_write)
        return lum_platform_system.pwrite(fd, buffer, count / 2, offset);
    errno = active_->write_errno;
    return -1;
}

int FileFaults::Open(const char *path, int flags, mode_t mode) {
    ++active_->opens;
    const std::string &suffix = active_->fail_open_suffix;
    std::string name(path);
    if (!suffix.empty() && name.size() >= suffix.size() &&
        name.compare(name.size() - suffix.size(), suffix.size(), suffix) == 0) {
        errno = EACCES;
        return -1;
    }
    return lum_platform_system.open(path, flags, mode);
}

int FileFaults::Rename(const char *from, const char *to) {
    ++active_->renames;
    if (active_->fail_rename) {
        errno = EXDEV;
        return -1;
    }
    return lum_platform_system.rename(from, to);
}

int FileFaults::Ftruncate(int fd, off_t length) {
    ++active_->ftruncates;
    if (active_->fail_ftruncate) {
        errno = EIO;
        return -1;
    }
    return lum_platform_system.ftruncate(fd, length);
}

int FileFaults::Fsync(int fd) {
    ++active_->fsyncs;
    return lum_platform_system.fsync(fd);
}

std::vector<uint8_t> ReadFile(const std::string &path) {
    std::ifstream file(path, std::ios::binary);
    return std::vector<uint8_t>(std::istreambuf_iterator<char>(file), {});
}

bool FileExists(const std::string &path) {
    return std::filesystem::exists(path);
}

} // namespace lumtest
