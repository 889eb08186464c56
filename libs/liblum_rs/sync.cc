// Mutexes and auto-reset events on pthreads.
//
// A mutex records its owner's thread id, so that a thread may destroy a
// mutex it holds (it is unlocked first), and so that locking it twice from
// one thread or unlocking it from another gives an error instead of a hang.
// An event is a flag under a mutex with a condition variable on the
// monotonic clock, so a change of the wall clock does not move a time-out.
#include <atomic>
#include <ctime>

#include "rs_internal.h"

struct LumMutex {
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    // Thread id of the holder, 0 when free. A thread compares it only with
    // its own id, which no other thread writes, so relaxed order is enough.
    std::atomic<uint32_t> owner{0};
};

struct LumEvent {
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    pthread_cond_t signalled_cond;
    bool signalled = false;
};

namespace {

bool held_by_caller(const LumMutex *mutex) {
    return mutex->owner.load(std::memory_order_relaxed) == LumThreadGetID();
}

void release(LumMutex *mutex) {
    mutex->owner.store(0, std::memory_order_relaxed);
    pthread_mutex_unlock(&mutex->mutex);
}

// Initialises the event's condition variable on the monotonic clock.
int init_condition(pthread_cond_t *condition) {
    pthread_condattr_t attributes;
    int rc = pthread_condattr_init(&attributes);
    if (rc == 0) {
        rc = pthread_condattr_setclock(&attributes, CLOCK_MONOTONIC);
        if (rc == 0)
            rc = pthread_cond_init(condition, &attributes);
        pthread_condattr_destroy(&attributes);
    }
    return rc;
}

timespec monotonic_deadline(uint32_t milliseconds) {
    timespec deadline;
    clock_gettime(CLOCK_MONOTONIC, &deadline);
    deadline.tv_sec += milliseconds / 1000;
    deadline.tv_nsec += static_cast<long>(milliseconds % 1000) * 1000000;
    if (deadline.tv_nsec >= 1000000000) {
        deadline.tv_sec += 1;
        deadline.tv_nsec -= 1000000000;
    }
    return deadline;
}

} // namespace

extern "C" {

LUM_RS_API int32_t LumMutexCreate(const char *, LumMutex **mutex) {
    if (!mutex)
        return EINVAL;
    *mutex = lum_rs::make_record<LumMutex>();
    return *mutex ? 0 : ENOMEM;
}

// EBUSY, and the mutex stays, when another thread holds it.
LUM_RS_API int32_t LumMutexDestroy(LumMutex *mutex) {
    if (!mutex)
        return 0;
    if (held_by_caller(mutex))
        release(mutex);
    else if (mutex->owner.load(std::memory_order_relaxed) != 0)
        return EBUSY;
    if (const int rc = pthread_mutex_destroy(&mutex->mutex))
        return rc;
    lum_rs::free_record(mutex);
    return 0;
}

// EDEADLK when the calling thread holds the mutex already.
LUM_RS_API int32_t LumMutexLock(LumMutex *mutex) {
    if (!mutex)
        return EINVAL;
    if (held_by_caller(mutex))
        return EDEADLK;
    if (const int rc = pthread_mutex_lock(&mutex->mutex))
        return rc;
    mutex->owner.store(LumThreadGetID(), std::memory_order_relaxed);
    return 0;
}

// EPERM when the calling thread does not hold the mutex.
LUM_RS_API int32_t LumMutexUnlock(LumMutex *mutex) {
    if (!mutex)
        return EINVAL;
    if (!held_by_caller(mutex))
        return EPERM;
    release(mutex);
    return 0;
}

LUM_RS_API int32_t LumEventCreate(LumEvent **event) {
    if (!event)
        return EINVAL;
    *event = nullptr;
    auto *created = lum_rs::make_record<LumEvent>();
    if (!created)
        return ENOMEM;
    if (const int rc = init_condition(&created->signalled_cond)) {
        lum_rs::free_record(created);
        return rc;
    }
    *event = created;
    return 0;
}

// Null is ignored. No thread may wait on the event any more.
LUM_RS_API int32_t LumEventDestroy(LumEvent *event) {
    if (!event)
        return 0;
    pthread_cond_destroy(&event->signalled_cond);
    pthread_mutex_destroy(&event->mutex);
    lum_rs::free_record(event);
    return 0;
}

LUM_RS_API int32_t LumEventSignal(LumEvent *event) {
    if (!event)
        return EINVAL;
    pthread_mutex_lock(&event->mutex);
    event->signalled = true;
    pthread_cond_signal(&event->signalled_cond);
    pthread_mutex_unlock(&event->mutex);
    return 0;
}

// Consumes the signal it returns 0 for, so each signal releases one wait.
LUM_RS_API int32_t LumEventTimedWait(LumEvent *event, uint32_t milliseconds) {
    if (!event)
        return EINVAL;
    const timespec deadline = monotonic_deadline(milliseconds);
    pthread_mutex_lock(&event->mutex);
    int rc = 0;
    while (!event->signalled && rc != ETIMEDOUT)
        rc = pthread_cond_timedwait(&event->signalled_cond, &event->mutex, &deadline);
    const bool signalled = event->signalled;
    event->signalled = false;
    pthread_mutex_unlock(&event->mutex);
    return signalled ? 0 : ETIMEDOUT;
}

} // extern "C"
