// ChangeBatch: the logged changes of one allocator operation, appended to
// the log buffer in place.
//
// An allocation or a free logs about five small records: bin links, tags,
// counters. Each through _LumImageMarkDirty would test the buffer, the
// region's state and the dirty maps anew, and reload them after every
// byte store into the image, which the compiler must assume may alias
// them. A batch makes those tests once when it opens and keeps its append
// position, the buffer's end and the dirty maps' words in registers.
//
// A batch appends the records that _LumImageMarkDirty would append, in the
// same order, and marks each record's page behind it. Its appends become
// part of the buffer when it closes, so it must be closed around any call
// that logs by itself.
#pragma once

#include <cstdint>

#include "durable.h"
#include "layout.h"

// Copies a record's payload or the words behind it. The allocator stores
// its words one by one, just before it logs them; a wider load that spans
// two such stores waits until they reach the cache, where loads of the
// same words take their values from the pending stores. So short runs of
// whole words go word by word.
inline void CopyWords(uint8_t *to, const uint8_t *from, uint32_t length) {
    if (length % 4 == 0 && length <= 32) {
#pragma GCC unroll 8
        for (uint32_t i = 0; i < length; i += 4)
            ImageStore32(to + i, ImageLoad32(from + i));
    } else {
        CopyPayload(to, from, length);
    }
}

class ChangeBatch {
public:
    explicit ChangeBatch(LumRegion *region) : region_(region) { Open(); }
    ~ChangeBatch() { Close(); }
    ChangeBatch(const ChangeBatch &) = delete;
    ChangeBatch &operator=(const ChangeBatch &) = delete;

    LumRegion *region() const { return region_; }
    uint8_t *At(RegionOffset offset) const { return base_ + offset; }
    RegionOffset OffsetOf(const uint8_t *at) const { return static_cast<RegionOffset>(at - base_); }

    // _LumPageUnprotect and _LumPageProtect, with the region's choice read
    // once.
    void Unprotect(void *address, uint32_t length) const {
        if (protects_)
            _LumPageAccessSet(address, length, 1);
    }
    void Protect(void *address, uint32_t length) const {
        if (protects_)
            _LumPageAccessSet(address, length, 0);
    }

    // _LumImageMarkDirty of [address, address + length), changed already.
    void Mark(void *address, uint32_t length) {
        auto *at = static_cast<uint8_t *>(address);
        uint32_t offset = OffsetOf(at);
        uint32_t need = log_record::Size(LOG_DATA, length);
        uint32_t page = offset >> page_shift_;
        bool one_page = ((offset + length - 1) >> page_shift_) == page;
        if (length - 1 >= log_record::kMaxPayload || static_cast<size_t>(end_ - cursor_) < need ||
            !one_page || page >= page_count_) {
            MarkAlone(address, length);
            return;
        }
        log_record::StoreHead(cursor_, LOG_DATA, offset, length);
        CopyWords(cursor_ + log_record::kHeadSize, at, length);
        cursor_ += need;
        DirtyMapsMark(even_words_, odd_words_, page, true);
    }

    // Makes the appended records part of the buffer. Open starts again
    // from the buffer as it then stands.
    void Close() {
        if (cursor_ != nullptr) {
            LogBuffer *buffer = region_->log_buffer;
            buffer->used = static_cast<uint32_t>(cursor_ - buffer->data);
        }
        cursor_ = end_ = nullptr;
    }

    // Appends in place only to a buffer that a logging region has opened
    // with its LOG_SIZE, and only with the write barrier that lets a mark
    // trust a set bit (without it every mark pays its atomic set, and the
    // batch would save little); every other record goes through MarkAlone.
    void Open() {
        base_ = region_->base;
        page_shift_ = region_page_shift;
        protects_ = ProtectsPages(region_);
        LogBuffer *buffer = region_->log_buffer;
        if (IsPersistent(region_) && region_write_barrier != 0 && buffer->used != 0 &&
            region_->online.load(std::memory_order_relaxed) != 0 &&
            region_->log_failed.load(std::memory_order_relaxed) == 0) {
            cursor_ = buffer->data + buffer->used;
            end_ = buffer->data + buffer->capacity;
            even_words_ = region_->dirty_map[0]->Words();
            odd_words_ = region_->dirty_map[1]->Words();
            page_count_ = static_cast<uint32_t>(region_->dirty_map[0]->page_count);
        }
    }

private:
    // A record that the batch does not append: a volatile region does not
    // log; otherwise the batch closes, the record goes its ordinary way and
    // the batch opens again behind it.
    void MarkAlone(void *address, uint32_t length) {
        if (!IsPersistent(region_))
            return;
        Close();
        _LumImageMarkDirty(region_, address, length);
        Open();
    }

    LumRegion *region_;
    uint8_t *base_ = nullptr;
    uint8_t *cursor_ = nullptr; // the next record; null while nothing is appended in place
    uint8_t *end_ = nullptr;    // the buffer's end; null with cursor_
    uint32_t *even_words_ = nullptr;
    uint32_t *odd_words_ = nullptr;
    uint32_t page_count_ = 0; // pages of the maps
    uint32_t page_shift_ = 0;
    bool protects_ = false;
};

// A segment's counters, read and written back word by word: the caller's
// copy can stay in registers, and each load takes its value from the
// store of the previous operation if that is still pending.
inline SegmentStats StatsRead(const uint8_t *at) {
    return {ImageLoad32(at),      ImageLoad32(at + 4),  ImageLoad32(at + 8),
            ImageLoad32(at + 12), ImageLoad32(at + 16), ImageLoad32(at + 20)};
}

// Unprotect, six word stores, Protect, one record.
inline void StatsWrite(ChangeBatch &changes, uint8_t *at, const SegmentStats &stats) {
    changes.Unprotect(at, sizeof stats);
    const uint32_t words[] = {stats.extents,    stats.total_bytes, stats.free_bytes,
                              stats.free_chunks, stats.used_bytes, stats.used_chunks};
    for (uint32_t i = 0; i < 6; ++i)
        ImageStore32(at + 4 * i, words[i]);
    changes.Protect(at, sizeof stats);
    changes.Mark(at, sizeof stats);
}

// freelist.cc: the bin operations of layout.h within a batch; the exported
// forms open a batch of their own.
uint8_t *FreeListFind(ChangeBatch &changes, uint8_t *bins, uint32_t size);
void FreeListInsert(ChangeBatch &changes, uint8_t *bins, uint8_t *item, uint32_t size);
void FreeListRemove(ChangeBatch &changes, uint8_t *item);

// free.cc: makes the block of `size` bytes at `chunk` a free chunk in
// `bins`: tags with CHUNK_FREE, linked in, protected, and its head and
// links and its foot tag logged.
void RegionChunkRelease(ChangeBatch &changes, uint8_t *bins, uint8_t *chunk, uint32_t size);
