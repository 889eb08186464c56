// File formats of a persistent region: the header of every file and the
// redo records of the logs.
//
// Files of a persistent region (directory + name + suffix):
//   "_0.chk", "_1.chk"  checkpoint images, by generation parity
//   "_0.log", "_1.log"  logs, by generation parity
//   ".tab"              the whole image, written by a sync
//   ".tabnew"           a snapshot being written; renamed to ".tab" when whole
// Every file starts with a FileHeader. A .chk or .tab file is the image
// page for page (image offset N at file offset N), except that the header
// stands in place of the image's first 32 bytes, which the image reserves
// for it. A log is a header and then records back to back from offset 32.
#pragma once

#include <cstdint>

#include "alloc/layout.h"

// FileHeader: 32 bytes at the head of every file.
namespace file_header {
inline constexpr uint32_t kMagic = 0;      // "LSB\0": the only field a reader judges
inline constexpr uint32_t kVersion = 4;    // "010\0": written, never read
inline constexpr uint32_t kGeneration = 8; // the generation the file belongs to
inline constexpr uint32_t kTimestamp = 12; // seconds since 1970, signed
inline constexpr uint32_t kPageSize = 16;  // page size of the writer
inline constexpr uint32_t kReserved = 20;  // 12 zero bytes
inline constexpr uint32_t kSize = 32;
inline constexpr char kMagicText[4] = "LSB";
inline constexpr char kVersionText[4] = "010";
// The last byte of the version text carries flags, which only recovery
// reads. kFollowsGap: this log starts a generation that follows a failed
// log, whose lost records no replay may skip over, so recovery never
// applies this log behind its predecessor.
inline constexpr uint32_t kFlags = kVersion + 3;
inline constexpr uint8_t kFollowsGap = 1;
static_assert(kReserved + 12 == kSize);
static_assert(kSize <= region_header::kSegmentMap, "the header fits the image's reserved bytes");
} // namespace file_header

// Types of the records in a log file.
enum LogRecordType : uint32_t {
    LOG_DATA = 0,       // redo: payload of `length` bytes for image offset `value`
    LOG_SIZE = 1,       // the image's used size is `value` from here on
    LOG_CHECKPOINT = 2, // the chk file of this log's parity is complete
    LOG_COMMIT = 3,     // everything before belongs to a commit
};

// LogRecord: a 12-byte head, then for LOG_DATA `length` bytes of payload
// padded to a multiple of 4 (the filler is never read).
namespace log_record {
inline constexpr uint32_t kType = 0;
inline constexpr uint32_t kLength = 4;
inline constexpr uint32_t kValue = 8;
inline constexpr uint32_t kHeadSize = 12;
// The largest payload that recovery reads in one block.
inline constexpr uint32_t kMaxPayload = 1048576;
constexpr uint32_t Size(uint32_t type, uint32_t length) {
    return kHeadSize + (type == LOG_DATA ? (length + 3) & ~3u : 0);
}
static_assert(Size(LOG_DATA, 5) == 20);
static_assert(Size(LOG_COMMIT, 0) == 12);
inline void StoreHead(uint8_t *head, uint32_t type, uint32_t value, uint32_t length) {
    ImageStore32(head + kType, type);
    ImageStore32(head + kLength, length);
    ImageStore32(head + kValue, value);
}
} // namespace log_record
