// lumregion-torture: kills a writing process at random moments, recovers
// its region, and checks that the region holds exactly the last commit the
// writer was told had returned (or the one after it, whose write may have
// landed just before the kill).
//
//   lumregion-torture [--kills N] [--seed S] [--dir D] [--faults]
//
// Each kill runs a child (this program, "child" mode) on a fresh directory.
// The child applies seeded random transactions to a region (allocations of
// items, changes inside them, frees, one commit each), checkpoints from a
// second thread, now and then closes and reopens the region, and reports
// each commit through a pipe once LumRegionCommit has returned. It dies by
// SIGKILL from the parent after a random time, or by its own hand at a
// random file operation (before it, or after writing half of its bytes).
// With --faults, a quarter of the children also fail one file write with
// EIO and go on; their regions must come back consistent (equal to some
// committed state), though commits after the failure need not survive.
//
// The parent computes the same transactions on a model and compares the
// recovered items, found through a root table of item offsets, with the
// model after each commit. Exit status 0 when no commit was lost and every
// region came back consistent.
#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <mutex>
#include <optional>
#include <poll.h>
#include <random>
#include <string>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "alloc/layout.h"
#include "common/seeded_items.h"
#include "lumregion.h"
#include "platform/platform.h"

namespace {

constexpr uint32_t kSlots = 64;
constexpr uint32_t kLimit = 64u << 20;
constexpr char kName[] = "t";

using namespace seeded;
constexpr Shape kShape{8, 16, 20000, 500, 64};

// ---------------------------------------------------------------------------
// The child: the writer that dies.

std::atomic<int64_t> file_operations{0};
int64_t die_at = -1, fail_at = -1;

// Counts the file operations that change files; dies at die_at (half of a
// write first when the count is odd), fails fail_at with EIO.
template <typename Call> auto Operation(size_t *count, Call call) -> decltype(call()) {
    int64_t number = ++file_operations;
    if (number == die_at) {
        if (count != nullptr && number % 2 == 1) {
            *count /= 2;
            call();
        }
        raise(SIGKILL);
    }
    if (number == fail_at) {
        errno = EIO;
        return -1;
    }
    return call();
}

void InstallOperationHooks() {
    lum_platform.write = [](int fd, const void *bytes, size_t count) {
        return Operation(&count, [&] { return lum_platform_system.write(fd, bytes, count); });
    };
    lum_platform.pwrite = [](int fd, const void *bytes, size_t count, off_t at) {
        return Operation(&count, [&] { return lum_platform_system.pwrite(fd, bytes, count, at); });
    };
    lum_platform.ftruncate = [](int fd, off_t length) {
        return Operation(nullptr, [&] { return lum_platform_system.ftruncate(fd, length); });
    };
    lum_platform.rename = [](const char *from, const char *to) {
        return Operation(nullptr, [&] { return lum_platform_system.rename(from, to); });
    };
    lum_platform.unlink = [](const char *path) {
        return Operation(nullptr, [&] { return lum_platform_system.unlink(path); });
    };
}

struct Writer {
    LumRegion *region = nullptr;
    LumSegment *segment = nullptr;
    uint8_t *base = nullptr;
    uint32_t root = 0; // image offset of the table of item offsets

    uint32_t *Slot(uint32_t slot) { return reinterpret_cast<uint32_t *>(base + root) + slot; }

