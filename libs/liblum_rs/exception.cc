// Exceptions raised in a thread: recorded as the thread's pending exception,
// logged, and passed to the handler the host installed, in the raising
// thread. The host reads and clears the pending exception of its thread.
#include <cstdio>
#include <mutex>

#include "rs_internal.h"

namespace {

struct PendingException {
    bool pending = false;
    LumException record{};
};
thread_local PendingException current;

struct HandlerSlot {
    lum_rs::Lock lock;
    LumExceptionHandler handler = nullptr;
    void *context = nullptr;
};
constinit HandlerSlot installed;

// The text of a raised value: a string's bytes, or a boolean's or an
// integer's number.
void describe_value(const LumValue *value, char (&text)[sizeof LumException::value]) {
    text[0] = '\0';
    if (!value)
        return;
    if (value->type == LUM_VALUE_STRING && value->value.string.text)
        lum_rs::copy_truncated(text, sizeof text,
                               {value->value.string.text, value->value.string.length});
    else if (value->type == LUM_VALUE_BOOLEAN)
        std::snprintf(text, sizeof text, "%d", static_cast<int>(value->value.boolean));
    else if (value->type == LUM_VALUE_INTEGER)
        std::snprintf(text, sizeof text, "%d", static_cast<int>(value->value.integer));
}

// Logs the exception at severity 4 with the catalogue's text of (set, id)
// in place of the message when the catalogue has one.
void log_exception(const LumException &record, const LumCatalog *catalog, uint32_t set, uint32_t id,
                   const char *file, uint32_t line, const char *function) {
    const char *translated = lum_rs::catalog_find(catalog, set, id);
    char value_part[sizeof record.value + 4] = "";
    if (record.value[0])
        std::snprintf(value_part, sizeof value_part, " (%s)", record.value);
    char location[256] = "";
    if (file)
        std::snprintf(location, sizeof location, " at %s:%u%s%s", file, line,
                      function ? " in " : "", function ? function : "");
    LumLog(LUM_LOG_FAILURE, 1, nullptr, set, id, "Exception %s: %s%s%s", record.class_name,
           translated ? translated : record.message, value_part, location);
}

} // namespace

extern "C" {

LUM_RS_API int32_t LumThreadExceptionRaise(uint32_t thread_id, const char *class_name,
                                           const LumCatalog *catalog, uint32_t set, uint32_t id,
                                           const char *message, const LumValue *value,
                                           const char *file, uint32_t line, const char *function) {
    LumException &record = current.record;
    record.thread_id = thread_id;
    lum_rs::copy_truncated(record.class_name, sizeof record.class_name,
                           class_name ? class_name : "");
    lum_rs::copy_truncated(record.message, sizeof record.message, message ? message : "");
    describe_value(value, record.value);
    current.pending = true;
    log_exception(record, catalog, set, id, file, line, function);

    LumExceptionHandler handler;
    void *context;
    {
        std::lock_guard guard(installed.lock);
        handler = installed.handler;
        context = installed.context;
    }
    if (handler)
        handler(context, &record);
    return 0;
}

LUM_RS_API void LumThreadExceptionSetHandler(LumExceptionHandler handler, void *context) {
    std::lock_guard guard(installed.lock);
    installed.handler = handler;
    installed.context = context;
}

LUM_RS_API int32_t LumThreadExceptionGet(LumException *exception) {
    if (!exception)
        return EINVAL;
    if (!current.pending)
        return ENOENT;
    *exception = current.record;
    return 0;
}

LUM_RS_API void LumThreadExceptionClear(void) {
    current.pending = false;
}

} // extern "C"
