// Size bins: the BinArray of 128 rings of free items that both the extent
// allocator of a region and the chunk allocator of a segment use.
//
// Layout (offsets in the array): sentinel i at 4 + 12 i, with link_up at
// +4 and link_down at +8; an item has the same three words (tag, link_up,
// link_down). Every link is a RegionOffset.
//
// Invariants of a BinArray:
//   1. Every bin is a closed ring through its sentinel, in both directions.
//   2. An empty bin's sentinel links to itself.
//   3. An item of size s lies in bin _LumFreeListIndex(s) and carries
//      CHUNK_FREE in its head tag.
//   4. From 512 bytes up, sizes do not decrease along link_up, and among
//      equal sizes the item that went in first comes first.
//   5. Below 512 a bin holds one size, first in first out along link_up.
//   6. Bins 0, 1 and 127 stay empty: the smallest block is 16 bytes and the
//      largest index is 126.
// Every link written goes through Unprotect, store, Protect, Mark; the two
// links of a sentinel lie side by side and go out as one 8-byte record.
//
// Beside each BinArray the region handle keeps a volatile summary of the
// bins that may hold items (BinSummary), so that a search jumps over empty
// bins instead of reading every sentinel on its way. An insert sets a bin's
// bit; a search that finds a bin empty clears it.
#include "alloc/batch.h"

namespace {

RegionOffset LinkUp(const uint8_t *item) {
    return ImageLoad32(item + bin_array::kLinkUp);
}
RegionOffset LinkDown(const uint8_t *item) {
    return ImageLoad32(item + bin_array::kLinkDown);
}

// Sets a's link_down to `down_value` and b's link_up to `up_value`, each
// behind its page protection. The caller marks them with MarkRelinked.
template <typename Batch>
void Relink(Batch &changes, uint8_t *a, RegionOffset down_value, uint8_t *b,
            RegionOffset up_value) {
    changes.Unprotect(a + bin_array::kLinkDown, 4);
    changes.Unprotect(b + bin_array::kLinkUp, 4);
    ImageStore32(a + bin_array::kLinkDown, down_value);
    ImageStore32(b + bin_array::kLinkUp, up_value);
    changes.Protect(a + bin_array::kLinkDown, 4);
    changes.Protect(b + bin_array::kLinkUp, 4);
}

// Logs the two links that Relink wrote: one 8-byte record when a and b are
// the same sentinel, whose two links lie side by side.
template <typename Batch> void MarkRelinked(Batch &changes, uint8_t *a, uint8_t *b) {
    if (a == b) {
        changes.Mark(b + bin_array::kLinkUp, 8);
    } else {
        changes.Mark(a + bin_array::kLinkDown, 4);
        changes.Mark(b + bin_array::kLinkUp, 4);
    }
}

// The summary of the BinArray at `bins`: slot 128 for extent_bins, else the
// id of the segment whose chunk_bins they are. Null for bins that name no
// valid slot (a damaged id), which are then searched bin by bin.
BinSummary *SummaryOf(LumRegion *region, uint8_t *bins) {
    if (bins == region->base + region_header::kExtentBins)
        return &region->bin_summary[kBinSummarySlots - 1];
    uint32_t id = ImageLoad32(bins - primary_extent::kChunkBins + primary_extent::kSegmentId);
    return id < kBinSummarySlots - 1 ? &region->bin_summary[id] : nullptr;
}

void NoteFilled(BinSummary *summary, uint32_t bin) {
    if (summary != nullptr)
        summary->maybe_filled[bin / 64] |= uint64_t{1} << (bin % 64);
}

void NoteEmpty(BinSummary *summary, uint32_t bin) {
    if (summary != nullptr && summary->known)
        summary->maybe_filled[bin / 64] &= ~(uint64_t{1} << (bin % 64));
}

// The next bin from `bin` on that may hold items; kBins when none.
uint32_t NextMaybeFilled(const BinSummary *summary, uint32_t bin) {
    if (summary == nullptr || !summary->known)
        return bin;
    if (bin < 64) {
        if (uint64_t low = summary->maybe_filled[0] >> bin; low != 0)
            return bin + static_cast<uint32_t>(__builtin_ctzll(low));
        bin = 64;
    }
    if (bin >= bin_array::kBins)
        return bin_array::kBins;
    uint64_t high = summary->maybe_filled[1] >> (bin - 64);
    return high != 0 ? bin + static_cast<uint32_t>(__builtin_ctzll(high)) : bin_array::kBins;
}

} // namespace

