// Segments: named slots of segment_map, each a primary extent with the
// segment's parameters, statistics and chunk_bins, and a chain of secondary
// extents behind it, newest first. A segment grows by a secondary extent
// when its bins hold nothing that fits and gives one back as soon as it is
// wholly free; the primary extent stays until the segment is dropped.
#include <algorithm>
#include <cmath>
#include <cstring>

#include "alloc/layout.h"
#include "durable/write_path.h"

namespace {

using namespace primary_extent;

uint8_t *SegmentMapEntry(LumRegion *region, uint32_t id) {
    return region->base + region_header::kSegmentMap + 4 * id;
}

uint8_t *SegmentCount(LumRegion *region) {
    return region->base + region_header::kSegmentCount;
}

uint32_t RoundUpToPage(uint32_t size) {
    return static_cast<uint32_t>((uint64_t{size} + region_page_size - 1) &
                                 ~uint64_t{region_page_size - 1});
}

void AddToSegmentCount(LumRegion *region, int32_t delta) {
    uint8_t *count = SegmentCount(region);
    LoggedStore32(region, count, ImageLoad32(count) + delta);
}

SegmentStats *StatsOf(uint8_t *primary) {
    return reinterpret_cast<SegmentStats *>(primary + kStats);
}

// Writes the parameters, the bins, the fences and the one free chunk of a
// new primary extent, which is still writable.
void FormatPrimary(LumRegion *region, uint8_t *extent, uint32_t id, uint32_t primary_size,
                   uint32_t secondary_size, uint32_t growth_percent, uint32_t maximum_size) {
    ImageStore32(extent + extent_header::kPrev, 0);
    ImageStore32(extent + extent_header::kNext, 0);
    ImageStore32(extent + extent_header::kKind, extent_header::kPrimary);
    ImageStore32(extent + kSegmentId, id);
    ImageStore32(extent + kPrimarySize, primary_size);
    ImageStore32(extent + kSecondarySize, secondary_size);
    ImageStore32(extent + kGrowthPercent, growth_percent);
    ImageStore32(extent + kMaximumSize, maximum_size);
    _LumFreeListInit(region, extent + kChunkBins);
    uint8_t *chunk = _LumExtentFormat(region, extent);
    uint32_t chunk_size = BlockSize(chunk);
    _LumFreeListInsert(region, extent + kChunkBins, chunk, chunk_size);
    _LumImageMarkDirty(region, chunk + bin_array::kLinkUp, 8);
    SegmentStats stats{1, primary_size, chunk_size, 1, 0, 0};
    memcpy(extent + kStats, &stats, sizeof stats);
    _LumPageProtect(region, extent, BlockSize(extent));
    _LumImageMarkDirty(region, extent, extent_header::kPrimarySize);
}

// The size of the next secondary extent: secondary_size for the first,
// then growing by growth_percent for each extent the segment has now.
uint64_t WantedExtentSize(const uint8_t *primary, const SegmentStats *stats) {
    uint32_t secondary = ImageLoad32(primary + kSecondarySize);
    if (stats->extents == 1)
        return secondary;
    double base = ImageLoad32(primary + kGrowthPercent) / 100.0 + 1.0;
    double size = std::ceil(std::pow(base, stats->extents - 1) * secondary);
    return size >= 0x1p64 ? UINT64_MAX : static_cast<uint64_t>(size);
}

LumSegment *NewHandle(LumRegion *region, uint8_t *primary) {
    auto *segment = static_cast<LumSegment *>(lum_malloc(sizeof(LumSegment)));
    if (segment != nullptr)
        *segment = {region, primary};
    return segment;
}

} // namespace

int32_t LumSegmentCreate(LumRegion *region, uint32_t primary_size, uint32_t secondary_size,
                         uint32_t growth_percent, uint32_t maximum_size, LumSegment **out) {
    if (region == nullptr || out == nullptr)
        return LUM_RC_FAILURE;
    if (ImageLoad32(SegmentCount(region)) >= region_header::kSegmentSlots)
        return LUM_RC_MAX_SEGMENTS;
    if (primary_size == 0 ||
        (maximum_size != 0 && maximum_size < uint64_t{primary_size} + secondary_size))
        return LUM_RC_ALLOCATOR_TYPE;
    primary_size = RoundUpToPage(primary_size);
    secondary_size = RoundUpToPage(secondary_size);
    maximum_size = RoundUpToPage(maximum_size);

    *out = nullptr;
    LumSegment *segment = NewHandle(region, nullptr);
    if (segment == nullptr)
        return LUM_RC_NO_MEMORY;
    uint8_t *extent;
    if (int32_t rc = _LumExtentAlloc(region, primary_size, &extent); rc != 0) {
        lum_free(segment);
        return rc;
    }
    uint32_t id = 0;
    while (ImageLoad32(SegmentMapEntry(region, id)) != 0)
        ++id; // one is free: segment_count is below 128
    LoggedStore32(region, SegmentMapEntry(region, id), ImageOffsetOf(region, extent));
    FormatPrimary(region, extent, id, primary_size, secondary_size, growth_percent, maximum_size);
    AddToSegmentCount(region, 1);
    segment->primary = extent;
    *out = segment;
    return 0;
}

