// Helpers of the runtime-layer tests: a temporary directory, scoped
// environment variables, a log capture.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <vector>

#include "lum_rs.h"

namespace rs_test {

class TempDir {
  public:
    TempDir() : path_((std::filesystem::temp_directory_path() / "lum_rs_XXXXXX").string()) {
        if (!mkdtemp(path_.data()))
            std::abort();
    }
    ~TempDir() { std::filesystem::remove_all(path_); }
    const std::string &path() const { return path_; }
    std::string write(const std::string &name, const std::string &content) const {
        std::ofstream(path_ + "/" + name) << content;
        return path_ + "/" + name;
    }

  private:
    std::string path_;
};

// Sets (or, with nullopt, unsets) an environment variable for a scope.
class ScopedEnv {
  public:
    ScopedEnv(const char *name, const std::optional<std::string> &value) : name_(name) {
        if (const char *old = std::getenv(name))
            old_ = old;
        apply(value);
    }
    ~ScopedEnv() { apply(old_); }

  private:
    void apply(const std::optional<std::string> &value) {
        value ? setenv(name_.c_str(), value->c_str(), 1) : unsetenv(name_.c_str());
    }
    std::string name_;
    std::optional<std::string> old_;
};

// Keeps each record as "<severity> <set>/<id> <text>" while it lives.
struct LogCapture {
    LogCapture() { LumLogSetSink(&LogCapture::keep, this); }
    ~LogCapture() { LumLogSetSink(nullptr, nullptr); }
    static void keep(void *context, int32_t severity, uint32_t set, uint32_t id, const char *text) {
        static_cast<LogCapture *>(context)->records.push_back(std::to_string(severity) + " " +
                                                              std::to_string(set) + "/" +
                                                              std::to_string(id) + " " + text);
    }
    std::vector<std::string> records;
};

// A catalogue opened from `content` as "<name>.cat" in `dir`.
inline LumCatalog *open_catalog(const TempDir &dir, const char *name, const std::string &content) {
    dir.write(std::string(name) + ".cat", content);
    ScopedEnv path("LUM_CATALOG_PATH", dir.path());
    LumCatalog *catalog = nullptr;
    return LumI18nCatalogOpen(nullptr, name, &catalog) == 0 ? catalog : nullptr;
}

} // namespace rs_test
