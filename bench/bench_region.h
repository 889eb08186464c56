// The library started once per program, scratch directories, and a
// persistent region in one, removed with its files at exit.
#pragma once

#include <cstdlib>
#include <string>
#include <unistd.h>

#include "durable/write_path.h"
#include "lumregion.h"
#include "verify/verify.h"

inline constexpr uint32_t kMiB = 1024 * 1024;

// Starts the library once for the whole program.
inline void StartLibraryOnce() {
    static bool started = [] {
        LumPropMgr *properties;
        LumPropMgrCreate(&properties);
        LumRegionPropMgrInitialise(properties);
        return LumRegionStartup(properties, "/nonexistent-home") == 0;
    }();
    if (!started)
        abort();
}

// A scratch directory, removed with its files at exit; `path` ends in '/'.
struct ScratchDir {
    ScratchDir() {
        char pattern[] = "/tmp/lumbench-XXXXXX";
        path = std::string(mkdtemp(pattern)) + "/";
    }
    ~ScratchDir() {
        std::string command = "rm -rf " + path;
        if (system(command.c_str()) != 0)
            perror("rm");
    }
    std::string path;
};

struct BenchRegion {
    // A region of 256 MiB with a log buffer for records of `largest_record`.
    BenchRegion(const char *name, uint32_t largest_record) {
        StartLibraryOnce();
        void *base;
        if (LumRegionCreate(name, LUM_REGION_PERSISTENT, 256 * kMiB, 256 * kMiB, largest_record, 0,
                            scratch.path.c_str(), &region, &base) != 0)
            abort();
        directory = scratch.path;
    }
    ~BenchRegion() { LumRegionDrop(region); }
    // Starts the log of the current generation afresh, so that it does not
    // grow through a long run.
    void RewindLog() {
        int log = region->log_fd[region->generation.load() % 2];
        if (ftruncate(log, file_header::kSize) != 0)
            abort();
        lseek(log, file_header::kSize, SEEK_SET);
    }

    ScratchDir scratch;
    std::string directory;
    LumRegion *region = nullptr;
};