    void Apply(const Op &op) {
        uint32_t *slot = Slot(op.slot);
        if (op.kind == kAllocate) {
            void *item;
            if (LumMemAlloc(segment, op.bytes.size(), &item) != 0)
                _exit(3);
            memcpy(item, op.bytes.data(), op.bytes.size());
            LumMemLog(segment, item);
            LumMemLogCpyInt(segment, slot,
                            static_cast<int32_t>(static_cast<uint8_t *>(item) - base));
        } else if (op.kind == kChange) {
            LumMemLogCpy(segment, base + *slot + op.at, op.bytes.data(), op.bytes.size());
        } else {
            LumMemFree(segment, base + *slot);
            LumMemLogCpyInt(segment, slot, 0);
        }
    }
};

void Reopen(Writer *writer, const char *directory) {
    LumSegmentClose(writer->segment);
    LumRegionClose(writer->region);
    void *base;
    if (LumRegionOpen(kName, kLimit, kLimit, 0, 0, directory, &writer->region, &base) != 0 ||
        LumSegmentOpen(writer->region, 0, &writer->segment) != 0)
        _exit(4);
    writer->base = static_cast<uint8_t *>(base);
}

// A commit report carries this bit once the injected write failure has
// happened: such a commit may be lost.
constexpr uint32_t kAfterFault = 0x80000000;

void Report(int fd, uint32_t value) {
    if (write(fd, &value, 4) != 4)
        _exit(5);
}

void ReportCommit(int fd, uint32_t number) {
    bool faulted = fail_at > 0 && file_operations.load() >= fail_at;
    Report(fd, number | (faulted ? kAfterFault : 0));
}

int RunChild(const char *directory, uint64_t seed, int report_fd) {
    if (LumRegionStartup(nullptr, directory) != 0)
        return 2;
    InstallOperationHooks();
    Writer writer;
    void *base, *root;
    if (LumRegionCreate(kName, LUM_REGION_PERSISTENT, kLimit, kLimit, 0, 0, directory,
                        &writer.region, &base) != 0 ||
        LumSegmentCreate(writer.region, 65536, 65536, 50, 0, &writer.segment) != 0 ||
        LumMemAlloc(writer.segment, kSlots * 4, &root) != 0)
        return 2;
    writer.base = static_cast<uint8_t *>(base);
    memset(root, 0, kSlots * 4);
    LumMemLog(writer.segment, root);
    writer.root = static_cast<uint32_t>(static_cast<uint8_t *>(root) - writer.base);
    LumRegionCommit(writer.region);
    Report(report_fd, writer.root); // the first report: where the table is
    ReportCommit(report_fd, 0);     // commit 0: the empty table

    // Checkpoints beside the writer at random moments; a reopen holds the
    // lock, so that no checkpoint meets a region in transit.
    std::mutex in_transit;
    std::thread checkpointer([&] {
        std::mt19937 pause(static_cast<uint32_t>(seed));
        for (;;) {
            std::this_thread::sleep_for(std::chrono::microseconds(pause() % 3000));
            std::lock_guard<std::mutex> hold(in_transit);
            LumRegionCheckpoint(writer.region);
        }
    });
    checkpointer.detach(); // dies with the process

    std::mt19937_64 random(seed), actions(seed ^ 0x9e3779b97f4a7c15ull);
    Items items(kSlots);
    for (uint32_t number = 1;; ++number) {
        for (const Op &op : NextTransaction(random, kShape, items))
            writer.Apply(op);
        LumRegionCommit(writer.region);
        ReportCommit(report_fd, number);
        if (actions() % 200 == 0) {
            std::lock_guard<std::mutex> hold(in_transit);
            Reopen(&writer, directory);
        }
    }
}

// ---------------------------------------------------------------------------
// The parent.

struct Options {
    uint32_t kills = 200;
    uint64_t seed = 1;
    std::string directory = "/tmp";
    bool faults = false;
};

struct Tally {
    uint32_t runs = 0, lost_commits = 0, runs_with_loss = 0, inconsistent = 0;
    uint32_t faulted = 0, faulted_lost = 0, faulted_refused = 0, open_failures = 0;
};

// Runs one child to its death and returns the commit numbers it reported.
std::vector<uint32_t> RunToDeath(const std::string &self, const std::string &directory,
                                 uint64_t seed, std::mt19937_64 &random, bool fault) {
    int pipe_fds[2];
    if (pipe(pipe_fds) != 0)
        exit(2);
    bool self_kill = random() % 2 == 0;
    std::string die = self_kill ? std::to_string(1 + random() % 400) : "-1";
    std::string fail = fault ? std::to_string(1 + random() % 300) : "-1";
    pid_t child = fork();
    if (child == 0) {
        close(pipe_fds[0]);
        std::string fd = std::to_string(pipe_fds[1]);
        execl(self.c_str(), self.c_str(), "child", directory.c_str(), std::to_string(seed).c_str(),
              fd.c_str(), die.c_str(), fail.c_str(), nullptr);
        _exit(2);
    }
    close(pipe_fds[1]);
    // A child that has not killed itself by its deadline is killed.
    auto deadline = std::chrono::steady_clock::now() +
                    std::chrono::milliseconds(self_kill ? 20000 : 1 + random() % 60);
    std::vector<uint32_t> reports;
    bool killed = false;
    for (;;) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        pollfd readable{pipe_fds[0], POLLIN, 0};
        if (!killed && (left.count() <= 0 || poll(&readable, 1, left.count()) == 0)) {
            kill(child, SIGKILL);
            killed = true;
        }
        uint32_t value;
        if (read(pipe_fds[0], &value, 4) != 4)
            break;
        reports.push_back(value);
    }
    close(pipe_fds[0]);
    int status;
    waitpid(child, &status, 0);
    // A child whose failed write stopped its create or reopen ends by itself.
    if (!WIFSIGNALED(status) && !fault) {
        fprintf(stderr, "child of seed %llu ended with status %d\n",
                static_cast<unsigned long long>(seed), status);
        exit(2);
    }
    return reports;
}