int32_t LumSegmentDrop(LumSegment *segment) {
    if (segment == nullptr)
        return LUM_RC_FAILURE;
    LumRegion *region = segment->region;
    uint8_t *primary = segment->primary;
    uint32_t id = ImageLoad32(primary + kSegmentId);
    LoggedStore32(region, primary + kSegmentId, kDroppedId);
    for (uint8_t *extent = primary; extent != region->base;) {
        uint8_t *next = region->base + ImageLoad32(extent + extent_header::kNext);
        _LumExtentFree(region, extent);
        extent = next;
    }
    _LumMemWriteWord(segment, SegmentMapEntry(region, id), 0);
    AddToSegmentCount(region, -1);
    lum_free(segment);
    return 0;
}

int32_t LumSegmentOpen(LumRegion *region, uint32_t segment_id, LumSegment **out) {
    if (region == nullptr || out == nullptr)
        return LUM_RC_FAILURE;
    if (segment_id >= region_header::kSegmentSlots)
        return LUM_RC_BAD_SEGMENT_ID;
    // An entry that names no page of the image (a damaged map) opens nothing.
    RegionOffset primary = ImageLoad32(SegmentMapEntry(region, segment_id));
    if (primary == 0 || primary % region_page_size != 0 ||
        uint64_t{primary} + region_page_size > region->used)
        return LUM_RC_BAD_SEGMENT_ID;
    LumSegment *segment = NewHandle(region, region->base + primary);
    if (segment == nullptr)
        return LUM_RC_NO_MEMORY;
    *out = segment;
    return 0;
}

int32_t LumSegmentClose(LumSegment *segment) {
    lum_free(segment);
    return 0;
}

void LumSegmentGetInfo(LumSegment *segment, LumSegmentInfo *info) {
    if (segment == nullptr || info == nullptr)
        return;
    SegmentStats stats;
    memcpy(&stats, StatsOf(segment->primary), sizeof stats);
    *info = {ImageLoad32(segment->primary + kSegmentId),
             stats.extents,
             stats.total_bytes,
             stats.free_bytes,
             stats.free_chunks,
             stats.used_bytes,
             stats.used_chunks};
}

uint32_t LumSegmentGetUsedBytes(LumSegment *segment) {
    return segment == nullptr ? 0 : ImageLoad32(segment->primary + kUsedBytes);
}

int32_t _LumSegmentExtend(LumSegment *segment, uint32_t chunk_size, SegmentStats *stats,
                          uint8_t **chunk) {
    LumRegion *region = segment->region;
    uint8_t *primary = segment->primary;
    uint32_t maximum = ImageLoad32(primary + kMaximumSize);
    if (maximum != 0 && stats->total_bytes == maximum)
        return LUM_RC_MAX_SEGMENT_SIZE;
    uint64_t wanted = std::max<uint64_t>(
        WantedExtentSize(primary, stats),
        uint64_t{chunk_size} + extent_header::Overhead(extent_header::kSecondarySize));
    if (wanted > region->hard_limit) {
        *chunk = nullptr;
        return LUM_RC_EXTEND;
    }
    uint8_t *extent;
    if (int32_t rc = _LumExtentAlloc(region, static_cast<uint32_t>(wanted), &extent); rc != 0) {
        *chunk = nullptr;
        return rc;
    }
    RegionOffset offset = ImageOffsetOf(region, extent);
    RegionOffset behind = ImageLoad32(primary + extent_header::kNext);
    ImageStore32(extent + extent_header::kKind, extent_header::kSecondary);
    ImageStore32(extent + extent_header::kPrev, ImageOffsetOf(region, primary));
    ImageStore32(extent + extent_header::kNext, behind);
    _LumImageMarkDirty(region, extent, 16);
    LoggedStore32(region, primary + extent_header::kNext, offset);
    stats->extents += 1;
    stats->total_bytes += BlockSize(extent);
    if (behind != 0)
        LoggedStore32(region, region->base + behind + extent_header::kPrev, offset);
    *chunk = _LumExtentFormat(region, extent);
    return 0;
}

int32_t _LumSegmentShrink(LumSegment *segment, SegmentStats *stats, uint8_t *extent) {
    LumRegion *region = segment->region;
    RegionOffset prev = ImageLoad32(extent + extent_header::kPrev);
    RegionOffset next = ImageLoad32(extent + extent_header::kNext);
    LoggedStore32(region, region->base + prev + extent_header::kNext, next);
    if (next != 0)
        LoggedStore32(region, region->base + next + extent_header::kPrev, prev);
    uint32_t size = BlockSize(extent);
    int32_t rc = _LumExtentFree(region, extent);
    stats->extents -= 1;
    stats->total_bytes -= size;
    return rc;
}