uint32_t _LumFreeListIndex(uint32_t size) {
    uint32_t k = size >> 9;
    if (size < 512)
        return size >> 3;
    if (k <= 4)
        return 56 + (size >> 6);
    if (k <= 20)
        return 91 + (size >> 9);
    if (k <= 84)
        return 110 + (size >> 12);
    if (k <= 340)
        return 119 + (size >> 15);
    if (k <= 1364)
        return 124 + (size >> 18);
    return 126;
}

void _LumFreeListInit(LumRegion *region, uint8_t *bins) {
    if (BinSummary *summary = SummaryOf(region, bins))
        *summary = {{0, 0}, true};
    for (uint32_t i = 0; i < bin_array::kBins; ++i) {
        uint8_t *sentinel = bins + bin_array::SentinelOffset(i);
        RegionOffset self = ImageOffsetOf(region, sentinel);
        ImageStore32(sentinel + bin_array::kLinkUp, self);
        ImageStore32(sentinel + bin_array::kLinkDown, self);
    }
}

template <typename Batch>
void FreeListInsert(Batch &changes, uint8_t *bins, uint8_t *item, uint32_t size) {
    uint32_t bin = _LumFreeListIndex(size);
    NoteFilled(SummaryOf(changes.region(), bins), bin);
    uint8_t *sentinel = bins + bin_array::SentinelOffset(bin);
    uint8_t *prev = sentinel;
    uint8_t *cur = changes.At(LinkDown(sentinel));
    // Sorted bins: in front of the first item that is not larger, seen along
    // link_down, so equal sizes leave in the order they came.
    if (size >= 512) {
        while (cur != sentinel && size < BlockSize(cur)) {
            prev = cur;
            cur = changes.At(LinkDown(cur));
        }
    }
    RegionOffset offset = changes.OffsetOf(item);
    Relink(changes, prev, offset, cur, offset);
    // After the protects above, which may have closed the item's own page.
    changes.Unprotect(item, 12);
    MarkRelinked(changes, prev, cur);
    ImageStore32(item + bin_array::kLinkUp, changes.OffsetOf(prev));
    ImageStore32(item + bin_array::kLinkDown, changes.OffsetOf(cur));
}

template <typename Batch> uint8_t *FreeListFind(Batch &changes, uint8_t *bins, uint32_t size) {
    BinSummary *summary = SummaryOf(changes.region(), bins);
    for (uint32_t i = NextMaybeFilled(summary, _LumFreeListIndex(size)); i < bin_array::kBins;
         i = NextMaybeFilled(summary, i + 1)) {
        uint8_t *sentinel = bins + bin_array::SentinelOffset(i);
        uint8_t *prev = sentinel;
        uint8_t *cur = changes.At(LinkUp(sentinel));
        if (cur == sentinel)
            NoteEmpty(summary, i);
        while (cur != sentinel && size > BlockSize(cur)) {
            prev = cur;
            cur = changes.At(LinkUp(cur));
        }
        if (cur == sentinel)
            continue;
        uint8_t *next = changes.At(LinkUp(cur));
        Relink(changes, next, changes.OffsetOf(prev), prev, changes.OffsetOf(next));
        MarkRelinked(changes, next, prev);
        return cur;
    }
    return nullptr;
}

template <typename Batch> void FreeListRemove(Batch &changes, uint8_t *item) {
    uint8_t *up = changes.At(LinkUp(item));
    uint8_t *down = changes.At(LinkDown(item));
    Relink(changes, up, LinkDown(item), down, LinkUp(item));
    MarkRelinked(changes, up, down);
}

template uint8_t *FreeListFind(ChangeBatch<true> &, uint8_t *, uint32_t);
template uint8_t *FreeListFind(ChangeBatch<false> &, uint8_t *, uint32_t);
template void FreeListInsert(ChangeBatch<true> &, uint8_t *, uint8_t *, uint32_t);
template void FreeListInsert(ChangeBatch<false> &, uint8_t *, uint8_t *, uint32_t);
template void FreeListRemove(ChangeBatch<true> &, uint8_t *);
template void FreeListRemove(ChangeBatch<false> &, uint8_t *);

void _LumFreeListInsert(LumRegion *region, uint8_t *bins, uint8_t *item, uint32_t size) {
    InBatch(region, [&](auto &changes) { FreeListInsert(changes, bins, item, size); });
}

uint8_t *_LumFreeListFind(LumRegion *region, uint8_t *bins, uint32_t size) {
    return InBatch(region, [&](auto &changes) { return FreeListFind(changes, bins, size); });
}

void _LumFreeListRemove(LumRegion *region, uint8_t *item) {
    InBatch(region, [&](auto &changes) { FreeListRemove(changes, item); });
}
