// Helpers of the runtime layer's tests.
#pragma once

#include <optional>

#include "support/capture.h"

namespace rs_test {

using lumtest::LogCapture;
using lumtest::TempDir;

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

// A catalogue opened from `content` as "<name>.cat" in `dir`.
inline LumCatalog *open_catalog(const TempDir &dir, const char *name, const std::string &content) {
    dir.Write(std::string(name) + ".cat", content);
    ScopedEnv path("LUM_CATALOG_PATH", dir.path());
    LumCatalog *catalog = nullptr;
    return LumI18nCatalogOpen(nullptr, name, &catalog) == 0 ? catalog : nullptr;
}

} // namespace rs_test
