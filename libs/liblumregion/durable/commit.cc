// Commit, and taking a region offline and back online.
//
// A commit appends LOG_COMMIT and flushes the log buffer: one write of the
// buffer to the log of the current generation. When a finished checkpoint
// waits (CHECKPOINT_DONE), the commit acknowledges it with LOG_CHECKPOINT
// just ahead of its LOG_COMMIT; from then on recovery may use that chk file.
// A commit cannot fail: a failed log is a state (log_failed) and a report.
//
// Acknowledging commit, by what its flush did:
//   log good         state ACKED; next_generation stays G + 1
//   log failed       state ACKED; next_generation = G + 2, the chk file
//                    stays unacknowledged and the next checkpoint rewrites
//                    it on the same parity
//   region offline   nothing reaches the log, so nothing is acknowledged:
//                    the state stays DONE
#include "durable/durable.h"

namespace {

void CommitRecords(LumRegion *region) {
    _LumLogBufferAppend(region, LOG_COMMIT, 0, 0);
    _LumLogBufferFlush(region);
}

void AcknowledgeCheckpoint(LumRegion *region) {
    uint32_t generation = region->generation.load(std::memory_order_relaxed);
    _LumLogBufferAppend(region, LOG_CHECKPOINT, 0, 0);
    CommitRecords(region);
    if (region->log_failed.load(std::memory_order_relaxed) != 0)
        region->next_generation.store(generation + 2, std::memory_order_relaxed);
    region->checkpoint_state.store(CHECKPOINT_ACKED, std::memory_order_release);
}

} // namespace

int32_t LumRegionCommit(LumRegion *region) {
    if (region == nullptr)
        return LUM_RC_FAILURE;
    bool done = region->checkpoint_state.load(std::memory_order_acquire) == CHECKPOINT_DONE;
    if (done && region->online.load(std::memory_order_relaxed) != 0)
        AcknowledgeCheckpoint(region);
    else
        CommitRecords(region);
    return 0;
}

void LumRegionOffline(LumRegion *region) {
    if (region == nullptr)
        return;
    LumMutexLock(region->mutex);
    region->online.store(0, std::memory_order_relaxed);
    LumMutexUnlock(region->mutex);
}

// Coming online checkpoints what changed while the logs saw nothing; the
// first commit afterwards acknowledges it. A failed checkpoint fails the
// log, so that commits drop their records until the generation moves on.
void LumRegionOnline(LumRegion *region) {
    if (region == nullptr)
        return;
    LumMutexLock(region->mutex);
    if (IsPersistent(region) && _LumRegionCheckpoint(region) != 0)
        region->log_failed.store(1, std::memory_order_relaxed);
    region->online.store(1, std::memory_order_relaxed);
    LumMutexUnlock(region->mutex);
}
