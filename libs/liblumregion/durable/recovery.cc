// Recovery: LumRegionOpen brings a persistent region back from its files.
//
// It picks one restore source, in this order of preference: the .tab
// snapshot, a chk file, or the logs alone (only the log of generation 0
// holds a region's history from its first byte). The source fixes the two
// generations whose logs may follow it:
//   source          image from   logs expected
//   .tab, gen T     the .tab     T+1, then T+2
//   chk i, gen C    chk i        C, then C+1
//   logs            nothing      0, then 1
// Log A (the first expected) is replayed over the image, and log B (the
// second) after it when it continues A: A ended cleanly, B holds a commit
// and does not follow a failed log. The last log applied is cut behind its
// last LOG_COMMIT before the replay, so what a later recovery finds is what
// this one applied.
//
// Then the files are handed to the handle. What stays:
//   - the logs that were applied, which new records extend, so that the
//     same source and logs rebuild the image after another crash, until the
//     next checkpoint is acknowledged;
//   - the chk file that was the source.
// Every other working file is cut to nothing, and the dirty map of a file
// that was cut is all ones, so its next checkpoint writes a whole image.
//
// The choice of source, logs, cuts and hand-over is one plan
// (_LumRecoveryPlan), made from the verdicts alone before anything is read
// or cut, so that a tool can show what an open would do. A read-only
// recovery carries out the same plan without touching the files: it opens
// them read-only, replays the log that would be cut only up to the cut,
// neutralises nothing and hands nothing over.
//
// Nothing is published short of its source: a source that cannot be read
// whole, a replay that fails or a cut that fails fails the open, with the
// handle destroyed and every descriptor closed. By then only uncommitted
// log tails may have been cut.
#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <unistd.h>
#include <utility>

#include "durable/recovery.h"
#include "platform/platform.h"

