// What every fuzz target shares: the library started once with its reports
// dropped, and a scratch directory for the files a target writes.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <unistd.h>

#include "durable/durable.h"
#include "lumregion.h"

inline constexpr uint32_t kFuzzMiB = 1024 * 1024;

inline void DropReport(void *, int32_t, uint32_t, uint32_t, const char *) {}

inline LumPropMgr *fuzz_properties;

// Starts the library once, shut down at exit, and returns a scratch
// directory that ends in '/'.
inline const std::string &FuzzStart() {
    static const std::string directory = [] {
        LumLogSetSink(DropReport, nullptr);
        char pattern[] = "/tmp/lumfuzz-XXXXXX";
        if (LumPropMgrCreate(&fuzz_properties) != 0 ||
            LumRegionPropMgrInitialise(fuzz_properties) != 0 ||
            LumRegionStartup(fuzz_properties, "/nonexistent-home") != 0 ||
            mkdtemp(pattern) == nullptr)
            abort();
        atexit([] {
            LumRegionShutdown();
            LumPropMgrDestroy(fuzz_properties);
        });
        return std::string(pattern) + "/";
    }();
    return directory;
}

// A scratch region whose image holds the input, its used size the input's
// rounded up to pages; null for an input larger than 4 MiB.
inline LumRegion *RegionHolding(const uint8_t *data, size_t size) {
    LumRegion *region;
    void *base;
    if (size > 4 * kFuzzMiB || LumRegionCreate("image", LUM_REGION_SCRATCH, 8 * kFuzzMiB,
                                               8 * kFuzzMiB, 0, 0, nullptr, &region, &base) != 0)
        return nullptr;
    uint32_t pages = static_cast<uint32_t>(PageRoundUp(size));
    if (pages > region->used && _LumImageSetSize(region, pages) != 0)
        abort();
    memcpy(region->base, data, size);
    return region;
}
