// Helpers that need only the runtime layer, shared with its own tests.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <string>
#include <vector>

#include "lum_rs.h"

namespace lumtest {

struct LogRecord {
    int32_t severity;
    uint32_t set, id;
    std::string text;
};

// Captures every log record while it lives.
class LogCapture {
  public:
    LogCapture() { LumLogSetSink(&LogCapture::Sink, this); }
    ~LogCapture() { LumLogSetSink(nullptr, nullptr); }
    std::vector<LogRecord> Records() const {
        std::lock_guard<std::mutex> hold(mutex_);
        return records_;
    }
    std::vector<LogRecord> Find(uint32_t set, uint32_t id) const {
        std::vector<LogRecord> found = Records();
        std::erase_if(found, [&](const LogRecord &r) { return r.set != set || r.id != id; });
        return found;
    }
    // Each record as "<severity> <set>/<id> <text>".
    std::vector<std::string> Lines() const {
        std::vector<std::string> lines;
        for (const LogRecord &r : Records())
            lines.push_back(std::to_string(r.severity) + " " + std::to_string(r.set) + "/" +
                            std::to_string(r.id) + " " + r.text);
        return lines;
    }

  private:
    static void Sink(void *context, int32_t severity, uint32_t set, uint32_t id, const char *text) {
        auto *self = static_cast<LogCapture *>(context);
        std::lock_guard<std::mutex> hold(self->mutex_);
        self->records_.push_back({severity, set, id, text});
    }
    mutable std::mutex mutex_;
    std::vector<LogRecord> records_;
};

// The exception pending in this thread as "<class>|<message>|<value>",
// cleared; empty when there is none.
inline std::string TakeException() {
    LumException raised{};
    if (LumThreadExceptionGet(&raised) != 0)
        return "";
    LumThreadExceptionClear();
    return std::string(raised.class_name) + "|" + raised.message + "|" + raised.value;
}

// A fresh temporary directory, removed on scope exit; path() ends in '/'.
class TempDir {
  public:
    TempDir() : path_((std::filesystem::temp_directory_path() / "lumtest-XXXXXX").string()) {
        if (mkdtemp(path_.data()) == nullptr)
            abort();
        path_ += "/";
    }
    ~TempDir() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    const std::string &path() const { return path_; }
    // The path of file `name`, written with `content`.
    std::string Write(const std::string &name, const std::string &content) const {
        std::ofstream(path_ + name) << content;
        return path_ + name;
    }

  private:
    std::string path_;
};

} // namespace lumtest