namespace {

// Reads the source file into a fresh image. 0, the code of a size the image
// refused, or -411 for a short read.
int32_t RestoreImage(LumRegion *region, const RecoveryFile &file) {
    int32_t rc = file.size > UINT32_MAX
                     ? LUM_RC_SOFT_LIMIT
                     : _LumImageSetSize(region, static_cast<uint32_t>(file.size));
    if (rc != 0) {
        LumLog(LUM_LOG_ERROR, 1, region_catalog, kSetError, 2, "Unable to restore image 1 for %s",
               region->name);
        return rc;
    }
    auto size = static_cast<uint32_t>(file.size);
    _LumPageUnprotect(region, region->base, size);
    if (_LumPread(file.fd, region->base, size, 0) != static_cast<ssize_t>(size)) {
        LumLog(LUM_LOG_ERROR, 1, region_catalog, kSetError, 3, "Unable to restore image 2 for %s",
               region->name);
        return LUM_RC_BAD_FILES;
    }
    return 0;
}

// The log of `generation` among the valid logs, or -1; on equal
// generations, index 1 wins.
int32_t LogOf(const RecoveryFileSet &files, uint32_t generation) {
    int32_t found = -1;
    for (int32_t parity = 0; parity < 2; ++parity) {
        if (files.log[parity].valid && files.log[parity].generation == generation)
            found = parity;
    }
    return found;
}

// Picks the logs that follow the source: log A alone, cut behind its last
// LOG_COMMIT, unless it ended cleanly and log B continues it (B holds a
// commit and does not follow a failed log); then A whole and B, cut behind
// its last LOG_COMMIT.
void PlanLogs(const RecoveryFileSet &files, RecoveryPlan *plan) {
    plan->applied = plan->first + kNoLogApplied;
    int32_t a = LogOf(files, plan->first);
    if (a < 0)
        return;
    int32_t b = LogOf(files, plan->first + 1);
    const RecoveryFile &log_a = files.log[a];
    bool continues =
        b >= 0 && files.log[b].commit_end > file_header::kSize && !files.log[b].follows_gap;
    int32_t last = continues && log_a.clean ? b : a;
    plan->replay[0] = a;
    plan->replay[1] = last == b ? b : -1;
    plan->applied = files.log[last].generation;
    if (files.log[last].size != files.log[last].commit_end) {
        plan->cut_parity = last;
        plan->cut_length = files.log[last].commit_end;
        plan->cut_step = last == b ? 3 : continues ? 2 : 1;
    }
}

// Which working files the handle takes over emptied, by what was applied:
//   applied     parity of first      parity of first + 1
//   first       chk *, log kept      both emptied
//   first + 1   chk *, log kept      chk emptied, log kept
//   none        both emptied         both emptied
// where chk * keeps the chk file of a chk source and empties any other.
void PlanHandOver(RecoveryPlan *plan) {
    uint32_t first = plan->first;
    bool a_applied = plan->applied == first || plan->applied == first + 1;
    int32_t own = first % 2, other = 1 - own;
    plan->empty_chk[own] = !(plan->chk_parity >= 0 && a_applied);
    plan->empty_log[own] = !a_applied;
    plan->empty_chk[other] = true;
    plan->empty_log[other] = plan->applied != first + 1;
}

// Replays `log` up to `end`; `last` marks the last log applied, whose
// acknowledgements of a chk file are neutralised unless that chk file is
// the source: the region goes on in that log's generation, and a later
// checkpoint rewrites the chk file of that generation in place, so an old
// acknowledgement beside it would vouch for a half-written file. A
// read-only recovery changes no byte, so it neutralises nothing.
int32_t Apply(LumRegion *region, const RecoveryFile &log, uint8_t *buffer, bool last,
              const RecoveryPlan &plan, bool read_only, uint64_t end) {
    bool source_acknowledged = plan.chk_parity >= 0 && log.generation == plan.first;
    bool neutralise = last && !source_acknowledged && !read_only;
    return _LumLogApply(region, log.fd, buffer, neutralise, end);
}

// Cuts and replays the logs of the plan. A read-only recovery replays the
// log that would be cut only up to the cut.
int32_t ReplayLogs(LumRegion *region, RecoveryFileSet *files, const RecoveryPlan &plan,
                   uint8_t *buffer, bool read_only) {
    static const char *const kCutFormats[] = {"ftruncate() 1: %s", "ftruncate() 2: %s",
                                              "ftruncate() 3: %s"};
    static const uint32_t kCutIds[] = {4, 8, 9};
    if (plan.cut_parity >= 0 && !read_only) {
        RecoveryFile *log = &files->log[plan.cut_parity];
        LumLog(LUM_LOG_DEBUG, RegionDebug(), region_catalog, kSetReport, 18,
               "Truncating log %d for %s", static_cast<int>(log->generation), region->name);
        if (!_LumFileCut(log, plan.cut_length, kCutIds[plan.cut_step - 1],
                         kCutFormats[plan.cut_step - 1]))
            return LUM_RC_BAD_FILES;
    }
    for (int32_t step = 0; step < 2 && plan.replay[step] >= 0; ++step) {
        int32_t parity = plan.replay[step];
        bool last = step == 1 || plan.replay[1] < 0;
        uint64_t end = read_only && parity == plan.cut_parity ? plan.cut_length : kWholeLog;
        if (int32_t rc = Apply(region, files->log[parity], buffer, last, plan, read_only, end);
            rc != 0)
            return rc;
    }
    return 0;
}

// Hands the chk and log file of `generation`'s parity to the handle,
// emptied as the plan says, the log positioned at its end for the next
// flush.
bool Adopt(LumRegion *region, RecoveryFileSet *files, const RecoveryPlan &plan,
           uint32_t generation) {
    int parity = generation % 2;
    RecoveryFile &chk = files->chk[parity];
    RecoveryFile &log = files->log[parity];
    if (plan.empty_chk[parity] && !_LumFileCut(&chk, 0, 10, "ftruncate() 4: %s"))
        return false;
    if (plan.empty_log[parity] && !_LumFileCut(&log, 0, 11, "ftruncate() 5: %s"))
        return false;
    lum_platform.lseek(log.fd, 0, SEEK_END);
    region->chk_fd[parity] = std::exchange(chk.fd, -1);
    region->log_fd[parity] = std::exchange(log.fd, -1);
    return true;
}

void SetGenerations(LumRegion *region, uint32_t generation, uint32_t next, uint32_t flushed) {
    region->generation.store(generation, std::memory_order_relaxed);
    region->next_generation.store(next, std::memory_order_relaxed);
    region->flushed_generation.store(flushed, std::memory_order_relaxed);
}

// The generations the region goes on in, by the generation the replay
// reached:
//   applied     generation next      flushed
//   first       first      first+c   first
//   first + 1   first+1    first+1   first+1
//   none        first      first     first-2
// where c is 1 for a chk source (its file must not be rewritten in place)
// and 0 otherwise. With no log applied, flushed_generation differs, so
// that the first flush starts the log of `first` again.
void PlanGenerations(LumRegion *region, const RecoveryPlan &plan) {
    uint32_t first = plan.first;
    if (plan.applied == first)
        SetGenerations(region, first, first + (plan.chk_parity >= 0 ? 1 : 0), first);
    else if (plan.applied == first + 1)
        SetGenerations(region, first + 1, first + 1, first + 1);
    else
        SetGenerations(region, first, first, first - 2);
}

// Hands over the files after the replay. With no log applied, the log of
// `first` restarts at once with a fresh header.
bool AdoptFiles(LumRegion *region, RecoveryFileSet *files, const RecoveryPlan &plan) {
    uint32_t first = plan.first;
    if (!Adopt(region, files, plan, first) || !Adopt(region, files, plan, first + 1))
        return false;
    // The history that a failure must not cost starts with log A, whichever
    // log the region goes on in.
    region->protected_generation.store(first, std::memory_order_relaxed);
    if (plan.applied != first && plan.applied != first + 1)
        _LumFileHeaderWriteStamped(region->log_fd[first % 2], first, RegionNextTimestamp(region),
                                   0);
    PlanGenerations(region, plan);
    return true;
}

// Restores the image from the source and replays the logs, then hands
// over the files, unless `read_only`. 0 or the code that fails the open.
int32_t RestoreFrom(LumRegion *region, RecoveryFileSet *files, const RecoveryPlan &plan,
                    uint8_t *buffer, bool read_only) {
    if (plan.source == RecoverySource::kTab || plan.source == RecoverySource::kChk) {
        RecoveryFile &image =
            plan.source == RecoverySource::kTab ? files->tab : files->chk[plan.chk_parity];
        if (int32_t rc = RestoreImage(region, image); rc != 0)
            return rc;
    }
    _LumFileClose(&files->tab);
    for (int32_t parity = 0; parity < 2; ++parity)
        _LumDirtyMapFill(region, parity, parity != plan.chk_parity);
    if (int32_t rc = ReplayLogs(region, files, plan, buffer, read_only); rc != 0)
        return rc;
    if (region->used.load(std::memory_order_relaxed) < region_header::kSize)
        return LUM_RC_BAD_FILES; // logs that never committed the region's first size
    if (read_only)
        PlanGenerations(region, plan);
    else if (!AdoptFiles(region, files, plan))
        return LUM_RC_BAD_FILES;
    _LumPageProtect(region, region->base, region->used.load(std::memory_order_relaxed));
    return 0;
}

// Probes and judges the files of a region about to be recovered. A file
// that could not be read fails the open: its verdict would be a guess, and
// a good file judged bad is cut.
int32_t ProbeAndJudge(LumRegion *region, RecoveryFileSet *files, uint8_t *buffer, bool read_only) {
    if (int32_t rc = _LumRecoveryJudge(region->directory, region->name, files, buffer, read_only);
        rc != 0)
        return rc;
    bool unreadable = false;
    int32_t newest = 0;
    for (const RecoveryFile *file : files->All()) {
        newest = std::max(newest, file->timestamp);
        unreadable = unreadable || file->unreadable;
    }
    region->last_timestamp.store(newest, std::memory_order_relaxed);
    return unreadable ? LUM_RC_BAD_FILES : 0;
}

void ReportSource(const LumRegion *region, const RecoveryPlan &plan) {
    static const char *const kRestoring[] = {"Restoring %s from TAB file",
                                             "Restoring %s from CHK file",
                                             "Restoring %s from LOG file(s)"};
    int kind = static_cast<int>(plan.source) - static_cast<int>(RecoverySource::kTab);
    LumLog(LUM_LOG_PROGRESS, 1, region_catalog, kSetReport, 15 + kind, kRestoring[kind],
           region->name);
}

int32_t Recover(LumRegion *region, RecoveryFileSet *files, uint8_t *buffer, bool read_only) {
    if (int32_t rc = ProbeAndJudge(region, files, buffer, read_only); rc != 0)
        return rc;
    RecoveryPlan plan;
    if (int32_t rc = _LumRecoveryPlan(*files, &plan); rc != 0)
        return rc;
    ReportSource(region, plan);
    int32_t rc = RestoreFrom(region, files, plan, buffer, read_only);
    return rc == 0 || rc == LUM_RC_SOFT_LIMIT ? rc : LUM_RC_BAD_FILES;
}

// Runs recovery on a new handle with a buffer of its own. The caller
// closes the files that are left in `files`.
int32_t RecoverWithBuffer(LumRegion *region, RecoveryFileSet *files, bool read_only) {
    auto *buffer = static_cast<uint8_t *>(lum_malloc(kLogBlock));
    int32_t rc = buffer == nullptr ? LUM_RC_NO_MEMORY : Recover(region, files, buffer, read_only);
    lum_free(buffer);
    return rc;
}

// Undoes a failed open: the handle, its image and every descriptor.
int32_t Abandon(LumRegion *region, RecoveryFileSet *files, int32_t rc) {
    for (RecoveryFile *file : files->All())
        _LumFileClose(file);
    _LumRegionCloseFiles(region);
    _LumImageDestroy(region);
    return rc;
}

// Makes the recovered region live, as a created one is: checkpoints
// wanted, the last one counted as acknowledged, referenced once and
// registered.
void Publish(LumRegion *region) {
    region->checkpointing.store(1, std::memory_order_relaxed);
    region->checkpoint_state.store(CHECKPOINT_ACKED, std::memory_order_relaxed);
    region->sync_failed = 0;
    region->online.store(1, std::memory_order_relaxed);
    _LumRegionRef(region);
    _LumRegistryAdd(region);
}

// Verifies a published region when Region.VerifyOnRecovery asks for it.
int32_t VerifyRecovered(LumRegion *region) {
    if (region_verify_on_recovery != 1)
        return 0;
    LumLog(LUM_LOG_PROGRESS, 1, region_catalog, kSetVerify, 1, "Verifing region '%s'...",
           region->name);
    int32_t rc = LumRegionVerify(region);
    if (rc != 0)
        LumLog(LUM_LOG_FAILURE, 1, region_catalog, kSetReport, 25,
               "Region '%s', from directory '%s', has been recovered in a corrupt state: %s",
               region->name, region->directory, LumRCToString(rc));
    return rc;
}

} // namespace

