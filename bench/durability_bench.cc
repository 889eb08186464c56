// The hot paths of durability, each beside the physical work it cannot
// avoid, measured in the same run:
//   LogCpyInt      a logged write of a changing 32-bit value, against a plain
//                  4-byte store plus the 16-byte copy of the record it makes;
//   Commit         a transaction of 10 logged words and its commit, against
//                  one write(2) of the same bytes to a file;
//   Checkpoint     a checkpoint of N dirty pages, against pwrite(2) of the
//                  same N pages, in bytes per second.
// The ratios between the pairs are what the README reports.
#include <benchmark/benchmark.h>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <unistd.h>

#include "durable.h"
#include "lumregion.h"

namespace {

constexpr uint32_t kMiB = 1024 * 1024;

// A started library, a scratch directory and one persistent region for the
// whole run.
struct Fixture {
    Fixture() {
        char pattern[] = "/tmp/lumbench-XXXXXX";
        directory = std::string(mkdtemp(pattern)) + "/";
        LumPropMgr *properties;
        LumPropMgrCreate(&properties);
        LumRegionPropMgrInitialise(properties);
        if (LumRegionStartup(properties, "/nonexistent-home") != 0)
            abort();
        void *base;
        // A large buffer, so that a flush inside the timed writes is rare.
        if (LumRegionCreate("bench", LUM_REGION_PERSISTENT, 256 * kMiB, 256 * kMiB, 32 * kMiB, 0,
                            directory.c_str(), &region, &base) != 0)
            abort();
        if (_LumImageSetSize(region, 64 * kMiB) != 0)
            abort();
        segment = {region, nullptr};
        LumRegionCommit(region);
        reference_fd = open((directory + "reference").c_str(), O_RDWR | O_CREAT | O_TRUNC, 0600);
    }
    ~Fixture() {
        close(reference_fd);
        LumRegionDrop(region);
        std::string command = "rm -rf " + directory;
        if (system(command.c_str()) != 0)
            perror("rm");
    }
    // Starts the current log and the reference file afresh, so that files
    // do not grow through a long run.
    void RewindFiles() {
        int log = region->log_fd[region->generation.load() % 2];
        if (ftruncate(log, file_header::kSize) != 0 || ftruncate(reference_fd, 0) != 0)
            abort();
        lseek(log, file_header::kSize, SEEK_SET);
        lseek(reference_fd, 0, SEEK_SET);
    }

    std::string directory;
    LumRegion *region = nullptr;
    LumSegment segment{};
    int reference_fd = -1;
};

Fixture &Bench() {
    static Fixture fixture;
    return fixture;
}

// Words spread over 64 pages, so the marks touch more than one map word.
uint8_t *Word(uint8_t *base, uint32_t i) {
    return base + kMiB + (i % 16384) * 16;
}

void BM_LogCpyInt(benchmark::State &state) {
    Fixture &f = Bench();
    uint32_t i = 0;
    for (auto _ : state) {
        LumMemLogCpyInt(&f.segment, Word(f.region->base, i), static_cast<int32_t>(i));
        ++i;
        if (f.region->log_buffer->capacity - f.region->log_buffer->used < 64) {
            state.PauseTiming();
            LumRegionCommit(f.region);
            f.RewindFiles();
            state.ResumeTiming();
        }
    }
}
BENCHMARK(BM_LogCpyInt);

void BM_StoreAndRecordCopy(benchmark::State &state) {
    Fixture &f = Bench();
    static uint8_t record_area[1 << 20];
    uint32_t i = 0, at = 0;
    for (auto _ : state) {
        uint8_t *word = Word(f.region->base, i);
        memcpy(word, &i, 4);
        memcpy(record_area + at, word - 12, 16);
        benchmark::DoNotOptimize(record_area + at);
        at = (at + 16) & ((1 << 20) - 16);
        ++i;
    }
}
BENCHMARK(BM_StoreAndRecordCopy);

constexpr int kTransactionWords = 10;
// What the commit of such a transaction writes: the opening LOG_SIZE, ten
// 16-byte LOG_DATA records and the LOG_COMMIT.
constexpr uint32_t kTransactionBytes = 12 + kTransactionWords * 16 + 12;

void BM_Commit10Words(benchmark::State &state) {
    Fixture &f = Bench();
    uint32_t i = 0;
    for (auto _ : state) {
        for (int w = 0; w < kTransactionWords; ++w, ++i)
            LumMemLogCpyInt(&f.segment, Word(f.region->base, i), static_cast<int32_t>(i));
        LumRegionCommit(f.region);
        if (i % (kTransactionWords * 16384) == 0) {
            state.PauseTiming();
            f.RewindFiles();
            state.ResumeTiming();
        }
    }
    state.SetBytesProcessed(state.iterations() * kTransactionBytes);
}
BENCHMARK(BM_Commit10Words);

void BM_WriteSameBytes(benchmark::State &state) {
    Fixture &f = Bench();
    uint8_t bytes[kTransactionBytes] = {};
    uint64_t n = 0;
    for (auto _ : state) {
        if (write(f.reference_fd, bytes, sizeof bytes) != static_cast<ssize_t>(sizeof bytes))
            abort();
        if (++n % 16384 == 0) {
            state.PauseTiming();
            f.RewindFiles();
            state.ResumeTiming();
        }
    }
    state.SetBytesProcessed(state.iterations() * kTransactionBytes);
}
BENCHMARK(BM_WriteSameBytes);

void BM_CheckpointPages(benchmark::State &state) {
    Fixture &f = Bench();
    uint32_t pages = static_cast<uint32_t>(state.range(0));
    if (_LumImageSetSize(f.region, pages * region_page_size) != 0)
        abort();
    for (auto _ : state) {
        state.PauseTiming();
        _LumDirtyMapFill(f.region, 0, 1);
        _LumDirtyMapFill(f.region, 1, 1);
        f.region->checkpoint_state = CHECKPOINT_ACKED;
        state.ResumeTiming();
        LumMutexLock(f.region->mutex);
        if (_LumRegionCheckpoint(f.region) != 0)
            abort();
        LumMutexUnlock(f.region->mutex);
    }
    state.SetBytesProcessed(state.iterations() * uint64_t{pages} * region_page_size);
}
BENCHMARK(BM_CheckpointPages)->Arg(256)->Arg(4096);

void BM_PwritePages(benchmark::State &state) {
    Fixture &f = Bench();
    uint32_t pages = static_cast<uint32_t>(state.range(0));
    for (auto _ : state) {
        for (uint32_t page = 0; page < pages; ++page) {
            off_t offset = static_cast<off_t>(page) * region_page_size;
            if (pwrite(f.reference_fd, f.region->base + offset, region_page_size, offset) !=
                static_cast<ssize_t>(region_page_size))
                abort();
        }
    }
    state.SetBytesProcessed(state.iterations() * uint64_t{pages} * region_page_size);
}
BENCHMARK(BM_PwritePages)->Arg(256)->Arg(4096);

} // namespace

BENCHMARK_MAIN();
