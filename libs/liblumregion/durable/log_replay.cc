// Reading a log: the scan that judges it and the replay that applies it to
// the image. Both walk the records from offset 32 through one buffer of
// kLogBlock bytes, read in blocks of that size; a record that a block cuts
// is read again from its head at the start of the next block, so every
// record is whole in the buffer when it is looked at.
//
// The scan trusts nothing: the first record that could not have been
// written by a region (an unknown type, a length where none belongs, data
// beyond the image size of the last LOG_SIZE, a record longer than a block,
// whose payload exceeds kMaxPayload) ends it, and the log counts only up to
// its last LOG_COMMIT before that. The replay applies only what a scan accepted and the cut
// left, but checks the bounds of each write again: it never writes outside
// the image, whatever the file holds by then.
#include <algorithm>
#include <cerrno>
#include <cstring>

#include "durable/recovery.h"
#include "durable/write_path.h"
#include "platform/platform.h"

namespace {

// The records of one log up to file offset `end`, block by block.
class LogReader {
  public:
    LogReader(int fd, uint8_t *buffer, uint64_t end = kWholeLog)
        : fd_(fd), buffer_(buffer), end_(end) {}

    // The head of the next record, or null when fewer than 12 bytes remain.
    const uint8_t *Head() { return Hold(log_record::kHeadSize); }
    // The current record with `size` bytes from its head in the buffer, or
    // null when the log holds fewer. A record that the block cuts is read
    // again from its head to the buffer's start, so a pointer from an
    // earlier Head or Hold is stale afterwards: use the one returned.
    const uint8_t *Hold(uint32_t size) {
        if (offset_ + size > filled_) {
            if (last_ || size > kLogBlock)
                return nullptr;
            ReadBlock();
            if (size > filled_)
                return nullptr;
        }
        return buffer_ + offset_;
    }
    void Skip(uint32_t size) { offset_ += size; }
    // File offset of the current record.
    uint64_t Position() const { return position_ + offset_; }
    // The last record ended exactly at the end of the file.
    bool AtEnd() const { return last_ && !failed_ && offset_ == filled_; }
    bool ReadFailed() const { return failed_; }

  private:
    void ReadBlock() {
        position_ += offset_;
        offset_ = 0;
        uint64_t wanted = position_ < end_ ? std::min<uint64_t>(kLogBlock, end_ - position_) : 0;
        ssize_t read = wanted == 0 ? 0
                                   : _LumPread(fd_, buffer_, static_cast<uint32_t>(wanted),
                                               static_cast<int64_t>(position_));
        failed_ = read < 0;
        filled_ = read < 0 ? 0 : static_cast<uint32_t>(read);
        last_ = filled_ != kLogBlock || position_ + filled_ == end_;
    }

    int fd_;
    uint8_t *buffer_;
    uint64_t end_;
    uint64_t position_ = file_header::kSize; // file offset of buffer_[0]
    uint32_t offset_ = 0;
    uint32_t filled_ = 0;
    bool last_ = false;
    bool failed_ = false;
};

struct Record {
    uint32_t type;
    uint32_t length;
    uint32_t value;
    uint32_t Size() const { return log_record::Size(type, length); }
};

Record ReadHead(const uint8_t *head) {
    return {ImageLoad32(head + log_record::kType), ImageLoad32(head + log_record::kLength),
            ImageLoad32(head + log_record::kValue)};
}

// Whether a region could have written `record` to a log whose last LOG_SIZE
// was `image_size`. A payload beyond kMaxPayload is refused by the reader,
// which never holds a record longer than a block.
bool Plausible(const Record &record, uint32_t image_size) {
    switch (record.type) {
    case LOG_DATA:
        return record.length != 0 && uint64_t{record.value} + record.length <= image_size;
    case LOG_SIZE:
    case LOG_CHECKPOINT:
    case LOG_COMMIT:
        return record.length == 0;
    default:
        return false;
    }
}

} // namespace

void _LumLogCheck(RecoveryFile *log, uint8_t *buffer) {
    log->clean = false;
    log->commit_end = file_header::kSize;
    log->checkpoint_position = kNoCheckpoint;
    log->valid = _LumFileReadHeader(log) == 0 && log->size > file_header::kSize;
    if (!log->valid)
        return;
    LogReader reader(log->fd, buffer);
    uint32_t image_size = 0;
    uint64_t checkpoint = kNoCheckpoint; // a LOG_CHECKPOINT that awaits its LOG_COMMIT
    bool good = true;
    while (const uint8_t *head = reader.Head()) {
        Record record = ReadHead(head);
        good = Plausible(record, image_size) && reader.Hold(record.Size()) != nullptr;
        if (!good)
            break;
        if (record.type == LOG_SIZE) {
            image_size = record.value;
        } else if (record.type == LOG_CHECKPOINT) {
            checkpoint = reader.Position();
        } else if (record.type == LOG_COMMIT) {
            log->commit_end = reader.Position() + log_record::kHeadSize;
            if (checkpoint != kNoCheckpoint)
                log->checkpoint_position = checkpoint;
            checkpoint = kNoCheckpoint;
        }
        reader.Skip(record.Size());
    }
    log->clean = good && reader.AtEnd();
    log->unreadable = log->unreadable || reader.ReadFailed();
}

int32_t _LumLogApply(LumRegion *region, int fd, uint8_t *buffer, bool neutralise, uint64_t end) {
    LogReader reader(fd, buffer, end);
    uint32_t used = region->used.load(std::memory_order_relaxed);
    DirtyMaps maps = DirtyMapsOf(region);
    uint32_t marked_page = UINT32_MAX; // nothing clears a mark during a replay
    while (const uint8_t *head = reader.Head()) {
        Record record = ReadHead(head);
        const uint8_t *whole = Plausible(record, used) ? reader.Hold(record.Size()) : nullptr;
        if (whole == nullptr)
            return LUM_RC_FAILURE;
        if (record.type == LOG_DATA) {
            uint8_t *target = region->base + record.value;
            const uint8_t *payload = whole + log_record::kHeadSize;
            if (record.length <= kShortPayload)
                CopyShortPayload(target, payload, record.length);
            else
                memcpy(target, payload, record.length);
            uint32_t first = record.value >> maps.page_shift;
            if (first != marked_page ||
                (record.value + record.length - 1) >> maps.page_shift != first) {
                DirtyMapsMarkRange(maps, record.value, record.length);
                marked_page = first;
            }
        } else if (record.type == LOG_SIZE) {
            if (int32_t rc = _LumImageSetSize(region, record.value); rc != 0)
                return rc;
            uint32_t grown = region->used.load(std::memory_order_relaxed);
            if (grown > used)
                _LumPageUnprotect(region, region->base + used, grown - used);
            used = grown;
        } else if (record.type == LOG_CHECKPOINT && neutralise) {
            uint8_t commit[4];
            ImageStore32(commit, LOG_COMMIT);
            if (_LumPwrite(fd, commit, 4, static_cast<int64_t>(reader.Position())) != 4)
                return LUM_RC_FAILURE;
        }
        reader.Skip(record.Size());
    }
    return reader.AtEnd() ? 0 : LUM_RC_FAILURE;
}