int32_t _LumRecoveryPlan(const RecoveryFileSet &files, RecoveryPlan *plan) {
    *plan = RecoveryPlan{};
    if (_LumUseTab(files)) {
        plan->source = RecoverySource::kTab;
        plan->first = files.tab.generation + 1;
    } else if (int32_t parity = _LumUseChk(files); parity >= 0) {
        plan->source = RecoverySource::kChk;
        plan->chk_parity = parity;
        plan->first = files.chk[parity].generation;
    } else if (_LumUseLogs(files)) {
        plan->source = RecoverySource::kLogs;
    } else {
        return LUM_RC_BAD_FILES;
    }
    PlanLogs(files, plan);
    PlanHandOver(plan);
    return 0;
}

int32_t _LumRecoveryJudge(const char *directory, const char *name, RecoveryFileSet *files,
                          uint8_t *buffer, bool read_only) {
    int flags = read_only ? O_RDONLY : O_RDWR | O_CREAT;
    int32_t failed = _LumFileProbe(directory, name, ".tab", &files->tab, O_RDONLY);
    failed |= _LumFileProbe(directory, name, "_0.chk", &files->chk[0], flags);
    failed |= _LumFileProbe(directory, name, "_1.chk", &files->chk[1], flags);
    failed |= _LumFileProbe(directory, name, "_0.log", &files->log[0], flags);
    failed |= _LumFileProbe(directory, name, "_1.log", &files->log[1], flags);
    if (failed != 0)
        return LUM_RC_BAD_FILES;
    if (!read_only) {
        if (int32_t rc = _LumFileLock(files->chk[0].fd); rc != 0)
            return rc;
        if (region_sync_commit == 1 && _LumDirectoryForce(directory) != 0)
            return LUM_RC_BAD_FILES; // a file made just now might not survive the machine
    }
    for (int32_t parity = 0; parity < 2; ++parity)
        _LumLogCheck(&files->log[parity], buffer);
    for (int32_t parity = 0; parity < 2; ++parity)
        _LumChkCheck(&files->chk[parity], files->log[parity]);
    _LumTabCheck(&files->tab);
    return 0;
}