// Recovers the region of one killed child and counts what was lost. The
// promise: the last commit reported, or with a failed write the last one
// reported before it, survives, and the region equals a committed state.
void Judge(const std::string &directory, uint64_t seed, const std::vector<uint32_t> &reports,
           bool fault, Tally *tally) {
    ++tally->runs;
    if (reports.size() < 2)
        return; // died before its first commit: nothing was promised
    uint32_t last = reports.back() & ~kAfterFault;
    int64_t promised = -1;
    for (size_t i = 1; i < reports.size(); ++i)
        if ((reports[i] & kAfterFault) == 0)
            promised = reports[i];
    auto say = [seed](const char *what, int64_t value) {
        fprintf(stderr, "seed %llu: %s %lld\n", static_cast<unsigned long long>(seed), what,
                static_cast<long long>(value));
    };
    LumRegion *region;
    void *base;
    int32_t rc = LumRegionOpen(kName, kLimit, kLimit, 0, 0, directory.c_str(), &region, &base);
    if (rc != 0) {
        if (region)
            LumRegionClose(region);
        if (promised < 0) {
            ++tally->faulted_refused; // the write failed before anything was durable
            return;
        }
        ++tally->open_failures;
        say("open failed:", rc);
        return;
    }
    LumRegionInfo info;
    LumRegionGetInfo(region, &info);
    int64_t recovered = MatchingCommit(
        seed, kShape, kSlots, int64_t{last} + 1,
        ImageItems(static_cast<uint8_t *>(base), info.used, reports.front(), kSlots));
    uint32_t lost = recovered < promised ? static_cast<uint32_t>(promised - recovered) : 0;
    tally->faulted += fault;
    if (recovered < 0) {
        ++tally->inconsistent;
        say("the recovered items equal no committed state; last commit", last);
    } else if (lost > 0 && fault) {
        ++tally->faulted_lost;
        say("commits lost beside a failed write:", lost);
    } else if (lost > 0) {
        tally->lost_commits += lost;
        ++tally->runs_with_loss;
        say("commits lost:", lost);
    }
    LumRegionClose(region);
}

// The parent's own log: failures only, not the progress of each recovery.
void LogFailures(void *, int32_t severity, uint32_t, uint32_t, const char *text) {
    if (severity >= LUM_LOG_FAILURE)
        fprintf(stderr, "%s\n", text);
}

int RunParent(const Options &options, const std::string &self) {
    LumLogSetSink(LogFailures, nullptr);
    if (LumRegionStartup(nullptr, options.directory.c_str()) != 0)
        return 2;
    std::mt19937_64 random(options.seed);
    Tally tally;
    for (uint32_t kill = 0; kill < options.kills; ++kill) {
        uint64_t seed = random();
        std::string directory = options.directory + "/lumtorture-XXXXXX";
        if (mkdtemp(directory.data()) == nullptr)
            return 2;
        directory += "/";
        bool fault = options.faults && random() % 4 == 0;
        std::vector<uint32_t> reports = RunToDeath(self, directory, seed, random, fault);
        uint32_t troubles = tally.open_failures + tally.inconsistent + tally.runs_with_loss;
        Judge(directory, seed, reports, fault, &tally);
        if (troubles == tally.open_failures + tally.inconsistent + tally.runs_with_loss)
            std::filesystem::remove_all(directory);
        else
            fprintf(stderr, "  its files stay in %s\n", directory.c_str());
    }
    LumRegionShutdown();
    printf("kills %u, lost commits %u (in %u kills), inconsistent %u, failed opens %u", tally.runs,
           tally.lost_commits, tally.runs_with_loss, tally.inconsistent, tally.open_failures);
    if (options.faults)
        printf("; with a failed write: %u recovered (%u lost a commit made before the failure),"
               " %u refused with nothing durable",
               tally.faulted, tally.faulted_lost, tally.faulted_refused);
    printf("\n");
    return tally.lost_commits == 0 && tally.inconsistent == 0 && tally.open_failures == 0 ? 0 : 1;
}

} // namespace

int main(int argc, char **argv) {
    if (argc == 7 && strcmp(argv[1], "child") == 0) {
        die_at = atoll(argv[5]);
        fail_at = atoll(argv[6]);
        return RunChild(argv[2], strtoull(argv[3], nullptr, 10), atoi(argv[4]));
    }
    Options options;
    for (int i = 1; i < argc; ++i) {
        std::string flag = argv[i];
        if (flag == "--faults") {
            options.faults = true;
        } else if (i + 1 < argc && flag == "--kills") {
            options.kills = static_cast<uint32_t>(atoi(argv[++i]));
        } else if (i + 1 < argc && flag == "--seed") {
            options.seed = strtoull(argv[++i], nullptr, 10);
        } else if (i + 1 < argc && flag == "--dir") {
            options.directory = argv[++i];
        } else {
            fprintf(stderr, "usage: %s [--kills N] [--seed S] [--dir D] [--faults]\n", argv[0]);
            return 2;
        }
    }
    return RunParent(options, "/proc/self/exe");
}
