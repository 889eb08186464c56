// Allocation: LumMemAlloc + LumMemLog + LumMemFree in a persistent region,
// log records included, beside glibc malloc + free of the same sizes in the
// same run.
#include <benchmark/benchmark.h>
#include <chrono>
#include <cstdlib>

#include "bench_region.h"

namespace {

constexpr int kBatch = 64; // allocations live at once in each iteration

// Both sides are timed by hand around the allocations and frees alone. The
// library's commit between iterations stays outside without PauseTiming,
// whose process CPU clock is a system call of about 0.6 us here: as much
// as ten pairs.
template <typename Work> void TimeIteration(benchmark::State &state, Work work) {
    auto start = std::chrono::steady_clock::now();
    work();
    std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start;
    state.SetIterationTime(elapsed.count());
}

struct Fixture : BenchRegion {
    Fixture() : BenchRegion("alloc", 32 * kMiB) {
        if (LumSegmentCreate(region, 4 * kMiB, kMiB, 0, 0, &segment) != 0)
            abort();
    }
    ~Fixture() { LumSegmentDrop(segment); }
    // Ends the transaction of one iteration, outside the timed part: the
    // log buffer is reused from its start, as a host that commits its
    // transactions sees it, and the log file does not grow through a run.
    void Commit() {
        LumRegionCommit(region);
        RewindLog();
    }
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
        TimeIteration(state, [&] {
            for (void *&pointer : pointers) {
                if (LumMemAlloc(f.segment, size, &pointer) != 0)
                    abort();
                LumMemLog(f.segment, pointer);
            }
            for (void *pointer : pointers)
                LumMemFree(f.segment, pointer);
        });
        f.Commit();
    }
    state.SetItemsProcessed(state.iterations() * kBatch);
}
BENCHMARK(BM_LumMemAllocLogFree)->RangeMultiplier(4)->Range(16, 1024)->UseManualTime();

void BM_GlibcMallocFree(benchmark::State &state) {
    size_t size = static_cast<size_t>(state.range(0));
    void *pointers[kBatch];
    for (auto _ : state) {
        TimeIteration(state, [&] {
            for (void *&pointer : pointers) {
                pointer = malloc(size);
                benchmark::DoNotOptimize(pointer);
            }
            for (void *pointer : pointers)
                free(pointer);
        });
    }
    state.SetItemsProcessed(state.iterations() * kBatch);
}
BENCHMARK(BM_GlibcMallocFree)->RangeMultiplier(4)->Range(16, 1024)->UseManualTime();

} // namespace
