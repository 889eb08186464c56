// Threads: named pthreads that a creator can ask to stop and then join.
//
// The word an entry function receives is the address of its thread record,
// which lives until LumThreadJoin, so LumThreadShouldContinue reads the stop
// flag straight from it.
#include <atomic>
#include <unistd.h>

#include "rs_internal.h"

struct LumThread {
    pthread_t handle{};
    LumThreadEntry entry = nullptr;
    // Release/acquire, so what the stopper wrote before asking is seen by
    // the thread once it sees the request.
    std::atomic<bool> stop_requested{false};
    char name[16] = ""; // the kernel keeps 15 bytes of a thread name
};

namespace {

// Both the thread and its creator name it: the name is then in place before
// the entry runs and when the spawn returns, whichever comes first.
void set_name(pthread_t handle, const LumThread *thread) {
    if (thread->name[0])
        pthread_setname_np(handle, thread->name);
}

void *run_thread(void *argument) {
    auto *thread = static_cast<LumThread *>(argument);
    set_name(pthread_self(), thread);
    thread->entry(reinterpret_cast<uintptr_t>(thread));
    return nullptr;
}

} // namespace

extern "C" {

LUM_RS_API int32_t LumThreadSpawn(const char *name, LumThreadEntry entry, uintptr_t reserved,
                                  uint32_t flags, LumThread **thread) {
    if (!thread)
        return EINVAL;
    *thread = nullptr;
    if (!entry || reserved != 0 || flags != 0)
        return EINVAL;
    auto *created = lum_rs::make_record<LumThread>();
    if (!created)
        return ENOMEM;
    created->entry = entry;
    lum_rs::copy_truncated(created->name, sizeof created->name, name ? name : "");
    if (const int rc = pthread_create(&created->handle, nullptr, run_thread, created)) {
        lum_rs::free_record(created);
        return rc;
    }
    set_name(created->handle, created);
    *thread = created;
    return 0;
}

LUM_RS_API int32_t LumThreadShouldContinue(uintptr_t word) {
    const auto *thread = reinterpret_cast<const LumThread *>(word);
    return thread && !thread->stop_requested.load(std::memory_order_acquire);
}

LUM_RS_API int32_t LumThreadScheduleStop(LumThread *thread) {
    if (!thread)
        return EINVAL;
    thread->stop_requested.store(true, std::memory_order_release);
    return 0;
}

// The handle stays valid when joining fails (EDEADLK for the thread itself).
LUM_RS_API int32_t LumThreadJoin(LumThread *thread) {
    if (!thread)
        return EINVAL;
    if (const int rc = pthread_join(thread->handle, nullptr))
        return rc;
    lum_rs::free_record(thread);
    return 0;
}

LUM_RS_API uint32_t LumThreadGetID(void) {
    return static_cast<uint32_t>(gettid());
}

} // extern "C"
