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

// log_replay.cc ---------------------------------------------------------

// Scans a log through `buffer` (kLogBlock bytes): valid, clean,
// commit_end, checkpoint_position. Changes nothing on disk.
void _LumLogCheck(RecoveryFile *log, uint8_t *buffer);

// Replays the log at `fd` into the image from offset 32 through `buffer`.
// With `neutralise`, every LOG_CHECKPOINT met is rewritten on disk as a
// LOG_COMMIT, which replays alike but acknowledges no chk file. 0 when the
// log was replayed to its exact end; the code of a size the image refused
// (-402, -403); or -19 for a record it cannot apply or a failed read.
int32_t _LumLogApply(LumRegion *region, int fd, uint8_t *buffer, bool neutralise);
