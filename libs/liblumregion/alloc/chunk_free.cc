// Chunk release: LumMemFree merges a chunk with its free neighbours, puts
// the result into the segment's bins, or gives a secondary extent back to
// the region when the chunk now fills it. A primary extent stays.
//
// Before anything changes, the free proves what it is about to trust: the
// chunk lies in the chunk area of an extent of this segment, its head tag
// is live and equals its foot tag, and each free neighbour it merges with
// has a head tag equal to its foot tag and lies in the same area. A second
// free of a chunk fails one of these as long as its memory has not been
// handed out again, as a chunk or within a new extent: a chunk that merged
// with the free chunk above it carries CHUNK_FREE; one that merged with the
// free chunk below has the merged chunk's foot tag, or, when it merged on
// both sides, a neighbour whose stale tags no longer agree.

#include "alloc/batch.h"
#include "verify/verify.h"

namespace {

// Bytes from `from` up to `to`, which lies no lower, within one extent.
uint32_t BytesBetween(const uint8_t *from, const uint8_t *to) {
    return static_cast<uint32_t>(to - from);
}

// Finds the extent of `segment` whose chunk area holds the chunk at `chunk`,
// any address: the primary extent, which holds most, or one of the chain.
bool FindChunkArea(const LumSegment *segment, const uint8_t *chunk, ChunkArea *area) {
    for (ExtentChain chain = _LumExtentChainBegin(segment); chain.extent != nullptr;
         _LumExtentChainNext(&chain)) {
        *area = ChunkAreaOf(segment, chain.extent);
        if (chunk >= area->begin && chunk < area->end)
            return true;
    }
    return false;
}

// What freeing one chunk changes, worked out before anything changes.
struct Release {
    ChunkArea area;
    uint32_t freed; // the live chunk's size
    uint8_t *above; // the free neighbour above, or null
    uint8_t *below; // the free neighbour below, or null
    uint8_t *block; // the free block that results
    uint32_t size;  // its size
};

// Whether `pointer` lies in the image's extents: from the first extent up
// to the image's used size.
bool InExtents(const LumRegion *region, const void *pointer) {
    uintptr_t offset =
        reinterpret_cast<uintptr_t>(pointer) - reinterpret_cast<uintptr_t>(region->base);
    return offset >= FirstExtentOffset() && offset < region->used.load(std::memory_order_relaxed);
}

// Plans the release of the chunk at `chunk`: 0; -408 when it is no live
// chunk of `segment` or a free neighbour's tags disagree (see the head of
// this file); -19 when it lies outside the image's extents. Reads only
// inside the chunk's extent.
int32_t PlanRelease(const LumSegment *segment, uint8_t *chunk, Release *release) {
    ChunkArea area;
    if (!FindChunkArea(segment, chunk, &area))
        return InExtents(segment->region, chunk + 4) ? LUM_RC_DOUBLE_FREE : LUM_RC_FAILURE;
    uint32_t tag = ImageLoad32(chunk);
    uint32_t size = TagSize(tag);
    if ((tag & kTagFlags) != 0 || size < 16 || size > BytesBetween(chunk, area.end) ||
        ImageLoad32(chunk + size - 4) != tag)
        return LUM_RC_DOUBLE_FREE;
    Release plan{area, size, nullptr, nullptr, chunk, size};
    uint8_t *above = chunk + size; // the rear fence at most
    if (uint32_t above_tag = ImageLoad32(above); above_tag & CHUNK_FREE) {
        if (TagSize(above_tag) > BytesBetween(above, area.end) ||
            ImageLoad32(above + TagSize(above_tag) - 4) != above_tag)
            return LUM_RC_DOUBLE_FREE;
        plan.above = above;
        plan.size += TagSize(above_tag);
    }
    if (uint32_t below_tag = ImageLoad32(chunk - 4); below_tag & CHUNK_FREE) {
        if (TagSize(below_tag) > BytesBetween(area.begin, chunk) ||
            ImageLoad32(chunk - TagSize(below_tag)) != below_tag)
            return LUM_RC_DOUBLE_FREE;
        plan.below = plan.block = chunk - TagSize(below_tag);
        plan.size += TagSize(below_tag);
    }
    *release = plan;
    return 0;
}

} // namespace

