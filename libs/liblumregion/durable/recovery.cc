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

// The result of a log choice when no log applies: outside both expected
// generations.
constexpr uint32_t kNoLogApplied = 10;

// The restore source and what it implies.
struct Source {
    RecoveryFile *image; // the file to restore from; null for the logs alone
    int32_t chk_parity;  // the chk file that was the source, or -1
    uint32_t first;      // the generation of log A
};

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
    lum_platform.populate(region->base, size); // no fault per page in the read
    if (_LumPread(file.fd, region->base, size, 0) != static_cast<ssize_t>(size)) {
        LumLog(LUM_LOG_ERROR, 1, region_catalog, kSetError, 3, "Unable to restore image 2 for %s",
               region->name);
        return LUM_RC_BAD_FILES;
    }
    return 0;
}

bool CutLog(LumRegion *region, RecoveryFile *log, uint32_t id, const char *format) {
    LumLog(LUM_LOG_DEBUG, RegionDebug(), region_catalog, kSetReport, 18, "Truncating log %d for %s",
           static_cast<int>(log->generation), region->name);
    return _LumFileCut(log, log->commit_end, id, format);
}

// Replays `log`; `last` marks the last log applied, whose acknowledgements
// of a chk file are neutralised unless that chk file is the source: the
// region goes on in that log's generation, and a later checkpoint rewrites
// the chk file of that generation in place, so an old acknowledgement
// beside it would vouch for a half-written file.
int32_t Apply(LumRegion *region, const RecoveryFile &log, uint8_t *buffer, bool last,
              const Source &source) {
    bool source_acknowledged = source.chk_parity >= 0 && log.generation == source.first;
    return _LumLogApply(region, log.fd, buffer, last && !source_acknowledged);
}

// Picks, cuts and replays the logs that follow the source. *applied is the
// generation of the last log applied, or first + kNoLogApplied.
int32_t ChooseLogs(LumRegion *region, RecoveryFileSet *files, const Source &source, uint8_t *buffer,
                   uint32_t *applied) {
    RecoveryFile *a = nullptr, *b = nullptr;
    for (RecoveryFile &log : files->log) { // on equal generations, index 1 wins
        if (log.valid && log.generation == source.first)
            a = &log;
        else if (log.valid && log.generation == source.first + 1)
            b = &log;
    }
    *applied = source.first + kNoLogApplied;
    if (a == nullptr)
        return 0;
    bool continues = b != nullptr && b->commit_end > file_header::kSize && !b->follows_gap;
    if (!continues || !a->clean) {
        if (a->size != a->commit_end &&
            !CutLog(region, a, continues ? 8 : 4,
                    continues ? "ftruncate() 2: %s" : "ftruncate() 1: %s"))
            return LUM_RC_BAD_FILES;
        *applied = a->generation;
        return Apply(region, *a, buffer, true, source);
    }
    if (b->size != b->commit_end && !CutLog(region, b, 9, "ftruncate() 3: %s"))
        return LUM_RC_BAD_FILES;
    *applied = b->generation;
    int32_t rc = Apply(region, *a, buffer, false, source);
    return rc != 0 ? rc : Apply(region, *b, buffer, true, source);
}

