// Commit, and taking a region offline and back online.
//
// A commit appends LOG_COMMIT and flushes the log buffer: one write of the
// buffer to the log of the current generation. When a finished checkpoint
// waits (CHECKPOINT_DONE), the commit acknowledges it with LOG_CHECKPOINT
// just ahead of its LOG_COMMIT; from then on recovery may use that chk file.
// A commit cannot fail: a failed log is a state (log_failed) and a report,
// and LumRegionGetLogState tells the host since which generation its
// commits are not durable: until the next acknowledged checkpoint. With Region.SyncCommit on, a
// commit forces its log to disk, and a failed force fails the log as a failed write does.
//
// Acknowledging commit, by what its flush did:
//   log good         state ACKED; protected_generation = G, next_generation
//                    stays G + 1
//   log failed       state ACKED; next_generation = GenerationAfterFailure:
//                    the chk file stays unacknowledged and the next
//                    checkpoint rewrites it on the same parity (G + 2), or,
//                    while none was ever acknowledged and G is even, goes to
//                    G + 1, so that log 0 keeps the history
//   region offline   nothing reaches the log, so nothing is acknowledged:
//                    the state stays DONE
//
// Coming online with a failed checkpoint: the offline period is in no log,
// so the log of this generation fails and the next log to start is marked
// as following a gap; a finished checkpoint waiting for its acknowledgement
// is given up as by a failed acknowledgement (the changes made offline are
// in neither it nor its log), and the region moves on as after any failure.
#include "durable/durable.h"

namespace {

void CommitRecords(LumRegion *region) {
    _LumLogBufferAppend(region, LOG_COMMIT, 0, 0);
    _LumLogBufferFlush(region);
    if (region_sync_commit == 1)
        _LumLogBufferForce(region);
}

void AcknowledgeCheckpoint(LumRegion *region) {
    uint32_t generation = region->generation.load(std::memory_order_relaxed);
    _LumLogBufferAppend(region, LOG_CHECKPOINT, 0, 0);
    CommitRecords(region);
    if (region->log_failed.load(std::memory_order_relaxed) != 0) {
        region->next_generation.store(GenerationAfterFailure(region), std::memory_order_relaxed);
    } else {
        region->protected_generation.store(generation, std::memory_order_relaxed);
        region->log_failing.store(false, std::memory_order_relaxed); // see NoteLogFailure
    }
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

int32_t LumRegionGetLogState(LumRegion *region, LumLogState *state) {
    if (region == nullptr || state == nullptr || !IsPersistent(region))
        return LUM_RC_FAILURE;
    bool failing = region->log_failing.load(std::memory_order_acquire);
    *state = {region->generation.load(std::memory_order_relaxed), failing ? 1 : 0,
              failing ? region->log_failed_since.load(std::memory_order_relaxed) : 0};
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
// log (see the head of this file).
void LumRegionOnline(LumRegion *region) {
    if (region == nullptr)
        return;
    LumMutexLock(region->mutex);
    if (IsPersistent(region) && _LumRegionCheckpoint(region) != 0) {
        region->log_failed.store(1, std::memory_order_relaxed);
        NoteLogFailure(region, region->generation.load(std::memory_order_relaxed));
        region->log_follows_gap = true;
        region->next_generation.store(GenerationAfterFailure(region), std::memory_order_relaxed);
        region->checkpoint_state.store(CHECKPOINT_ACKED, std::memory_order_release);
    }
    region->online.store(1, std::memory_order_relaxed);
    LumMutexUnlock(region->mutex);
}