int32_t _LumRegionRecoverReadOnly(const char *name, const char *directory, uint32_t hard_limit,
                                  LumRegion **out_region) {
    *out_region = nullptr;
    if (!RegionArgumentsAcceptable(name, LUM_REGION_PERSISTENT, directory))
        return LUM_RC_FAILURE;
    LumRegion *region;
    int32_t rc = _LumImageCreate(name, LUM_REGION_PERSISTENT, hard_limit, hard_limit, 0, 0,
                                 directory, &region);
    if (rc != 0)
        return rc;
    RecoveryFileSet files;
    rc = RecoverWithBuffer(region, &files, true);
    for (RecoveryFile *file : files.All())
        _LumFileClose(file);
    if (rc != 0) {
        _LumImageDestroy(region);
        return rc;
    }
    *out_region = region;
    return 0;
}

void _LumRegionCloseReadOnly(LumRegion *region) {
    _LumImageDestroy(region);
}

int32_t LumRegionOpen(const char *name, uint32_t hard_limit, uint32_t soft_limit,
                      uint32_t largest_record, int32_t protect, const char *directory,
                      LumRegion **out_region, void **out_base) {
    if (out_region == nullptr || out_base == nullptr)
        return LUM_RC_FAILURE;
    *out_region = nullptr;
    *out_base = nullptr;
    if (!RegionArgumentsAcceptable(name, LUM_REGION_PERSISTENT, directory))
        return LUM_RC_FAILURE;
    LumRegion *region;
    int32_t rc = _LumImageCreate(name, LUM_REGION_PERSISTENT, hard_limit, soft_limit,
                                 largest_record, protect, directory, &region);
    if (rc != 0)
        return rc;
    RecoveryFileSet files;
    rc = RecoverWithBuffer(region, &files, false);
    if (rc != 0)
        return Abandon(region, &files, rc);
    Publish(region);
    *out_region = region;
    *out_base = region->base;
    return VerifyRecovered(region);
}
