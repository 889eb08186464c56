// Mutation checking: with Region.MutationCheck on, every logged write and
// every free is classified against the chunks of its segment, and a bad
// target is reported; the operation goes on regardless (a free of a pointer
// outside every live chunk's data changes nothing, see LumMemFree).
//
// The classification follows the chain of the segment's extents to the one
// whose chunk area holds the target, then that extent's chunks in address
// order up to the target. It trusts no tag: a size too small to step or one
// that runs past the area ends the walk, so a damaged image is never read
// outside itself.
#include "region/region.h"
#include "verify/verify.h"

namespace {

constexpr uint32_t kMessageSize = 32;
constexpr uint32_t kLiveChunkTraceId = 28; // in kSetReport
constexpr uint32_t kWriteReportId = 12;    // in kSetError
constexpr uint32_t kFreeReportId = 13;     // in kSetError

struct VerdictText {
    uint32_t verdict;
    uint32_t id; // in kSetMutation
    const char *text;
};
constexpr VerdictText kVerdictTexts[] = {
    {MUTATION_NONE, 1, "No memory write error"},
    {MUTATION_BOUNDS, 2, "Array bounds write"},
    {MUTATION_FREE, 3, "Free memory write"},
    {MUTATION_INVALID, 4, "Invalid pointer write"},
    {MUTATION_NOT_FOUND, 5, "Chunk not found in segment"},
};

// The verdict on `length` bytes at `into` bytes from the start of the chunk
// at `chunk`, whose head tag is `tag`. A free chunk's first 12 bytes are its
// tag and links; a live chunk's data are the size - 8 bytes behind its head
// tag, and a write that ends exactly at their end is sound. A live chunk is
// traced at the region_mutation debug switch.
uint32_t Decide(const uint8_t *chunk, uint32_t tag, uint64_t into, uint32_t length) {
    uint32_t size = TagSize(tag);
    if ((tag & CHUNK_FREE) != 0)
        return into < 12 || into >= size - 4 ? MUTATION_INVALID : MUTATION_FREE;
    LumLog(LUM_LOG_DEBUG, __atomic_load_n(&region_mutation_debug, __ATOMIC_RELAXED), region_catalog,
           kSetReport, kLiveChunkTraceId, "Live chunk found at 0x%p and of length %u bytes", chunk,
           size);
    if (into < 4 || into >= size - 4)
        return MUTATION_INVALID;
    return into + length > size - 4 ? MUTATION_BOUNDS : MUTATION_NONE;
}

// The verdict on a target inside `area`: the chunk that holds it decides.
uint32_t ClassifyInArea(const ChunkArea &area, const uint8_t *target, uint32_t length) {
    for (const uint8_t *chunk = area.begin; chunk < area.end;) {
        uint32_t tag = ImageLoad32(chunk);
        uint32_t size = TagSize(tag);
        if (size < 16 || size > static_cast<uint64_t>(area.end - chunk))
            break; // a damaged tag
        if (target < chunk + size)
            return Decide(chunk, tag, target - chunk, length);
        chunk += size;
    }
    return MUTATION_NOT_FOUND;
}

uint32_t SegmentId(const LumSegment *segment) {
    return ImageLoad32(segment->primary + primary_extent::kSegmentId);
}

// Classifies and, for a bad verdict, puts its text into `text`: whether
// there is a fault to report.
bool FindsFault(const LumSegment *segment, const void *target, uint32_t length,
                char (&text)[kMessageSize]) {
    uint32_t verdict;
    _LumMutationClassify(segment, target, length, &verdict);
    if (verdict == MUTATION_NONE)
        return false;
    _LumMutationMessage(verdict, text, kMessageSize);
    return true;
}

} // namespace

void _LumMutationClassify(const LumSegment *segment, const void *target, uint32_t length,
                          uint32_t *verdict) {
    const uint8_t *at = static_cast<const uint8_t *>(target);
    *verdict = MUTATION_NOT_FOUND;
    for (ExtentChain chain = _LumExtentChainBegin(segment); chain.extent != nullptr;
         _LumExtentChainNext(&chain)) {
        ChunkArea area = ChunkAreaOf(segment, chain.extent);
        if (at >= area.begin && at < area.end) {
            *verdict = ClassifyInArea(area, at, length);
            return;
        }
    }
}

void _LumMutationMessage(uint32_t verdict, char *buffer, uint32_t buffer_size) {
    for (const VerdictText &entry : kVerdictTexts)
        if (entry.verdict == verdict) {
            LumI18nMessageGet(region_catalog, kSetMutation, entry.id, entry.text, buffer,
                              buffer_size);
            return;
        }
    if (buffer_size > 0)
        buffer[0] = '\0';
}

void _LumMutationCheck(LumSegment *segment, void *target, uint32_t length) {
    char text[kMessageSize];
    if (FindsFault(segment, target, length, text))
        LumLog(LUM_LOG_ERROR, 0, region_catalog, kSetError, kWriteReportId,
               "Attempted memory write error at '0x%p' for %u byte(s) in segment with ID = %u: %s",
               target, length, SegmentId(segment), text);
}

bool _LumMutationCheckFree(LumSegment *segment, void *pointer) {
    char text[kMessageSize];
    if (!FindsFault(segment, pointer, 1, text))
        return true;
    LumLog(LUM_LOG_ERROR, 0, region_catalog, kSetError, kFreeReportId,
           "Attempted memory free error at '0x%p' in segment with ID = %u: %s", pointer,
           SegmentId(segment), text);
    return false;
}
