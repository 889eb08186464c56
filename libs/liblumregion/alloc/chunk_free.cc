// Chunk release: LumMemFree merges a chunk with its free neighbours, puts
// the result into the segment's bins, or gives a secondary extent back to
// the region when the chunk now fills it. A primary extent stays.

#include "alloc/batch.h"
#include "verify/verify.h"

namespace {

// The extent that a chunk lying directly behind its front fence belongs to:
// that chunk lies in the extent's first page.
uint8_t *ExtentOfFirstChunk(uint8_t *chunk) {
    return reinterpret_cast<uint8_t *>(PageStart(reinterpret_cast<uintptr_t>(chunk)));
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

// Frees the used chunk at `chunk`: merges it with its free neighbours,
// then bins the result or gives its extent back, then the counters.
template <typename Batch> void FreeChunk(Batch &changes, LumSegment *segment, uint8_t *chunk) {
    if constexpr (std::is_same_v<Batch, ChangeBatch<true>>) // an allocation freed unlogged
        _LumOpenChunkEnd(changes.region(), chunk);
    uint8_t *stats_at = segment->primary + primary_extent::kStats;
    uint8_t *bins = segment->primary + primary_extent::kChunkBins;
    uint32_t freed = BlockSize(chunk);
    uint32_t size = freed;
    uint32_t merged = 0;
    uint8_t *next = chunk + size;
    if (ImageLoad32(next) & CHUNK_FREE) {
        size += BlockSize(next);
        FreeListRemove(changes, next);
        merged += 1;
    }
    uint8_t *prev = chunk - BlockSize(chunk - 4);
    if (ImageLoad32(prev) & CHUNK_FREE) {
        size += BlockSize(prev);
        FreeListRemove(changes, prev);
        chunk = prev;
        merged += 1;
    }

    uint8_t *before = chunk - BlockSize(chunk - 4);
    bool fills_extent =
        (ImageLoad32(before) & CHUNK_FENCE) && (ImageLoad32(chunk + size) & CHUNK_FENCE);
    uint8_t *extent = ExtentOfFirstChunk(chunk);
    bool gives_back =
        fills_extent && ImageLoad32(extent + extent_header::kKind) == extent_header::kSecondary;
    if (!gives_back)
        RegionChunkRelease(changes, bins, chunk, size);
    // The counters are read only now, so that they take no registers
    // through the merges.
    SegmentStats s = StatsRead(stats_at);
    s.used_bytes -= freed;
    s.used_chunks -= 1;
    s.free_bytes += freed;
    s.free_chunks += 1 - merged;
    if (gives_back) {
        s.free_bytes -= size;
        s.free_chunks -= 1;
        auto suspended = changes.Suspend();
        _LumSegmentShrink(segment, &s, extent);
    }
    StatsWrite(changes, stats_at, s);
}

} // namespace

LUM_HOT_PATH int32_t LumMemFree(LumSegment *segment, void *pointer) {
    if (segment == nullptr || pointer == nullptr || reinterpret_cast<uintptr_t>(pointer) % 8 != 0)
        return LUM_RC_FAILURE;
    uint8_t *chunk = static_cast<uint8_t *>(pointer) - 4;
    if (ImageLoad32(chunk) & CHUNK_FREE)
        return LUM_RC_DOUBLE_FREE;
    if (region_mutation_check == 1)
        _LumMutationCheck(segment, pointer, 1);
    InBatch(segment->region, [&](auto &changes) { FreeChunk(changes, segment, chunk); });
    return 0;
}
