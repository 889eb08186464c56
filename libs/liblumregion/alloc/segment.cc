// Segments: named slots of segment_map, each a primary extent with the
// segment's parameters, statistics and chunk_bins, and a chain of secondary
// extents behind it, newest first. A segment grows by a secondary extent
// when its bins hold nothing that fits and gives one back as soon as it is
// wholly free; the primary extent stays until the segment is dropped.
#include <algorithm>
#include <cstring>

#include "alloc/layout.h"
#include "durable/write_path.h"

namespace {

using namespace primary_extent;

// The parameters of a segment, kept in its primary extent: sizes in whole
// pages, growth in percent.
struct SegmentParameters {
    uint32_t primary_size;
    uint32_t secondary_size;
    uint32_t growth_percent;
    uint32_t maximum_size;
};

// Anything this large is beyond every region: sizes saturate here.
constexpr uint64_t kBeyondAnyRegion = uint64_t{1} << 32;

uint8_t *SegmentMapEntry(LumRegion *region, uint32_t id) {
    return region->base + region_header::kSegmentMap + 4 * id;
}

uint8_t *SegmentCount(LumRegion *region) {
    return region->base + region_header::kSegmentCount;
}

void AddToSegmentCount(LumRegion *region, int32_t delta) {
    uint8_t *count = SegmentCount(region);
    LoggedStore32(region, count, ImageLoad32(count) + delta);
}

// The lowest id whose map entry is free; kSegmentSlots when none is, which
// only a map that disagrees with segment_count can give.
uint32_t FreeSegmentId(LumRegion *region) {
    uint32_t id = 0;
    while (id < region_header::kSegmentSlots && ImageLoad32(SegmentMapEntry(region, id)) != 0)
        ++id;
    return id;
}

// `size` rounded up to whole pages into *pages, when the region could ever
// hold that many bytes.
bool PagesWithinRegion(const LumRegion *region, uint32_t size, uint32_t *pages) {
    uint64_t rounded = PageRoundUp(size);
    if (rounded > region->hard_limit)
        return false;
    *pages = static_cast<uint32_t>(rounded);
    return true;
}

// The parameters LumSegmentCreate was asked for, rounded to pages, in *kept;
// false when a size is 0 where it must not be, or its pages cannot fit the
// region, or the maximum is below the first two extents.
bool AcceptParameters(const LumRegion *region, const SegmentParameters &asked,
                      SegmentParameters *kept) {
    if (asked.primary_size == 0 ||
        (asked.maximum_size != 0 &&
         asked.maximum_size < uint64_t{asked.primary_size} + asked.secondary_size))
        return false;
    kept->growth_percent = asked.growth_percent;
    return PagesWithinRegion(region, asked.primary_size, &kept->primary_size) &&
           PagesWithinRegion(region, asked.secondary_size, &kept->secondary_size) &&
           PagesWithinRegion(region, asked.maximum_size, &kept->maximum_size);
}

// Whether `primary` is the primary extent of a live segment of `region`: a
// page of the image whose segment's map entry names it. It is not once the
// segment was dropped, through this handle or another.
bool IsLiveSegment(LumRegion *region, const uint8_t *primary) {
    uintptr_t offset =
        reinterpret_cast<uintptr_t>(primary) - reinterpret_cast<uintptr_t>(region->base);
    if (offset < FirstExtentOffset() || offset >= region->used || offset % region_page_size != 0)
        return false;
    uint32_t id = ImageLoad32(primary + kSegmentId);
    return id < region_header::kSegmentSlots && ImageLoad32(SegmentMapEntry(region, id)) == offset;
}

// Writes the parameters, the bins, the fences and the one free chunk of a
// new primary extent, which is still writable.
void FormatPrimary(LumRegion *region, uint8_t *extent, uint32_t id,
                   const SegmentParameters &parameters) {
    ImageStore32(extent + extent_header::kPrev, 0);
    ImageStore32(extent + extent_header::kNext, 0);
    ImageStore32(extent + extent_header::kKind, extent_header::kPrimary);
    ImageStore32(extent + kSegmentId, id);
    ImageStore32(extent + kPrimarySize, parameters.primary_size);
    ImageStore32(extent + kSecondarySize, parameters.secondary_size);
    ImageStore32(extent + kGrowthPercent, parameters.growth_percent);
    ImageStore32(extent + kMaximumSize, parameters.maximum_size);
    _LumFreeListInit(region, extent + kChunkBins);
    uint8_t *chunk = _LumExtentFormat(region, extent);
    uint32_t chunk_size = BlockSize(chunk);
    _LumFreeListInsert(region, extent + kChunkBins, chunk, chunk_size);
    _LumImageMarkDirty(region, chunk + bin_array::kLinkUp, 8);
    SegmentStats stats{1, parameters.primary_size, chunk_size, 1, 0, 0};
    memcpy(extent + kStats, &stats, sizeof stats);
    _LumPageProtect(region, extent, BlockSize(extent));
    _LumImageMarkDirty(region, extent, extent_header::kPrimarySize);
}

// `size` grown by `percent`, rounded up to a byte; saturates at
// kBeyondAnyRegion.
uint64_t Grown(uint64_t size, uint32_t percent) {
    uint64_t scaled;
    if (__builtin_mul_overflow(size, uint64_t{100} + percent, &scaled))
        return kBeyondAnyRegion;
    return std::min(scaled / 100 + (scaled % 100 != 0), kBeyondAnyRegion);
}

// The size of the next secondary extent of a segment of `extents` extents:
// secondary_size for the first, each further one growth_percent larger
// than the one before. The growth goes by the extents the segment has now,
// so a shrink lowers the next growth again. A secondary_size of 0 leaves
// every extent at the size its request needs.
uint64_t WantedExtentSize(const uint8_t *primary, uint32_t extents) {
    uint64_t size = ImageLoad32(primary + kSecondarySize);
    uint32_t percent = ImageLoad32(primary + kGrowthPercent);
    if (size == 0 || percent == 0)
        return size;
    // From a page, growth of 1% saturates within a few thousand steps.
    for (uint32_t step = 1; step < extents && size < kBeyondAnyRegion; ++step)
        size = Grown(size, percent);
    return size;
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
    SegmentParameters parameters;
    if (!AcceptParameters(region, {primary_size, secondary_size, growth_percent, maximum_size},
                          &parameters))
        return LUM_RC_ALLOCATOR_TYPE;
    uint32_t id = FreeSegmentId(region);
    if (id == region_header::kSegmentSlots)
        return LUM_RC_MAX_SEGMENTS;

    *out = nullptr;
    LumSegment *segment = NewHandle(region, nullptr);
    if (segment == nullptr)
        return LUM_RC_NO_MEMORY;
    uint8_t *extent;
    if (int32_t rc = _LumExtentAlloc(region, parameters.primary_size, &extent); rc != 0) {
        lum_free(segment);
        return rc;
    }
    LoggedStore32(region, SegmentMapEntry(region, id), ImageOffsetOf(region, extent));
    FormatPrimary(region, extent, id, parameters);
    AddToSegmentCount(region, 1);
    segment->primary = extent;
    *out = segment;
    return 0;
}

ExtentChain _LumExtentChainBegin(const LumSegment *segment) {
    const LumRegion *region = segment->region;
    return {region, segment->primary,
            region->used.load(std::memory_order_relaxed) >> region_page_shift, false};
}

void _LumExtentChainNext(ExtentChain *chain) {
    RegionOffset next = ImageLoad32(chain->extent + extent_header::kNext);
    uint32_t used = chain->region->used.load(std::memory_order_relaxed);
    chain->extent = nullptr;
    if (next == 0)
        return;
    chain->broken = true;
    if (PageStart(next) != next || next >= used || chain->steps_left-- == 0)
        return;
    uint8_t *extent = chain->region->base + next;
    uint32_t size = BlockSize(extent);
    if (size >= region_page_size && uint64_t{next} + size <= used) {
        chain->extent = extent;
        chain->broken = false;
    }
}

int32_t LumSegmentDrop(LumSegment *segment) {
    if (segment == nullptr || !IsLiveSegment(segment->region, segment->primary))
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
    memcpy(&stats, segment->primary + kStats, sizeof stats);
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
        WantedExtentSize(primary, stats->extents),
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
