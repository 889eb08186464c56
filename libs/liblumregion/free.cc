// Chunk release: LumMemFree merges a chunk with its free neighbours, puts
// the result into the segment's bins, or gives a secondary extent back to
// the region when the chunk now fills it. A primary extent stays.

#include "batch.h"

namespace {

uint32_t TagSize(uint32_t tag) {
    return tag & ~kTagFlags;
}

// The extent that a chunk lying directly behind its front fence belongs to:
// that chunk lies in the extent's first page.
uint8_t *ExtentOfFirstChunk(uint8_t *chunk) {
    auto address = reinterpret_cast<uintptr_t>(chunk);
    return reinterpret_cast<uint8_t *>(address & ~uintptr_t{region_page_size - 1});
}

} // namespace

void RegionChunkRelease(ChangeBatch &changes, uint8_t *bins, uint8_t *chunk, uint32_t size) {
    changes.Unprotect(chunk, size);
    ImageStore32(chunk, size | CHUNK_FREE);
    ImageStore32(chunk + size - 4, size | CHUNK_FREE);
    FreeListInsert(changes, bins, chunk, size);
    changes.Protect(chunk, size);
    changes.Mark(chunk, 12);
    changes.Mark(chunk + size - 4, 4);
}

LUM_HOT_PATH int32_t LumMemFree(LumSegment *segment, void *pointer) {
    if (segment == nullptr || pointer == nullptr || reinterpret_cast<uintptr_t>(pointer) % 8 != 0)
        return LUM_RC_FAILURE;
    LumRegion *region = segment->region;
    uint8_t *stats_at = segment->primary + primary_extent::kStats;
    uint8_t *bins = segment->primary + primary_extent::kChunkBins;
    uint8_t *chunk = static_cast<uint8_t *>(pointer) - 4;
    uint32_t size = TagSize(ImageLoad32(chunk));
    if (ImageLoad32(chunk) & CHUNK_FREE)
        return LUM_RC_DOUBLE_FREE;
    if (region_mutation_check == 1)
        _LumMutationCheck(segment, pointer, 1);

    ChangeBatch changes(region);
    SegmentStats s = StatsRead(stats_at);
    s.free_bytes += size;
    s.free_chunks += 1;
    s.used_bytes -= size;
    s.used_chunks -= 1;

    uint8_t *next = chunk + size;
    if (ImageLoad32(next) & CHUNK_FREE) {
        size += TagSize(ImageLoad32(next));
        FreeListRemove(changes, next);
        s.free_chunks -= 1;
    }
    uint8_t *prev = chunk - TagSize(ImageLoad32(chunk - 4));
    if (ImageLoad32(prev) & CHUNK_FREE) {
        size += TagSize(ImageLoad32(prev));
        FreeListRemove(changes, prev);
        chunk = prev;
        s.free_chunks -= 1;
    }

    uint8_t *before = chunk - TagSize(ImageLoad32(chunk - 4));
    bool fills_extent =
        (ImageLoad32(before) & CHUNK_FENCE) && (ImageLoad32(chunk + size) & CHUNK_FENCE);
    uint8_t *extent = ExtentOfFirstChunk(chunk);
    if (fills_extent && ImageLoad32(extent + extent_header::kKind) == extent_header::kSecondary) {
        s.free_bytes -= size;
        s.free_chunks -= 1;
        changes.Close();
        SegmentStats shrunk = s; // s itself never leaves registers
        _LumSegmentShrink(segment, &shrunk, extent);
        changes.Open();
        s = shrunk;
    } else {
        RegionChunkRelease(changes, bins, chunk, size);
    }
    StatsWrite(changes, stats_at, s);
    return 0;
}
