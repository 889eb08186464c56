// Chunk allocation: LumMemAlloc hands out a boundary-tagged chunk of a
// segment, the smallest free chunk that fits, split at its high end, or the
// free chunk of a new secondary extent.
//
// The contract with the caller: the chunk's pages come back writable and
// its two tags written but not logged. The caller fills the chunk with
// plain stores and ends with LumMemLog, which logs the whole chunk, tags
// included, in one record (or LumMemNoLog, which logs nothing).

#include "alloc/batch.h"

namespace {

constexpr uint32_t kSmallestChunk = 16;
// The largest request whose chunk, with a secondary extent's overhead,
// still fits 32 bits.
constexpr uint32_t kLargestRequest = 0xFFFFFFFF - 71;

uint32_t ChunkSizeFor(uint32_t size) {
    uint32_t want = (size + 15) & ~7u;
    return want > kSmallestChunk ? want : kSmallestChunk;
}

// Adds a secondary extent to the segment for a chunk of `want` bytes and
// sets *found to its free chunk, which is in no bin. The counters are
// stored with the extent and its chunk counted, but not logged: the
// operation logs them once, last.
template <typename Batch>
int32_t ExtendFor(Batch &changes, LumSegment *segment, uint8_t *stats_at, uint32_t want,
                  uint8_t **found) {
    SegmentStats s = StatsRead(stats_at);
    int32_t rc;
    {
        auto suspended = changes.Suspend();
        rc = _LumSegmentExtend(segment, want, &s, found);
    }
    if (rc != 0)
        return rc;
    s.free_bytes += BlockSize(*found);
    s.free_chunks += 1;
    StatsStore(changes, stats_at, s);
    return 0;
}

// Hands out a chunk of `want` bytes at *pointer, as LumMemAlloc promises.
template <typename Batch>
int32_t AllocateChunk(Batch &changes, LumSegment *segment, uint32_t want, void **pointer) {
    uint8_t *stats_at = segment->primary + primary_extent::kStats;
    uint8_t *bins = segment->primary + primary_extent::kChunkBins;
    uint8_t *found = FreeListFind(changes, bins, want);
    if (found == nullptr) {
        int32_t rc = ExtendFor(changes, segment, stats_at, want, &found);
        if (rc != 0)
            return rc;
    }
    uint32_t have = BlockSize(found);
    bool split = have >= want + kSmallestChunk;
    if (split) {
        RegionChunkRelease(changes, bins, found + want, have - want); // the rest
        have = want;
    }
    SegmentStats s = StatsRead(stats_at);
    s.free_bytes -= have;
    s.free_chunks -= split ? 0 : 1;
    s.used_chunks += 1;
    s.used_bytes += have;
    StatsWrite(changes, stats_at, s);
    // Last: every protect before works on whole pages and may have closed
    // the chunk's.
    changes.Unprotect(found, have);
    if constexpr (std::is_same_v<Batch, ChangeBatch<true>>) // stays writable for the host
        _LumOpenChunkAdd(changes.region(), found, have);
    ImageStore32(found, have);
    ImageStore32(found + have - 4, have);
    *pointer = found + 4;
    return 0;
}

} // namespace

LUM_HOT_PATH int32_t LumMemAlloc(LumSegment *segment, uint32_t size, void **pointer) {
    if (segment == nullptr || pointer == nullptr)
        return LUM_RC_FAILURE;
    *pointer = nullptr;
    if (size > kLargestRequest)
        return LUM_RC_FAILURE;
    return InBatch(segment->region, [&](auto &changes) {
        return AllocateChunk(changes, segment, ChunkSizeFor(size), pointer);
    });
}

// The usable size of an allocation: its chunk less the two tags.
uint32_t LumMemGetSize(void *pointer) {
    if (pointer == nullptr)
        return 0;
    return BlockSize(static_cast<uint8_t *>(pointer) - 4) - 8;
}
