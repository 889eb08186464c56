// What every fuzz target shares: the library started once with its reports
// dropped, and a scratch directory for the files a target writes.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <string>
#include <unistd.h>

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