template <typename Batch>
void RegionChunkRelease(Batch &changes, uint8_t *bins, uint8_t *chunk, uint32_t size) {
    changes.Unprotect(chunk, size);
    ImageStore32(chunk, size | CHUNK_FREE);
    ImageStore32(chunk + size - 4, size | CHUNK_FREE);
    FreeListInsert(changes, bins, chunk, size);
    changes.Protect(chunk, size);
    changes.Mark(chunk, 12);
    changes.Mark(chunk + size - 4, 4);
}

template void RegionChunkRelease(ChangeBatch<true> &, uint8_t *, uint8_t *, uint32_t);
template void RegionChunkRelease(ChangeBatch<false> &, uint8_t *, uint8_t *, uint32_t);

namespace {

// Carries out a planned release: unlinks the neighbours it merges with,
// the one above first, then bins the merged block or gives its extent
// back, then the counters.
template <typename Batch>
void FreeChunk(Batch &changes, LumSegment *segment, const Release &release) {
    uint8_t *stats_at = segment->primary + primary_extent::kStats;
    uint8_t *bins = segment->primary + primary_extent::kChunkBins;
    if (release.above != nullptr)
        FreeListRemove(changes, release.above);
    if (release.below != nullptr)
        FreeListRemove(changes, release.below);
    uint32_t merged = (release.above != nullptr) + (release.below != nullptr);
    // A secondary extent that the block now fills goes back; a primary stays.
    bool gives_back = release.area.extent != segment->primary &&
                      release.block == release.area.begin &&
                      release.block + release.size == release.area.end;
    if (!gives_back)
        RegionChunkRelease(changes, bins, release.block, release.size);
    // The counters are read only now, so that they take no registers
    // through the merges.
    SegmentStats s = StatsRead(stats_at);
    s.used_bytes -= release.freed;
    s.used_chunks -= 1;
    s.free_bytes += release.freed;
    s.free_chunks += 1 - merged;
    if (gives_back) {
        s.free_bytes -= release.size;
        s.free_chunks -= 1;
        auto suspended = changes.Suspend();
        _LumSegmentShrink(segment, &s, release.area.extent);
    }
    StatsWrite(changes, stats_at, s);
}

// With the mutation check on: a chunk freed before is refused by the plan
// alone; any other pointer is classified, reported when it lies outside
// every live chunk's data, and then refused, so that no tag is written at
// it. `planned` is the plan's result, which stands otherwise.
LUM_SLOW_PATH int32_t CheckedRelease(LumSegment *segment, uint8_t *chunk, int32_t planned) {
    ChunkArea area;
    bool freed_before = FindChunkArea(segment, chunk, &area) && (ImageLoad32(chunk) & CHUNK_FREE);
    if (freed_before || _LumMutationCheckFree(segment, chunk + 4))
        return planned;
    return planned != 0 ? planned : LUM_RC_DOUBLE_FREE;
}

} // namespace

LUM_HOT_PATH int32_t LumMemFree(LumSegment *segment, void *pointer) {
    if (segment == nullptr || pointer == nullptr || reinterpret_cast<uintptr_t>(pointer) % 8 != 0)
        return LUM_RC_FAILURE;
    Release release;
    uint8_t *chunk = static_cast<uint8_t *>(pointer) - 4;
    int32_t rc = PlanRelease(segment, chunk, &release);
    if (region_mutation_check == 1)
        rc = CheckedRelease(segment, chunk, rc);
    if (rc != 0)
        return rc;
    if (ProtectsPages(segment->region)) // an allocation freed before it was logged
        _LumOpenChunkEnd(segment->region, chunk);
    InBatch(segment->region, [&](auto &changes) { FreeChunk(changes, segment, release); });
    return 0;
}
