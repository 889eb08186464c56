// lumregion stat: after a read-only recovery, walks each segment's chain
// of extents and the chunks of each extent and counts live and free
// chunks, free items per size bin and the largest free chunk.
//
// The walk trusts no word of the image, as the segment scan does: an
// extent link that is not on a page, leaves the image or closes a circle,
// and a chunk that does not lie inside its extent, end the walk of that
// segment, which is then reported as damaged (status 1). It reads nothing
// outside base .. base + used and every loop advances.
#include <cstdio>
#include <iostream>
#include <map>

#include "alloc/layout.h"
#include "durable/recovery.h"
#include "lumregion.h"
#include "tools/lumregion/tool.h"

namespace {

struct SegmentCount {
    uint32_t extents = 0;
    uint64_t total_bytes = 0;
    uint64_t used_bytes = 0;
    uint64_t free_bytes = 0;
    uint32_t live_chunks = 0;
    uint32_t free_chunks = 0;
    uint32_t largest_free = 0;
    std::map<uint32_t, uint32_t> free_per_bin;
    bool damaged = false;
};

// Counts the chunks of one extent's area, up to its rear fence.
void CountExtent(const ChunkArea &area, SegmentCount *count) {
    uint64_t extent_size = BlockSize(area.extent);
    ++count->extents;
    count->total_bytes += extent_size;
    for (const uint8_t *at = area.begin;;) {
        uint32_t tag = ImageLoad32(at);
        uint32_t size = TagSize(tag);
        if (size < 16 || uint64_t(at - area.extent) + size + 4 > extent_size) {
            count->damaged = true;
            return;
        }
        if ((tag & CHUNK_FENCE) != 0)
            return;
        if ((tag & CHUNK_FREE) != 0) {
            ++count->free_chunks;
            count->free_bytes += size;
            count->largest_free = std::max(count->largest_free, size);
            ++count->free_per_bin[_LumFreeListIndex(size)];
        } else {
            ++count->live_chunks;
            count->used_bytes += size;
        }
        at += size;
    }
}

// A primary extent must lie on a page inside the image and fit it; the
// chain behind it is walked as the library walks it, bounded by the image.
SegmentCount CountSegment(LumRegion *region, uint32_t primary) {
    SegmentCount count;
    uint32_t used = region->used.load();
    uint8_t *extent = region->base + primary;
    if (primary % region_page_size != 0 || primary >= used ||
        uint64_t{primary} + BlockSize(extent) > used || BlockSize(extent) < region_page_size) {
        count.damaged = true;
        return count;
    }
    LumSegment segment{region, extent};
    ExtentChain chain = _LumExtentChainBegin(&segment);
    for (; chain.extent != nullptr && !count.damaged; _LumExtentChainNext(&chain))
        CountExtent(ChunkAreaOf(&segment, chain.extent), &count);
    count.damaged = count.damaged || chain.broken;
    return count;
}

Json SegmentFacts(uint32_t id, const SegmentCount &count) {
    Json bins = Json::object();
    for (auto [bin, items] : count.free_per_bin)
        bins[std::to_string(bin)] = items;
    double fragmentation =
        count.free_bytes == 0 ? 0.0 : 1.0 - double(count.largest_free) / double(count.free_bytes);
    return {{"segment", id},
            {"extents", count.extents},
            {"total_bytes", count.total_bytes},
            {"used_bytes", count.used_bytes},
            {"free_bytes", count.free_bytes},
            {"live_chunks", count.live_chunks},
            {"free_chunks", count.free_chunks},
            {"largest_free", count.largest_free},
            {"fragmentation", fragmentation},
            {"free_per_bin", bins},
            {"damaged", count.damaged}};
}

} // namespace

Outcome RunStat(const ToolOptions &options) {
    Outcome outcome;
    LumRegion *region = RecoverForTool(options, &outcome);
    if (region == nullptr)
        return outcome;
    outcome.facts = {
        {"name", options.name}, {"image_bytes", region->used.load()}, {"segments", Json::array()}};
    for (uint32_t id = 0; id < region_header::kSegmentSlots; ++id) {
        uint32_t primary = ImageLoad32(region->base + region_header::kSegmentMap + 4 * id);
        if (primary == 0)
            continue;
        SegmentCount count = CountSegment(region, primary);
        outcome.facts["segments"].push_back(SegmentFacts(id, count));
        if (count.damaged)
            outcome.status = kExitFinding;
    }
    _LumRegionCloseReadOnly(region);
    return outcome;
}

void PrintStat(const Json &facts) {
    if (facts.contains("finding"))
        std::cout << "finding: " << facts["finding"].get<std::string>() << "\n";
    if (!facts.contains("segments"))
        return;
    std::cout << "region " << facts["name"].get<std::string>() << ": image " << facts["image_bytes"]
              << " bytes, " << facts["segments"].size() << " segments\n";
    for (const Json &segment : facts["segments"]) {
        printf(
            "segment %u: %u extents, %llu bytes; used %llu in %u chunks; free %llu in %u "
            "chunks, largest %u, fragmentation %.3f%s\n",
            segment["segment"].get<uint32_t>(), segment["extents"].get<uint32_t>(),
            segment["total_bytes"].get<unsigned long long>(),
            segment["used_bytes"].get<unsigned long long>(), segment["live_chunks"].get<uint32_t>(),
            segment["free_bytes"].get<unsigned long long>(), segment["free_chunks"].get<uint32_t>(),
            segment["largest_free"].get<uint32_t>(), segment["fragmentation"].get<double>(),
            segment["damaged"].get<bool>() ? ", DAMAGED: the walk stopped early" : "");
        if (segment["free_per_bin"].empty())
            continue;
        std::cout << "  free items per bin:";
        for (const auto &[bin, items] : segment["free_per_bin"].items())
            std::cout << " " << bin << ":" << items;
        std::cout << "\n";
    }
}
