// ChangeBatch: the logged changes of one allocator operation, appended to
// the log buffer in place.
//
// An allocation or a free logs about five small records: bin links, tags,
// counters. Each through _LumImageMarkDirty would test the buffer, the
// region's state and the dirty maps anew, and reload them after every
// byte store into the image, which the compiler must assume may alias
// them. A batch makes those tests once when it opens, with room for the
// whole operation, and keeps its append position and the dirty maps'
// words in registers.
//
// A batch appends the records that _LumImageMarkDirty would append, in the
// same order, through the same RecordChange, which marks each record's
// pages behind it. Its appends become part of the buffer when it closes, so
// it must be closed around any call that logs by itself.
#pragma once

#include <cassert>
#include <cstdint>

#include "alloc/layout.h"
#include "durable/write_path.h"

// Copies a batched record's payload, at most 24 bytes. The allocator
// stores its words one by one, just before it logs them; a wider load that
// spans two such stores waits until they reach the cache, where loads of
// the same words take their values from the pending stores. So whole words
// go word by word.
inline void CopyWords(uint8_t *to, const uint8_t *from, uint32_t length) {
    if (length % 4 == 0) {
#pragma GCC unroll 8
        for (uint32_t i = 0; i < length; i += 4)
            ImageStore32(to + i, ImageLoad32(from + i));
    } else {
        CopyShortPayload(to, from, length);
    }
}

// kProtects is the region's protection choice: fixed for an operation, and
// a parameter so that a batch of a region that does not protect its pages
// compiles without any test of it. InBatch picks the kind.
template <bool kProtects> class ChangeBatch {
  public:
    explicit ChangeBatch(LumRegion *region) : region_(region) { Open(); }
    ~ChangeBatch() { Close(); }
    ChangeBatch(const ChangeBatch &) = delete;
    ChangeBatch &operator=(const ChangeBatch &) = delete;

    LumRegion *region() const { return region_; }
    uint8_t *At(RegionOffset offset) const { return base_ + offset; }
    RegionOffset OffsetOf(const uint8_t *at) const { return static_cast<RegionOffset>(at - base_); }

    // _LumPageUnprotect and _LumPageProtect.
    void Unprotect(void *address, uint32_t length) const {
        if (kProtects)
            _LumPageAccessSet(region_, address, length, 1);
    }
    void Protect(void *address, uint32_t length) const {
        if (kProtects)
            _LumPageAccessSet(region_, address, length, 0);
    }

    // _LumImageMarkDirty of [address, address + length), changed already.
    void Mark(void *address, uint32_t length) {
        auto *at = static_cast<uint8_t *>(address);
        if (cursor_ == nullptr || length - 1 >= kLargestPayload) {
            MarkAlone(at, length);
            return;
        }
        // A batch is open only with the write barrier: a set bit is trusted.
        cursor_ = RecordChange<CopyWords>(cursor_, at, OffsetOf(at), length, [this] {
            return DirtyMaps{even_words_, odd_words_, page_count_, page_shift_, true};
        });
    }

    // Closes the batch for the life of the returned guard, around a call
    // that logs by itself: that call's records land behind the batch's, and
    // the batch opens again behind them.
    class Suspension {
      public:
        explicit Suspension(ChangeBatch &batch) : batch_(batch) { batch_.Close(); }
        ~Suspension() { batch_.Open(); }
        Suspension(const Suspension &) = delete;
        Suspension &operator=(const Suspension &) = delete;

      private:
        ChangeBatch &batch_;
    };
    [[nodiscard]] Suspension Suspend() { return Suspension(*this); }

  private:
    // Makes the appended records part of the buffer. Open starts again
    // from the buffer as it then stands.
    void Close() {
        if (cursor_ != nullptr) {
            LogBuffer *buffer = region_->log_buffer;
            assert(cursor_ <= buffer->data + buffer->capacity);
            buffer->used = static_cast<uint32_t>(cursor_ - buffer->data);
        }
        cursor_ = nullptr;
    }

    // Appends in place only to a buffer that a logging region has opened
    // with its LOG_SIZE, and only with the write barrier that lets a mark
    // trust a set bit (without it every mark pays its atomic set, and the
    // batch would save little); every other record goes through MarkAlone.
    void Open() {
        base_ = region_->base;
        if (IsPersistent(region_) && region_write_barrier != 0 && LogBufferTakes(region_, kRoom)) {
            LogBuffer *buffer = region_->log_buffer;
            cursor_ = buffer->data + buffer->used;
            DirtyMaps maps = DirtyMapsOf(region_);
            even_words_ = maps.even_words;
            odd_words_ = maps.odd_words;
            page_count_ = maps.page_count;
            page_shift_ = maps.page_shift;
        }
    }

    // The allocator's records are links, tags and counters: at most 24
    // bytes. Larger ones go alone.
    static constexpr uint32_t kLargestPayload = 24;
    // A batch opens where the buffer would take a record of kRoom bytes.
    // While open, an operation appends at most nine records (a free that
    // merges on both sides: two unlinks of two records, an insert of two,
    // head, foot and counters), each at most 12 + kLargestPayload bytes.
    // A record that goes alone reopens the batch, which tests the room again.
    static constexpr uint32_t kMostRecords = 9;
    static constexpr uint32_t kRoom = 512;
    static_assert(kRoom >= kMostRecords * log_record::Size(LOG_DATA, kLargestPayload));

    // A record that the batch does not append: a volatile region does not
    // log; otherwise the batch closes, the record goes its ordinary way and
    // the batch opens again behind it.
    void MarkAlone(uint8_t *at, uint32_t length) {
        if (!IsPersistent(region_))
            return;
        Close();
        _LumImageMarkDirtyOutOfLine(region_, at, OffsetOf(at), length);
        Open();
    }

    LumRegion *region_;
    uint8_t *base_ = nullptr;
    uint8_t *cursor_ = nullptr; // the next record; null while nothing is appended in place
    // The dirty maps, read when the batch opens, in the batch's own words
    // so that they may stay in registers.
    uint32_t *even_words_ = nullptr;
    uint32_t *odd_words_ = nullptr;
    uint32_t page_count_ = 0;
    uint32_t page_shift_ = 0;
};

