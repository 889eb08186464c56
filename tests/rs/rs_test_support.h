// Helpers of the runtime-layer tests: a temporary directory per test, scoped
// environment variables, a log capture through the sink, and a guard for the
// lum_malloc failure countdown.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "lum_rs.h"

namespace rs_test {

class TempDir {
  public:
    TempDir() {
        std::string pattern = (std::filesystem::temp_directory_path() / "lum_rs_XXXXXX").string();
        if (!mkdtemp(pattern.data()))
            std::abort();
        path_ = pattern;
    }
    ~TempDir() { std::filesystem::remove_all(path_); }

    const std::string &path() const { return path_; }
    std::string file(const std::string &name) const { return path_ + "/" + name; }
    std::string write(const std::string &name, const std::string &content) const {
        std::ofstream(file(name)) << content;
        return file(name);
    }

  private:
    std::string path_;
};

// Sets (or, with nullopt, unsets) an environment variable for a scope.
class ScopedEnv {
  public:
    ScopedEnv(const char *name, std::optional<std::string> value) : name_(name) {
        if (const char *old = std::getenv(name))
            old_ = old;
        apply(value);
    }
    ~ScopedEnv() { apply(old_); }

  private:
    void apply(const std::optional<std::string> &value) {
        if (value)
            setenv(name_.c_str(), value->c_str(), 1);
        else
            unsetenv(name_.c_str());
    }
    std::string name_;
    std::optional<std::string> old_;
};

struct LogRecord {
    int32_t severity;
    uint32_t set;
    uint32_t id;
    std::string text;
};

// Installs a sink that keeps the records, and restores the default log.
class LogCapture {
  public:
    LogCapture() { LumLogSetSink(&LogCapture::keep, this); }
    ~LogCapture() { LumLogSetSink(nullptr, nullptr); }

    std::vector<LogRecord> records() const {
        std::lock_guard guard(mutex_);
        return records_;
    }

  private:
    static void keep(void *context, int32_t severity, uint32_t set, uint32_t id, const char *text) {
        auto *capture = static_cast<LogCapture *>(context);
        std::lock_guard guard(capture->mutex_);
        capture->records_.push_back({severity, set, id, text});
    }
    mutable std::mutex mutex_;
    std::vector<LogRecord> records_;
};

// Schedules a lum_malloc failure and cancels it at the end of the scope.
class MallocFailure {
  public:
    explicit MallocFailure(uint32_t call) { lum_malloc_fail_at(call); }
    ~MallocFailure() { lum_malloc_fail_at(0); }
};

// A catalogue opened from `content` as "<name>.cat" in `dir`.
inline LumCatalog *open_catalog(const TempDir &dir, const char *name, const std::string &content) {
    dir.write(std::string(name) + ".cat", content);
    ScopedEnv path("LUM_CATALOG_PATH", dir.path());
    LumLocale *locale = nullptr;
    LumCatalog *catalog = nullptr;
    if (LumI18nLocaleCreate(0, 0, 0, 0, &locale) != 0 ||
        LumI18nCatalogOpen(locale, name, &catalog) != 0)
        return nullptr;
    return catalog;
}

} // namespace rs_test
