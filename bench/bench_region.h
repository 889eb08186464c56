// A started library and one persistent region in a scratch directory, for
// the benchmarks of one program; removed with its files at exit.
#pragma once

#include <cstdlib>
#include <string>
#include <unistd.h>

#include "durable/write_path.h"
#include "lumregion.h"
#include "verify/verify.h"

inline constexpr uint32_t kMiB = 1024 * 1024;

struct BenchRegion {
    // A region of 256 MiB with a log buffer for records of `largest_record`.
    BenchRegion(const char *name, uint32_t largest_record) {
        char pattern[] = "/tmp/lumbench-XXXXXX";
        directory = std::string(mkdtemp(pattern)) + "/";
        LumPropMgr *properties;
        LumPropMgrCreate(&properties);
        LumRegionPropMgrInitialise(properties);
        void *base;
        if (LumRegionStartup(properties, "/nonexistent-home") != 0 ||
            LumRegionCreate(name, LUM_REGION_PERSISTENT, 256 * kMiB, 256 * kMiB, largest_record, 0,
                            directory.c_str(), &region, &base) != 0)
            abort();
    }
    ~BenchRegion() {
        LumRegionDrop(region);
        std::string command = "rm -rf " + directory;
        if (system(command.c_str()) != 0)
            perror("rm");
    }
    // Starts the log of the current generation afresh, so that it does not
    // grow through a long run.
    void RewindLog() {
        int log = region->log_fd[region->generation.load() % 2];
        if (ftruncate(log, file_header::kSize) != 0)
            abort();
        lseek(log, file_header::kSize, SEEK_SET);
    }

    std::string directory;
    LumRegion *region = nullptr;
};
