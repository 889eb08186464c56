// The log: LumLog, its sink and its default destination.
//
// A record is formatted from the catalogue's text of (set, id) when the
// catalogue has one that takes the same arguments as the caller's format,
// else from the caller's format. Messages longer than kMaxMessage - 1 bytes
// are truncated.
//
// Without a sink, a record is one line, "<UTC time> <severity> <thread id>
// <message>", written with one write(2) to the file named by LUM_LOG_FILE
// (opened for appending at the first such record) or to stderr. With a sink,
// the sink receives the message alone. The log lock serialises both, so
// lines never interleave and a sink is not called once it was replaced.
#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <mutex>
#include <unistd.h>

#include "rs_internal.h"

namespace {

constexpr size_t kMaxMessage = 4096;
constexpr size_t kMaxPrefix = 64;

struct LogState {
    lum_rs::Lock lock;
    LumLogSink sink = nullptr;
    void *context = nullptr;
    int fd = -1; // default destination; -1 until the first record needs it
};
constinit LogState log_state;

// True while this thread runs the sink, and so holds the log lock.
thread_local bool inside_sink = false;

// Runs `action` holding the log lock; a sink that logs or replaces itself
// holds it already.
template <class Action> void with_log_lock(Action &&action) {
    if (inside_sink) {
        action();
        return;
    }
    std::lock_guard guard(log_state.lock);
    action();
}

// Moves past the next conversion of `format` and gives what decides the
// argument it reads ('*', length modifiers, the letter) packed into a
// number; 0 at the end of the format, 1 for a '%' that ends it.
uint64_t next_conversion(std::string_view &format) {
    for (;;) {
        const size_t percent = format.find('%');
        if (percent == std::string_view::npos)
            return 0;
        format.remove_prefix(percent + 1);
        if (format.empty())
            return 1;
        if (format[0] == '%') {
            format.remove_prefix(1);
            continue;
        }
        uint64_t kind = 0;
        while (!format.empty()) {
            const char c = format[0];
            format.remove_prefix(1);
            if (std::strchr("-+ #0123456789.$'", c))
                continue;
            kind = (kind << 8) | static_cast<unsigned char>(c);
            if (!std::strchr("*hlLqjzt", c))
                break;
        }
        return kind ? kind : 1;
    }
}

bool same_conversions(std::string_view one, std::string_view other) {
    for (;;) {
        const uint64_t kind = next_conversion(one);
        if (kind != next_conversion(other))
            return false;
        if (kind == 0)
            return true;
    }
}

// The format of a record. A catalogue text that would read other arguments
// than the caller passed is not used.
const char *record_format(const LumCatalog *catalog, uint32_t set, uint32_t id,
                          const char *format) {
    const char *fallback = format ? format : "";
    const char *translated = lum_rs::catalog_find(catalog, set, id);
    return translated && same_conversions(translated, fallback) ? translated : fallback;
}

// Severities without a name of their own (3, or out of range) show as NOTICE.
const char *severity_name(int32_t severity) {
    switch (severity) {
    case LUM_LOG_DEBUG:
        return "DEBUG";
    case LUM_LOG_PROGRESS:
        return "PROGRESS";
    case LUM_LOG_FAILURE:
        return "FAILURE";
    case LUM_LOG_ERROR:
        return "ERROR";
    default:
        return "NOTICE";
    }
}

// Writes the line prefix: time with milliseconds (UTC), severity, thread id.
size_t write_prefix(char *line, int32_t severity) {
    timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    tm utc;
    gmtime_r(&now.tv_sec, &utc);
    const int length =
        std::snprintf(line, kMaxPrefix, "%04d-%02d-%02dT%02d:%02d:%02d.%03ldZ %s %u ",
                      utc.tm_year + 1900, utc.tm_mon + 1, utc.tm_mday, utc.tm_hour, utc.tm_min,
                      utc.tm_sec, now.tv_nsec / 1000000, severity_name(severity), LumThreadGetID());
    return length > 0 ? std::min(static_cast<size_t>(length), kMaxPrefix - 1) : 0;
}

// Composes the record's line; control characters of the message become
// blanks, so that a record stays one line.
size_t compose_line(char (&line)[kMaxPrefix + kMaxMessage], int32_t severity,
                    std::string_view message) {
    size_t length = write_prefix(line, severity);
    while (!message.empty() && message.back() == '\n')
        message.remove_suffix(1);
    for (const char c : message)
        line[length++] = static_cast<unsigned char>(c) < 0x20 ? ' ' : c;
    line[length++] = '\n';
    return length;
}

void write_all(int fd, const char *data, size_t length) {
    while (length > 0) {
        const ssize_t written = ::write(fd, data, length);
        if (written < 0 && errno == EINTR)
            continue;
        if (written <= 0)
            return;
        data += written;
        length -= static_cast<size_t>(written);
    }
}

// The default destination, opened at the first use. Requires the log lock.
int default_destination() {
    if (log_state.fd >= 0)
        return log_state.fd;
    log_state.fd = STDERR_FILENO;
    const char *path = std::getenv("LUM_LOG_FILE");
    if (path && *path) {
        const int fd = ::open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
        if (fd >= 0)
            log_state.fd = fd;
        else
            std::fprintf(stderr, "LUM_LOG_FILE %s: %s; logging to stderr\n", path,
                         std::strerror(errno));
    }
    return log_state.fd;
}

void deliver(int32_t severity, uint32_t set, uint32_t id, const char *message) {
    with_log_lock([&] {
        if (log_state.sink && !inside_sink) {
            inside_sink = true;
            log_state.sink(log_state.context, severity, set, id, message);
            inside_sink = false;
            return;
        }
        char line[kMaxPrefix + kMaxMessage];
        const size_t length = compose_line(line, severity, message);
        write_all(default_destination(), line, length);
    });
}

} // namespace

extern "C" {

LUM_RS_API int32_t LumLog(int32_t severity, int32_t on, const LumCatalog *catalog, uint32_t set,
                          uint32_t id, const char *format, ...) {
    // The hot path: debug traces whose switch is off cost one test.
    if (severity == LUM_LOG_DEBUG && !on)
        return 0;
    char message[kMaxMessage];
    message[0] = '\0';
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(message, sizeof message, record_format(catalog, set, id, format), arguments);
    va_end(arguments);
    deliver(severity, set, id, message);
    return 0;
}

LUM_RS_API void LumLogSetSink(LumLogSink sink, void *context) {
    with_log_lock([&] {
        log_state.sink = sink;
        log_state.context = context;
    });
}

} // extern "C"
