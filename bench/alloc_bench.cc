// Allocation: LumMemAlloc + LumMemLog + LumMemFree in a persistent region,
// log records included, beside glibc malloc + free of the same sizes in the
// same run.
#include <benchmark/benchmark.h>
#include <cstdlib>
#include <string>
#include <unistd.h>

#include "durable.h"
#include "lumregion.h"

namespace {

constexpr uint32_t kMiB = 1024 * 1024;
constexpr int kBatch = 64; // allocations live at once in each iteration

struct Fixture {
    Fixture() {
        char pattern[] = "/tmp/lumbench-alloc-XXXXXX";
        directory = std::string(mkdtemp(pattern)) + "/";
        LumPropMgr *properties;
        LumPropMgrCreate(&properties);
        LumRegionPropMgrInitialise(properties);
        if (LumRegionStartup(properties, "/nonexistent-home") != 0)
            abort();
        void *base;
        if (LumRegionCreate("alloc", LUM_REGION_PERSISTENT, 256 * kMiB, 256 * kMiB, 32 * kMiB, 0,
                            directory.c_str(), &region, &base) != 0 ||
            LumSegmentCreate(region, 4 * kMiB, kMiB, 0, 0, &segment) != 0)
            abort();
    }
    ~Fixture() {
        LumSegmentDrop(segment);
        LumRegionDrop(region);
        std::string command = "rm -rf " + directory;
        if (system(command.c_str()) != 0)
            abort();
    }
    // Keeps the log buffer from filling inside the timed loop.
    void CommitWhenFull(benchmark::State &state) {
        if (region->log_buffer->capacity - region->log_buffer->used > kMiB)
            return;
        state.PauseTiming();
        LumRegionCommit(region);
        int log = region->log_fd[region->generation.load() % 2];
        if (ftruncate(log, 32) != 0)
            abort();
        lseek(log, 32, SEEK_SET);
        state.ResumeTiming();
    }
    std::string directory;
    LumRegion *region = nullptr;
    LumSegment *segment = nullptr;
};

Fixture &Bench() {
    static Fixture fixture;
    return fixture;
}

void BM_LumMemAllocLogFree(benchmark::State &state) {
    Fixture &f = Bench();
    uint32_t size = static_cast<uint32_t>(state.range(0));
    void *pointers[kBatch];
    for (auto _ : state) {
        for (void *&pointer : pointers) {
            if (LumMemAlloc(f.segment, size, &pointer) != 0)
                abort();
            LumMemLog(f.segment, pointer);
        }
        for (void *pointer : pointers)
            LumMemFree(f.segment, pointer);
        f.CommitWhenFull(state);
    }
    state.SetItemsProcessed(state.iterations() * kBatch);
}
BENCHMARK(BM_LumMemAllocLogFree)->RangeMultiplier(4)->Range(16, 1024);

void BM_GlibcMallocFree(benchmark::State &state) {
    size_t size = static_cast<size_t>(state.range(0));
    void *pointers[kBatch];
    for (auto _ : state) {
        for (void *&pointer : pointers) {
            pointer = malloc(size);
            benchmark::DoNotOptimize(pointer);
        }
        for (void *pointer : pointers)
            free(pointer);
    }
    state.SetItemsProcessed(state.iterations() * kBatch);
}
BENCHMARK(BM_GlibcMallocFree)->RangeMultiplier(4)->Range(16, 1024);

} // namespace