// A segment's counters, read and written back word by word: the caller's
// copy can stay in registers, and each load takes its value from the
// store of the previous operation if that is still pending.
inline SegmentStats StatsRead(const uint8_t *at) {
    return {ImageLoad32(at),      ImageLoad32(at + 4),  ImageLoad32(at + 8),
            ImageLoad32(at + 12), ImageLoad32(at + 16), ImageLoad32(at + 20)};
}

// Runs `operation`, a callable that takes the batch, in a batch of the kind
// that the region's protection choice asks for.
template <typename Operation> decltype(auto) InBatch(LumRegion *region, Operation &&operation) {
    if (ProtectsPages(region)) {
        ChangeBatch<true> changes(region);
        return operation(changes);
    }
    ChangeBatch<false> changes(region);
    return operation(changes);
}

// Unprotect, six word stores, Protect; no record.
template <typename Batch>
void StatsStore(const Batch &changes, uint8_t *at, const SegmentStats &stats) {
    changes.Unprotect(at, sizeof stats);
    const uint32_t words[] = {stats.extents,     stats.total_bytes, stats.free_bytes,
                              stats.free_chunks, stats.used_bytes,  stats.used_chunks};
    for (uint32_t i = 0; i < 6; ++i)
        ImageStore32(at + 4 * i, words[i]);
    changes.Protect(at, sizeof stats);
}

// StatsStore and the counters' record.
template <typename Batch> void StatsWrite(Batch &changes, uint8_t *at, const SegmentStats &stats) {
    StatsStore(changes, at, stats);
    changes.Mark(at, sizeof stats);
}

// freelist.cc: the bin operations of layout.h within a batch, made for both
// kinds; the exported forms open a batch of their own.
template <typename Batch> uint8_t *FreeListFind(Batch &changes, uint8_t *bins, uint32_t size);
template <typename Batch>
void FreeListInsert(Batch &changes, uint8_t *bins, uint8_t *item, uint32_t size);
template <typename Batch> void FreeListRemove(Batch &changes, uint8_t *item);

// free.cc, made for both kinds: makes the block of `size` bytes at `chunk`
// a free chunk in `bins`: tags with CHUNK_FREE, linked in, protected, and
// its head and links and its foot tag logged.
template <typename Batch>
void RegionChunkRelease(Batch &changes, uint8_t *bins, uint8_t *chunk, uint32_t size);
