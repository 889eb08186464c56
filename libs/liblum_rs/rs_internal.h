// Helpers shared by the files of the runtime layer: the lock that guards its
// process-wide state, the guard that keeps C++ exceptions inside the C API,
// and the few text and catalogue helpers that several mechanisms use.
#pragma once

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <new>
#include <pthread.h>
#include <string>
#include <string_view>
#include <system_error>

#include "lum_rs.h"

namespace lum_rs {

// A mutex that never throws (std::mutex::lock may), usable with
// std::lock_guard. Constant-initialised and trivially destroyed, so a static
// one works before main and after exit.
class Lock {
  public:
    void lock() noexcept { pthread_mutex_lock(&mutex_); }
    void unlock() noexcept { pthread_mutex_unlock(&mutex_); }

  private:
    pthread_mutex_t mutex_ = PTHREAD_MUTEX_INITIALIZER;
};

// Runs `body`, which returns a result code, and turns any C++ exception into
// a code so that none crosses the C API. Apart from a system_error of a
// lock, what the standard library throws here is a failed allocation.
template <class Body> int32_t guarded(Body &&body) noexcept {
    try {
        return body();
    } catch (const std::system_error &failure) {
        return failure.code().value() > 0 ? failure.code().value() : ENOMEM;
    } catch (...) {
        return ENOMEM;
    }
}

// Builds an object of type T in a block of lum_malloc, so that a scheduled
// allocation failure reaches it. Null when there is no memory.
template <class T> T *make_record() noexcept {
    void *block = lum_malloc(sizeof(T));
    return block ? new (block) T() : nullptr;
}

// Destroys an object of make_record and frees its block. Null is ignored.
template <class T> void free_record(T *record) noexcept {
    if (record) {
        record->~T();
        lum_free(record);
    }
}

// A copy of a LumValue that owns its text; kept by the property and
// argument managers.
struct StoredValue {
    int32_t type = 0;
    int32_t number = 0; // a boolean's or an integer's value
    std::string text;

    // True for a record these managers can keep: a boolean, or a string
    // whose text is given unless its length is 0.
    static bool valid(const LumValue *value);
    void assign(const LumValue &value);
    // A record pointing at this copy's text, valid until the copy changes.
    LumValue view() const;
};

// The text without blanks (spaces and tabs) at either end.
std::string_view trim_blanks(std::string_view text);

// Copies `text` into `buffer` of `size` bytes (size > 0), truncated at a
// UTF-8 character boundary and always NUL-terminated.
void copy_truncated(char *buffer, size_t size, std::string_view text);

// Calls `visit` with each line of the file at `path`, without its line end,
// and the line's number from 1. 0, or the errno of opening or reading.
int32_t for_each_line(const char *path,
                      const std::function<void(std::string_view line, uint32_t number)> &visit);

// The catalogue's text of (set, id), valid for the life of the process, or
// null when the catalogue is null or lacks the message.
const char *catalog_find(const LumCatalog *catalog, uint32_t set, uint32_t id);

} // namespace lum_rs
