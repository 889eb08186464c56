// The hot paths of durability, each beside the physical work it cannot
// avoid, measured in the same run:
//   LogCpyInt      a logged write of a changing 32-bit value, against a plain
//                  4-byte store plus the 16-byte copy of the record it makes;
//   Commit         a transaction of 10 logged words and its commit, against
//                  one write(2) of the same bytes to a file, and against
//                  storing them into a shared mapping of a file (the floor
//                  of a commit that makes no system call);
//   Checkpoint     a checkpoint of N dirty pages, against one pwrite(2) of
//                  the same N pages and against a pwrite(2) per page, in
//                  bytes per second.
// The ratios between the pairs are what the README reports.
#include <benchmark/benchmark.h>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <sys/mman.h>
#include <unistd.h>

#include "bench_region.h"

namespace {

// The region of these benchmarks, grown to 64 MiB, with a large log buffer
// so that a flush inside the timed writes is rare, and a reference file.
struct Fixture : BenchRegion {
    Fixture() : BenchRegion("bench", 32 * kMiB) {
        if (_LumImageSetSize(region, 64 * kMiB) != 0)
            abort();
        segment = {region, nullptr};
        LumRegionCommit(region);
        reference_fd = open((directory + "reference").c_str(), O_RDWR | O_CREAT | O_TRUNC, 0600);
    }
    ~Fixture() { close(reference_fd); }
    // Starts the log and the reference file afresh.
    void RewindFiles() {
        RewindLog();
        if (ftruncate(reference_fd, 0) != 0)
            abort();
        lseek(reference_fd, 0, SEEK_SET);
    }
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

void BM_StoreSameBytesToSharedMapping(benchmark::State &state) {
    Fixture &f = Bench();
    constexpr size_t kSpan = 64 * kMiB;
    std::string path = f.directory + "mapped";
    int fd = open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0600);
    if (fd < 0 || posix_fallocate(fd, 0, kSpan) != 0)
        abort();
    void *mapped = mmap(nullptr, kSpan, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_POPULATE, fd, 0);
    if (mapped == MAP_FAILED)
        abort();
    auto *file = static_cast<uint8_t *>(mapped);
    uint8_t bytes[kTransactionBytes] = {};
    size_t at = 0;
    for (auto _ : state) {
        memcpy(file + at, bytes, sizeof bytes);
        benchmark::ClobberMemory();
        ++bytes[0];
        at = at + 2 * sizeof bytes <= kSpan ? at + sizeof bytes : 0;
    }
    munmap(mapped, kSpan);
    close(fd);
    unlink(path.c_str());
    state.SetBytesProcessed(state.iterations() * kTransactionBytes);
}
BENCHMARK(BM_StoreSameBytesToSharedMapping);

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

void BM_PwriteSequential(benchmark::State &state) {
    Fixture &f = Bench();
    size_t bytes = static_cast<size_t>(state.range(0)) * region_page_size;
    for (auto _ : state) {
        if (pwrite(f.reference_fd, f.region->base, bytes, 0) != static_cast<ssize_t>(bytes))
            abort();
    }
    state.SetBytesProcessed(state.iterations() * bytes);
}
BENCHMARK(BM_PwriteSequential)->Arg(256)->Arg(4096);

} // namespace

BENCHMARK_MAIN();
