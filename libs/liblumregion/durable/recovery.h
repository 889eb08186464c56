// Recovery's view of a region's five files, and the tools that judge them,
// read their logs and hand them over to the recovered handle. They run
// inside LumRegionOpen on a handle that is neither online nor registered,
// so the checkpoint thread cannot see it and nothing is logged.
#pragma once

#include <array>
#include <cstdint>

#include "durable/durable.h"

// The block in which logs are read: the largest payload and one record
// head, so that every record the scan accepts fits a block whole.
inline constexpr uint32_t kLogBlock = log_record::kMaxPayload + log_record::kHeadSize;
static_assert(kLogBlock == 0x10000c);

inline constexpr uint64_t kNoCheckpoint = 0xFFFFFFFF;

// What recovery knows of one file. Filled in three stages: probed (fd,
// size), header read (generation, timestamp, follows_gap), judged (the
// verdicts).
struct RecoveryFile {
    int fd = -1;              // -1 when not open
    uint64_t size = 0;        // by stat before the open; 0 when stat failed
    uint32_t generation = 0;  // from the header; 0 until one was read
    int32_t timestamp = 0;    // from the header; 0 until one was read
    bool follows_gap = false; // logs: the header's kFollowsGap flag
    // A stat, header read or scan read failed with an I/O error: nothing may
    // be concluded from this file's verdicts, or a good file would be cut.
    bool unreadable = false;
    bool valid = false;
    // Logs only. clean: every record was good and the last one ended at the
    // end of the file. commit_end: the offset behind the last LOG_COMMIT
    // (32 when none). checkpoint_position: the offset of the last
    // LOG_CHECKPOINT that a LOG_COMMIT follows, or kNoCheckpoint.
    bool clean = false;
    uint64_t commit_end = file_header::kSize;
    uint64_t checkpoint_position = kNoCheckpoint;
};

// The five files of a region; index i of chk and log is the parity i.
struct RecoveryFileSet {
    RecoveryFile tab;
    RecoveryFile chk[2];
    RecoveryFile log[2];

    std::array<RecoveryFile *, 5> All() { return {&tab, &chk[0], &chk[1], &log[0], &log[1]}; }
};

// recovery_files.cc -----------------------------------------------------

// Stats and opens directory + name + suffix with `flags` (O_RDONLY for the
// .tab file; O_RDWR | O_CREAT, never truncating, for the others). 0, or -1
// when a file that was to be created could not be opened (reported); a
// missing .tab file is no failure.
int32_t _LumFileProbe(const char *directory, const char *name, const char *suffix,
                      RecoveryFile *file, int flags);
void _LumFileClose(RecoveryFile *file);
// Reads generation, timestamp and flags from the file's header. 0, or -1
// for a file shorter than a header, a wrong magic ("Corrupt file") or a
// failed read (which also makes the file unreadable).
int32_t _LumFileReadHeader(RecoveryFile *file);
// A chk file counts when its header is good, its size is whole pages, and
// the log of its parity, of the same generation, acknowledged it.
void _LumChkCheck(RecoveryFile *chk, const RecoveryFile &log);
void _LumTabCheck(RecoveryFile *tab);
// a is newer than b: b is not valid, or a is above b by both generation
// and timestamp.
bool _LumFileNewer(const RecoveryFile &a, const RecoveryFile &b);
bool _LumUseTab(const RecoveryFileSet &set);
// The parity of the chk file to restore from, or -1.
int32_t _LumUseChk(const RecoveryFileSet &set);
bool _LumUseLogs(const RecoveryFileSet &set);
// Cuts `file` to `length` bytes; a failure is reported with `format` (one
// "%s" for the error) under `id`. False on failure, which fails the open:
// new records must never follow a tail that was meant to go, nor a stale
// log stay where a later recovery could chain it.
bool _LumFileCut(RecoveryFile *file, uint64_t length, uint32_t id, const char *format);

// recovery.cc -----------------------------------------------------------

// The result of a log choice when no log applies: outside both expected
// generations.
inline constexpr uint32_t kNoLogApplied = 10;

// Where the image comes from.
enum class RecoverySource { kNone, kTab, kChk, kLogs };

// What recovery does with a judged file set, decided before anything is
// read into an image or cut on disk. LumRegionOpen carries it out; the
// read-only recovery and the tools that explain a file set read it.
struct RecoveryPlan {
    RecoverySource source = RecoverySource::kNone;
    int32_t chk_parity = -1; // the chk file that is the source, or -1
    uint32_t first = 0;      // the generation of log A, the first one expected
    // The logs replayed, in this order, by parity; -1 for none.
    int32_t replay[2] = {-1, -1};
    // The log cut behind its last LOG_COMMIT before the replay (the last log
    // replayed, when anything follows that record), or -1; cut_step (1 to
    // 3) names the step in the report of a failed cut.
    int32_t cut_parity = -1;
    uint64_t cut_length = 0;
    uint32_t cut_step = 0;
    // The generation of the last log replayed, or first + kNoLogApplied.
    uint32_t applied = 0;
    // After the replay, by parity: the working files emptied when the
    // handle takes them over.
    bool empty_chk[2] = {false, false};
    bool empty_log[2] = {false, false};
};

// Picks the source of a judged file set and the logs that follow it. 0, or
// -411 when no source passes its test. Reads and changes nothing.
int32_t _LumRecoveryPlan(const RecoveryFileSet &files, RecoveryPlan *plan);

// Probes the five files of directory + name and judges them. With
// `read_only`, every file is opened read-only, none is created and the
// region's lock is not taken. 0, -411 when a file could not be probed or
// read, or the code of the lock. The caller closes the files.
int32_t _LumRecoveryJudge(const char *directory, const char *name, RecoveryFileSet *files,
                          uint8_t *buffer, bool read_only);

// Recovers a region into memory as LumRegionOpen would, without writing to
// its files: they are opened read-only, nothing is cut, rewritten or
// handed over, and the region is neither online nor registered, so no
// checkpoint visits it. The handle owns no file; end it with
// _LumRegionCloseReadOnly. 0, or the code LumRegionOpen would give.
int32_t _LumRegionRecoverReadOnly(const char *name, const char *directory, uint32_t hard_limit,
                                  LumRegion **out_region);
void _LumRegionCloseReadOnly(LumRegion *region);

// log_replay.cc ---------------------------------------------------------

// Scans a log through `buffer` (kLogBlock bytes): valid, clean,
// commit_end, checkpoint_position. Changes nothing on disk.
void _LumLogCheck(RecoveryFile *log, uint8_t *buffer);

// Replays the log at `fd` into the image from offset 32 to file offset
// `end` (kWholeLog: to the end of the file) through `buffer`. With
// `neutralise`, every LOG_CHECKPOINT met is rewritten on disk as a
// LOG_COMMIT, which replays alike but acknowledges no chk file. 0 when the
// log was replayed to exactly `end`; the code of a size the image refused
// (-402, -403); or -19 for a record it cannot apply or a failed read.
inline constexpr uint64_t kWholeLog = UINT64_MAX;
int32_t _LumLogApply(LumRegion *region, int fd, uint8_t *buffer, bool neutralise, uint64_t end);