// Hands the chk and log file of `generation`'s parity to the handle, cut to
// nothing as asked, the log positioned at its end for the next flush.
bool Adopt(LumRegion *region, RecoveryFileSet *files, uint32_t generation, bool cut_chk,
           bool cut_log) {
    int parity = generation % 2;
    RecoveryFile &chk = files->chk[parity];
    RecoveryFile &log = files->log[parity];
    if (cut_chk && !_LumFileCut(&chk, 0, 10, "ftruncate() 4: %s"))
        return false;
    if (cut_log && !_LumFileCut(&log, 0, 11, "ftruncate() 5: %s"))
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

// Hands over the files after the replay, by the generation it reached:
//   applied     first adopt          second adopt         generation next   flushed
//   first       first: chk *, keep   first+1: cut, cut    first      first+c first
//   first + 1   first: chk *, keep   first+1: cut, keep   first+1    first+1 first+1
//   none        first: cut, cut      first+1: cut, cut    first      first   first-2
// where chk * keeps the source's chk file and cuts any other, and c is 1
// for a chk source (its file must not be rewritten in place) and 0
// otherwise. With no log applied, the log of `first` restarts at once with
// a fresh header, and flushed_generation differs so that the first flush
// starts it again.
bool AdoptFiles(LumRegion *region, RecoveryFileSet *files, const Source &source, uint32_t applied) {
    uint32_t first = source.first;
    bool chk_source = source.chk_parity >= 0;
    bool a_applied = applied == first || applied == first + 1;
    if (!Adopt(region, files, first, !(chk_source && a_applied), !a_applied) ||
        !Adopt(region, files, first + 1, true, applied != first + 1))
        return false;
    // The history that a failure must not cost starts with log A, whichever
    // log the region goes on in.
    region->protected_generation.store(first, std::memory_order_relaxed);
    if (applied == first) {
        SetGenerations(region, first, first + (chk_source ? 1 : 0), first);
    } else if (applied == first + 1) {
        SetGenerations(region, first + 1, first + 1, first + 1);
    } else {
        _LumFileHeaderWriteStamped(region->log_fd[first % 2], first, RegionNextTimestamp(region),
                                   0);
        SetGenerations(region, first, first, first - 2);
    }
    return true;
}

// Restores the image from the source, replays the logs and hands over the
// files. 0 or the code that fails the open.
int32_t RestoreFrom(LumRegion *region, RecoveryFileSet *files, const Source &source,
                    uint8_t *buffer) {
    if (source.image != nullptr) {
        if (int32_t rc = RestoreImage(region, *source.image); rc != 0)
            return rc;
    }
    _LumFileClose(&files->tab);
    for (int32_t parity = 0; parity < 2; ++parity)
        _LumDirtyMapFill(region, parity, parity != source.chk_parity);
    uint32_t applied;
    if (int32_t rc = ChooseLogs(region, files, source, buffer, &applied); rc != 0)
        return rc;
    if (region->used.load(std::memory_order_relaxed) < region_header::kSize)
        return LUM_RC_BAD_FILES; // logs that never committed the region's first size
    if (!AdoptFiles(region, files, source, applied))
        return LUM_RC_BAD_FILES;
    _LumPageProtect(region, region->base, region->used.load(std::memory_order_relaxed));
    return 0;
}

// Probes the five files, takes the region's lock and judges the files.
// A file that could not be read fails the open: its verdict would be a
// guess, and a good file judged bad is cut.
int32_t ProbeAndJudge(LumRegion *region, RecoveryFileSet *files, uint8_t *buffer) {
    const char *directory = region->directory;
    const char *name = region->name;
    int flags = O_RDWR | O_CREAT;
    int32_t failed = _LumFileProbe(directory, name, ".tab", &files->tab, O_RDONLY);
    failed |= _LumFileProbe(directory, name, "_0.chk", &files->chk[0], flags);
    failed |= _LumFileProbe(directory, name, "_1.chk", &files->chk[1], flags);
    failed |= _LumFileProbe(directory, name, "_0.log", &files->log[0], flags);
    failed |= _LumFileProbe(directory, name, "_1.log", &files->log[1], flags);
    if (failed != 0)
        return LUM_RC_BAD_FILES;
    if (int32_t rc = _LumFileLock(files->chk[0].fd); rc != 0)
        return rc;
    if (region_sync_commit == 1 && _LumDirectoryForce(directory) != 0)
        return LUM_RC_BAD_FILES; // a file made just now might not survive the machine
    for (int32_t parity = 0; parity < 2; ++parity)
        _LumLogCheck(&files->log[parity], buffer);
    for (int32_t parity = 0; parity < 2; ++parity)
        _LumChkCheck(&files->chk[parity], files->log[parity]);
    _LumTabCheck(&files->tab);
    bool unreadable = false;
    int32_t newest = 0;
    for (const RecoveryFile *file : files->All()) {
        newest = std::max(newest, file->timestamp);
        unreadable = unreadable || file->unreadable;
    }
    region->last_timestamp.store(newest, std::memory_order_relaxed);
    return unreadable ? LUM_RC_BAD_FILES : 0;
}

// The first source that passes its test, or -411 when none does.
int32_t PickSource(RecoveryFileSet *files, Source *source) {
    if (_LumUseTab(*files)) {
        *source = {&files->tab, -1, files->tab.generation + 1};
        return 0;
    }
    if (int32_t parity = _LumUseChk(*files); parity >= 0) {
        *source = {&files->chk[parity], parity, files->chk[parity].generation};
        return 0;
    }
    if (_LumUseLogs(*files)) {
        *source = {nullptr, -1, 0};
        return 0;
    }
    return LUM_RC_BAD_FILES;
}

void ReportSource(const LumRegion *region, const RecoveryFileSet &files, const Source &source) {
    static const char *const kRestoring[] = {"Restoring %s from TAB file",
                                             "Restoring %s from CHK file",
                                             "Restoring %s from LOG file(s)"};
    int kind = source.image == &files.tab ? 0 : source.chk_parity >= 0 ? 1 : 2;
    LumLog(LUM_LOG_PROGRESS, 1, region_catalog, kSetReport, 15 + kind, kRestoring[kind],
           region->name);
}

int32_t Recover(LumRegion *region, RecoveryFileSet *files, uint8_t *buffer) {
    if (int32_t rc = ProbeAndJudge(region, files, buffer); rc != 0)
        return rc;
    Source source;
    if (int32_t rc = PickSource(files, &source); rc != 0)
        return rc;
    ReportSource(region, *files, source);
    int32_t rc = RestoreFrom(region, files, source, buffer);
    return rc == 0 || rc == LUM_RC_SOFT_LIMIT ? rc : LUM_RC_BAD_FILES;
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
    auto *buffer = static_cast<uint8_t *>(lum_malloc(kLogBlock));
    rc = buffer == nullptr ? LUM_RC_NO_MEMORY : Recover(region, &files, buffer);
    lum_free(buffer);
    if (rc != 0)
        return Abandon(region, &files, rc);
    Publish(region);
    *out_region = region;
    *out_base = region->base;
    return VerifyRecovered(region);
}
