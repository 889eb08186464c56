// The mutation check on the write path: a logged 4-byte write into the
// first and into the 1000th chunk of a segment, with Region.MutationCheck
// on, beside the same write with it off in the same run. The check walks
// the chunks before its target, so its cost grows with the target's place.
#include <benchmark/benchmark.h>
#include <cstdlib>

#include "bench_region.h"

namespace {

constexpr uint32_t kChunks = 1000;

struct Fixture : BenchRegion {
    Fixture() : BenchRegion("mutation", 32 * kMiB) {
        if (LumSegmentCreate(region, 64 * 1024, 0, 0, 0, &segment) != 0)
            abort();
        for (void *&chunk : chunks)
            if (LumMemAlloc(segment, 40, &chunk) != 0)
                abort();
        LumRegionCommit(region);
    }
    ~Fixture() { LumSegmentDrop(segment); }
    LumSegment *segment = nullptr;
    void *chunks[kChunks];
};

Fixture &Bench() {
    static Fixture fixture;
    return fixture;
}

// Arguments: the chunk's place (1 or 1000) and the property (0 or 1).
void BM_LoggedWriteChecked(benchmark::State &state) {
    Fixture &f = Bench();
    auto *target = static_cast<uint8_t *>(f.chunks[state.range(0) - 1]) + 16;
    region_mutation_check = static_cast<int32_t>(state.range(1));
    int32_t value = 0;
    for (auto _ : state) {
        LumMemLogCpyInt(f.segment, target, ++value);
        if (f.region->log_buffer->capacity - f.region->log_buffer->used < 64) {
            state.PauseTiming();
            LumRegionCommit(f.region);
            f.RewindLog();
            state.ResumeTiming();
        }
    }
    region_mutation_check = 0;
}
BENCHMARK(BM_LoggedWriteChecked)->ArgsProduct({{1, kChunks}, {0, 1}});

} // namespace
