// Recovery, each beside the physical work it cannot avoid, in the same run:
//   OpenFromTab     LumRegionOpen of a region whose 256 MiB image comes from
//                   its .tab file (verification off), against pread(2) of
//                   the same bytes into fresh memory, populated first
//                   (madvise MADV_POPULATE_WRITE) as the open does, or not;
//   ReplayLog       the replay of a 256 MiB log into a fresh image, against
//                   read(2) of the same file in the same blocks: the log a
//                   host writes as it inserts 100-byte items (/0), and logs
//                   of 16-byte (/16) or 100-byte (/100) changes scattered at
//                   random over a 16 MiB image. Beside them, the same read
//                   with each block copied once more: the ceiling of any
//                   replay through a read buffer.
// Both in bytes per second; the files sit in the page cache, as after a
// crash of the process.
#include <benchmark/benchmark.h>
#include <cstring>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>
#include <vector>

#include "bench_region.h"
#include "durable/recovery.h"

namespace {

constexpr uint32_t kImageBytes = 256 * kMiB;
constexpr uint32_t kLogBytes = 256 * kMiB;
constexpr uint32_t kReplayImage = 16 * kMiB;
constexpr uint32_t kHostImage = 512 * kMiB;

// A .tab file of a 256 MiB image, made by closing a region.
struct TabFile {
    TabFile() {
        StartLibraryOnce();
        void *base;
        if (LumRegionCreate("big", LUM_REGION_PERSISTENT, kImageBytes, kImageBytes, 0, 0,
                            directory.c_str(), &big, &base) != 0 ||
            _LumImageSetSize(big, kImageBytes) != 0)
            abort();
        memset(big->base + kMiB, 0x5a, kImageBytes - kMiB);
        if (LumRegionClose(big) != 0)
            abort();
        path = directory + "big.tab";
    }
    ScratchDir scratch;
    std::string directory = scratch.path;
    LumRegion *big = nullptr;
    std::string path;
};

TabFile &Tab() {
    static TabFile tab;
    return tab;
}

// Ends an opened region without a snapshot, keeping its files as they are,
// so that the next open meets the same files.
void Abandon(LumRegion *region) {
    _LumRegistryRemove(region);
    region->sync_failed = 1; // the working files stay
    _LumRegionUnref(region);
}

void BM_OpenFromTab(benchmark::State &state) {
    TabFile &tab = Tab();
    int32_t verify = std::exchange(region_verify_on_recovery, 0);
    for (auto _ : state) {
        LumRegion *region;
        void *base;
        if (LumRegionOpen("big", kImageBytes, kImageBytes, 0, 0, tab.directory.c_str(), &region,
                          &base) != 0)
            abort();
        state.PauseTiming();
        Abandon(region);
        state.ResumeTiming();
    }
    region_verify_on_recovery = verify;
    state.SetBytesProcessed(state.iterations() * uint64_t{kImageBytes});
}
BENCHMARK(BM_OpenFromTab)->Unit(benchmark::kMillisecond);

void BM_PreadIntoFreshMemory(benchmark::State &state) {
    int fd = open(Tab().path.c_str(), O_RDONLY);
    for (auto _ : state) {
        void *memory =
            mmap(nullptr, kImageBytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (memory == MAP_FAILED)
            abort();
        if (state.range(0) != 0)
            madvise(memory, kImageBytes, MADV_POPULATE_WRITE);
        if (pread(fd, memory, kImageBytes, 0) != kImageBytes)
            abort();
        state.PauseTiming();
        munmap(memory, kImageBytes);
        state.ResumeTiming();
    }
    close(fd);
    state.SetBytesProcessed(state.iterations() * uint64_t{kImageBytes});
}
BENCHMARK(BM_PreadIntoFreshMemory)->Arg(1)->Arg(0)->Unit(benchmark::kMillisecond);

// A log of changes of `payload` bytes spread over a 16 MiB image, a commit
// after every hundred, written to `path`.
void WriteScatteredLog(const std::string &path, uint32_t payload) {
    std::vector<uint8_t> log(file_header::kSize, 0);
    memcpy(log.data(), file_header::kMagicText, 4);
    auto append = [&](uint32_t type, uint32_t value, uint32_t length) {
        size_t at = log.size();
        log.resize(at + log_record::Size(type, length), 0x3c);
        log_record::StoreHead(&log[at], type, value, length);
    };
    append(LOG_SIZE, kReplayImage, 0);
    uint32_t record = log_record::Size(LOG_DATA, payload);
    for (uint32_t i = 0; log.size() + 2 * record < kLogBytes; ++i) {
        append(LOG_DATA, (i * 4099u * 16) % (kReplayImage - payload), payload);
        if (i % 100 == 99)
            append(LOG_COMMIT, 0, 0);
    }
    append(LOG_COMMIT, 0, 0);
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    if (write(fd, log.data(), log.size()) != static_cast<ssize_t>(log.size()))
        abort();
    close(fd);
}

// The log a host writes when it inserts items of 100 bytes, 100 to a
// commit, until the log holds 256 MiB: the allocator's records and each
// item logged whole. Left in `directory` + "host_0.log".
void WriteHostLog(const std::string &directory) {
    LumRegion *region;
    void *base;
    LumSegment *segment;
    if (LumRegionCreate("host", LUM_REGION_PERSISTENT, kHostImage, kHostImage, 0, 0,
                        directory.c_str(), &region, &base) != 0 ||
        LumSegmentCreate(region, 4 * kMiB, 4 * kMiB, 0, 0, &segment) != 0)
        abort();
    int log = region->log_fd[0];
    for (uint32_t i = 0; lseek(log, 0, SEEK_END) < kLogBytes; ++i) {
        void *item;
        if (LumMemAlloc(segment, 100, &item) != 0)
            abort();
        memset(item, static_cast<int>(i), 100);
        LumMemLog(segment, item);
        if (i % 100 == 99)
            LumRegionCommit(region);
    }
    LumRegionCommit(region);
    LumSegmentClose(segment);
    _LumRegistryRemove(region); // ends without a snapshot, the log stays
    region->sync_failed = 1;
    _LumRegionUnref(region);
}

// A log to replay, and a handle of `image` bytes to replay it into.
struct ReplayLog {
    ReplayLog(int64_t kind) {
        StartLibraryOnce();
        uint32_t image = kind == 0 ? kHostImage : kReplayImage;
        path = directory + (kind == 0 ? "host_0.log" : "replay.log");
        if (kind == 0)
            WriteHostLog(directory);
        else
            WriteScatteredLog(path, static_cast<uint32_t>(kind));
        fd = open(path.c_str(), O_RDWR);
        bytes = static_cast<uint64_t>(lseek(fd, 0, SEEK_END));
        if (_LumImageCreate("replay", LUM_REGION_PERSISTENT, image, image, 0, 0,
                            directory.c_str(), &target) != 0)
            abort();
        buffer.resize(kLogBlock);
    }
    ~ReplayLog() {
        _LumImageDestroy(target);
        close(fd);
    }
    ScratchDir scratch;
    std::string directory = scratch.path;
    std::string path;
    int fd = -1;
    uint64_t bytes = 0;
    LumRegion *target = nullptr;
    std::vector<uint8_t> buffer;
};

// The fixture of a kind of log: a host's inserts (0), or changes of 16
// bytes (a host's field) or 100 bytes (an item) scattered at random.
ReplayLog &Replay(int64_t kind) {
    static ReplayLog host(0), small(16), items(100);
    return kind == 0 ? host : kind == 16 ? small : items;
}

void BM_ReplayLog(benchmark::State &state) {
    ReplayLog &r = Replay(state.range(0));
    for (auto _ : state) {
        if (_LumLogApply(r.target, r.fd, r.buffer.data(), false, kWholeLog) != 0)
            abort();
    }
    state.SetBytesProcessed(state.iterations() * r.bytes);
}
BENCHMARK(BM_ReplayLog)->Arg(0)->Arg(16)->Arg(100)->Unit(benchmark::kMillisecond);

void BM_ReadLogBlocks(benchmark::State &state) {
    ReplayLog &r = Replay(state.range(0));
    for (auto _ : state) {
        lseek(r.fd, 0, SEEK_SET);
        while (read(r.fd, r.buffer.data(), kLogBlock) == kLogBlock) {
        }
    }
    state.SetBytesProcessed(state.iterations() * r.bytes);
}
BENCHMARK(BM_ReadLogBlocks)->Arg(0)->Arg(16)->Arg(100)->Unit(benchmark::kMillisecond);

// The same read, and each block copied once more, whole and in order, into
// a 16 MiB area: the two copies of every byte that any replay through a read
// buffer makes, with no record decoded. The ceiling of a replay.
void BM_ReadAndCopyLogBlocks(benchmark::State &state) {
    ReplayLog &r = Replay(state.range(0));
    std::vector<uint8_t> area(kReplayImage);
    for (auto _ : state) {
        lseek(r.fd, 0, SEEK_SET);
        size_t at = 0;
        for (ssize_t got; (got = read(r.fd, r.buffer.data(), kLogBlock)) > 0;) {
            at = at + got > area.size() ? 0 : at;
            memcpy(area.data() + at, r.buffer.data(), got);
            at += got;
        }
        benchmark::DoNotOptimize(area.data());
    }
    state.SetBytesProcessed(state.iterations() * r.bytes);
}
BENCHMARK(BM_ReadAndCopyLogBlocks)->Arg(0)->Arg(16)->Arg(100)->Unit(benchmark::kMillisecond);

// The same read, and fresh memory for the image that the replay leaves
// (populated, as the replay does): the work a replay of the host's log
// cannot avoid.
void BM_ReadLogAndPopulateImage(benchmark::State &state) {
    ReplayLog &r = Replay(0);
    uint32_t image = r.target->used.load();
    for (auto _ : state) {
        void *memory =
            mmap(nullptr, image, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (memory == MAP_FAILED || madvise(memory, image, MADV_POPULATE_WRITE) != 0)
            abort();
        lseek(r.fd, 0, SEEK_SET);
        while (read(r.fd, r.buffer.data(), kLogBlock) == kLogBlock) {
        }
        state.PauseTiming();
        munmap(memory, image);
        state.ResumeTiming();
    }
    state.SetBytesProcessed(state.iterations() * r.bytes);
}
BENCHMARK(BM_ReadLogAndPopulateImage)->Unit(benchmark::kMillisecond);

} // namespace
