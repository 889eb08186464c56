// The harness that every store's program of the comparison shares: the
// generated data, the workloads, their timing, the self-checks and the
// output. A program supplies one store type and calls RunPeer with it.
//
// The store type S provides:
//   static constexpr const char *kName;
//   S(const std::string &directory, uint32_t capacity);  opens the store in
//       `directory`, creating it when empty, sized for `capacity` items;
//   ~S();                                                closes it cleanly;
//   void Insert(const Key *keys, const Value *values, uint32_t count);
//   const uint8_t *Get(const Key &key);   the value's kValueSize bytes, valid
//       until the next call on the store, or null when the key is absent;
//   void Update(const Key *keys, const Patch *patches, uint32_t count);
//       puts each patch over the first kPatchSize bytes of its item's value;
//   void Erase(const Key *keys, uint32_t count);
//   uint64_t Count();
// Insert, Update and Erase are one transaction each, which has reached the
// operating system (not necessarily the disk) when they return. Any failure
// of the store ends the program through Fail.
//
// Output, one line per figure on stdout: "<store> <workload> <items>
// <value> <unit>", with unit ns/item, ms or B/item.
#pragma once

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <random>
#include <signal.h>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace peers {

constexpr uint32_t kKeySize = 16, kValueSize = 100, kPatchSize = 8;
constexpr uint32_t kPerCommit = 100;      // items per transaction but in insert_1
constexpr uint32_t kSample = 1000;        // items re-read by each verification
constexpr uint64_t kSeed = 20;            // the same data for every store
constexpr uint32_t kLargeItems = 2000000; // the insert workloads with --large
// The cache given to a store that keeps pages or blocks in one of its own,
// so that it holds all the data, as the memory-mapped stores do.
constexpr size_t kCacheBytes = size_t{256} << 20;

struct Key {
    uint8_t bytes[kKeySize];
};
struct Value {
    uint8_t bytes[kValueSize];
};
struct Patch {
    uint8_t bytes[kPatchSize];
};

// The run's directory, removed by the process that made it when it exits,
// also through Fail.
inline std::string run_directory;
inline pid_t run_directory_owner = 0;
inline void RemoveRunDirectory() {
    std::error_code ignored;
    if (getpid() == run_directory_owner)
        std::filesystem::remove_all(run_directory, ignored);
}

[[noreturn]] inline void Fail(const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    fprintf(stderr, "peer benchmark failed: ");
    vfprintf(stderr, format, arguments);
    fprintf(stderr, "\n");
    va_end(arguments);
    exit(1);
}

inline uint64_t SplitMix(uint64_t x) {
    x += 0x9E3779B97F4A7C15ull;
    x = (x ^ (x >> 30)) * 0xBF58476D1CE4E5B9ull;
    x = (x ^ (x >> 27)) * 0x94D049BB133111EBull;
    return x ^ (x >> 31);
}

// The data of one run: random keys and incompressible values, keys that are
// never stored, and the random orders of the workloads, all from kSeed.
struct Dataset {
    Dataset(uint32_t items, uint32_t absent_items) {
        keys.resize(items);
        values.resize(items);
        for (uint32_t i = 0; i < items; ++i) {
            keys[i] = KeyOf(2ull * i);
            for (uint32_t word = 0; word * 8 < kValueSize; ++word) {
                uint64_t bits = SplitMix(kSeed ^ (uint64_t{i} << 8 | word) ^ 0x5A5A0000000000ull);
                memcpy(values[i].bytes + word * 8, &bits, std::min(8u, kValueSize - word * 8));
            }
        }
        for (uint32_t i = 0; i < absent_items; ++i)
            absent.push_back(KeyOf(2ull * i + 1));
    }
    static Key KeyOf(uint64_t n) {
        Key key;
        uint64_t words[2] = {SplitMix(kSeed * 1000003 + n), SplitMix(~n ^ kSeed)};
        memcpy(key.bytes, words, kKeySize);
        return key;
    }
    // The patch an update puts on item i: its first bytes inverted.
    Patch PatchOf(uint32_t i) const {
        Patch patch;
        for (uint32_t b = 0; b < kPatchSize; ++b)
            patch.bytes[b] = static_cast<uint8_t>(~values[i].bytes[b]);
        return patch;
    }
    std::vector<Key> keys, absent;
    std::vector<Value> values;
};

// The indices 0..n-1 in a random order of its own per workload.
inline std::vector<uint32_t> Shuffled(uint32_t n, uint64_t stream) {
    std::vector<uint32_t> order(n);
    for (uint32_t i = 0; i < n; ++i)
        order[i] = i;
    std::mt19937_64 random(kSeed + stream);
    std::shuffle(order.begin(), order.end(), random);
    return order;
}

template <typename T>
std::vector<T> Gathered(const std::vector<T> &from, const std::vector<uint32_t> &order) {
    std::vector<T> out;
    out.reserve(order.size());
    for (uint32_t i : order)
        out.push_back(from[i]);
    return out;
}

inline uint64_t NowNs() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

struct Options {
    uint32_t items = 200000;       // every workload but the large inserts
    uint32_t insert_items = 0;     // the insert workloads: items, or 2,000,000
    std::string base = "/dev/shm"; // where the run's directory is made
};

inline Options ParseOptions(int argc, char **argv) {
    Options options;
    bool large = false;
    for (int i = 1; i < argc; ++i) {
        std::string argument = argv[i];
        if (argument == "--large")
            large = true;
        else if (argument == "--items" && i + 1 < argc)
            options.items = static_cast<uint32_t>(strtoul(argv[++i], nullptr, 10));
        else if (argument == "--dir" && i + 1 < argc)
            options.base = argv[++i];
        else
            Fail("usage: %s [--items N] [--large] [--dir D]", argv[0]);
    }
    if (options.items < kPerCommit || options.items % kPerCommit != 0)
        Fail("--items must be a positive multiple of %u", kPerCommit);
    options.insert_items = large ? std::max(options.items, kLargeItems) : options.items;
    return options;
}

// A fresh directory for the run under `base`, removed with what it holds
// when the run ends; each workload's store gets a fresh directory in it.
inline void MakeRunDirectory(const std::string &base, const char *store) {
    std::string pattern = base + "/lumpeers-" + store + "-XXXXXX";
    if (mkdtemp(pattern.data()) == nullptr)
        Fail("cannot make a directory under %s: %s", base.c_str(), strerror(errno));
    run_directory = pattern;
    run_directory_owner = getpid();
    atexit(RemoveRunDirectory);
}
inline std::string FreshDirectory(const char *workload) {
    std::string directory = run_directory + "/" + workload;
    std::filesystem::remove_all(directory);
    std::filesystem::create_directory(directory);
    return directory;
}

// Bytes allocated to all files under `directory`, as the file system counts
// them (holes excluded).
inline uint64_t BytesOnDisk(const std::string &directory) {
    uint64_t bytes = 0;
    for (const auto &entry : std::filesystem::recursive_directory_iterator(directory)) {
        struct stat status;
        if (entry.is_regular_file() && stat(entry.path().c_str(), &status) == 0)
            bytes += static_cast<uint64_t>(status.st_blocks) * 512;
    }
    return bytes;
}

template <typename S> class Runner {
  public:
    Runner(const Options &options)
        : options_(options), data_(std::max(options.items, options.insert_items), options.items) {}

    // A child inserts the items, 100 per commit, and kills itself with
    // SIGKILL after the last commit; the open that follows is timed up to
    // its first answer. Then the same after a clean close.
    void Recovery() {
        std::string directory = FreshDirectory("recovery");
        uint32_t items = options_.items;
        fflush(stdout);
        pid_t child = fork();
        if (child < 0)
            Fail("fork: %s", strerror(errno));
        if (child == 0) {
            S *store = new S(directory, items); // never closed
            InsertBatches(*store, items, kPerCommit);
            kill(getpid(), SIGKILL);
        }
        int status = 0;
        if (waitpid(child, &status, 0) != child || !WIFSIGNALED(status) ||
            WTERMSIG(status) != SIGKILL)
            Fail("%s: the writer did not die by SIGKILL (status %d)", S::kName, status);
        TimedOpen("recover_kill", directory, "the kill");
        TimedOpen("recover_close", directory, "a clean close");
        std::filesystem::remove_all(directory);
    }

    // The other workloads, each on a store of its own.
    void Work() {
        InsertOnePerCommit();
        std::string directory = InsertManyPerCommit();
        if (options_.insert_items != options_.items) {
            directory = FreshDirectory("main");
            S store(directory, options_.items);
            InsertBatches(store, options_.items, kPerCommit);
        }
        Lookups(directory);
        Updates(directory);
        Deletes(directory);
    }

  private:
    void Report(const char *workload, uint32_t items, double value, const char *unit) {
        printf("%s %s %u %.1f %s\n", S::kName, workload, items, value, unit);
        fflush(stdout);
    }
    void ReportPerItem(const char *workload, uint32_t items, uint64_t start) {
        Report(workload, items, double(NowNs() - start) / items, "ns/item");
    }

    void InsertBatches(S &store, uint32_t items, uint32_t per_commit) {
        for (uint32_t i = 0; i < items; i += per_commit)
            store.Insert(&data_.keys[i], &data_.values[i], std::min(per_commit, items - i));
    }

    // Checks that the store holds `items` items, and re-reads a sample of
    // them with their values as inserted, or patched when `patched`.
    void Verify(S &store, const char *after, uint32_t items, bool patched) {
        if (store.Count() != items)
            Fail("%s after %s: %llu items, not %u", S::kName, after,
                 static_cast<unsigned long long>(store.Count()), items);
        uint32_t range = items != 0 ? items : options_.items; // what was there
        for (uint32_t s = 0; s < kSample; ++s) {
            uint32_t i = static_cast<uint32_t>(SplitMix(s) % range);
            const uint8_t *value = store.Get(data_.keys[i]);
            if (items == 0) {
                if (value != nullptr)
                    Fail("%s after %s: a deleted key is still found", S::kName, after);
                continue;
            }
            Value expected = data_.values[i];
            if (patched)
                memcpy(expected.bytes, data_.PatchOf(i).bytes, kPatchSize);
            if (value == nullptr || memcmp(value, expected.bytes, kValueSize) != 0)
                Fail("%s after %s: item %u %s", S::kName, after, i,
                     value == nullptr ? "is missing" : "has the wrong value");
        }
    }
    // Opens the closed store in `directory` anew and verifies it.
    void Reverify(const std::string &directory, const char *after, uint32_t items, bool patched) {
        S store(directory, std::max(items, options_.items));
        Verify(store, after, items, patched);
    }

    void TimedOpen(const char *workload, const std::string &directory, const char *after) {
        uint64_t start = NowNs();
        S store(directory, options_.items);
        if (store.Get(data_.keys[0]) == nullptr)
            Fail("%s after %s: the first item is missing", S::kName, after);
        double elapsed_ms = double(NowNs() - start) / 1e6;
        Verify(store, after, options_.items, false);
        Report(workload, options_.items, elapsed_ms, "ms");
    }

    void InsertOnePerCommit() {
        std::string directory = FreshDirectory("insert_1");
        uint32_t items = options_.insert_items;
        {
            S store(directory, items);
            uint64_t start = NowNs();
            InsertBatches(store, items, 1);
            ReportPerItem("insert_1", items, start);
        }
        Reverify(directory, "insert_1", items, false);
        std::filesystem::remove_all(directory);
    }

    // Returns the directory of the filled store.
    std::string InsertManyPerCommit() {
        std::string directory = FreshDirectory("insert_100");
        uint32_t items = options_.insert_items;
        {
            S store(directory, items);
            uint64_t start = NowNs();
            InsertBatches(store, items, kPerCommit);
            ReportPerItem("insert_100", items, start);
            Report("bytes_open", items, double(BytesOnDisk(directory)) / items, "B/item");
        }
        Report("bytes_closed", items, double(BytesOnDisk(directory)) / items, "B/item");
        Reverify(directory, "insert_100", items, false);
        return directory;
    }

    // Present keys in a random order, then absent ones; each value's first
    // bytes are read, as a host reads what it looked up.
    void Lookups(const std::string &directory) {
        uint32_t items = options_.items;
        std::vector<Key> present = Gathered(data_.keys, Shuffled(items, 1));
        S store(directory, items);
        uint64_t sum = 0, start = NowNs();
        for (const Key &key : present) {
            const uint8_t *value = store.Get(key);
            if (value == nullptr)
                Fail("%s get_hit: a present key is missing", S::kName);
            sum += value[0] + value[kValueSize - 1];
        }
        ReportPerItem("get_hit", items, start);
        start = NowNs();
        for (const Key &key : data_.absent)
            if (store.Get(key) != nullptr)
                Fail("%s get_miss: an absent key is found", S::kName);
        ReportPerItem("get_miss", items, start);
        if (sum == 0)
            Fail("%s get_hit: every value read as zeros", S::kName);
    }

    void Updates(const std::string &directory) {
        uint32_t items = options_.items;
        std::vector<uint32_t> order = Shuffled(items, 2);
        std::vector<Key> keys = Gathered(data_.keys, order);
        std::vector<Patch> patches;
        for (uint32_t i : order)
            patches.push_back(data_.PatchOf(i));
        {
            S store(directory, items);
            uint64_t start = NowNs();
            for (uint32_t i = 0; i < items; i += kPerCommit)
                store.Update(&keys[i], &patches[i], kPerCommit);
            ReportPerItem("update_100", items, start);
        }
        Reverify(directory, "update_100", items, true);
    }

    void Deletes(const std::string &directory) {
        uint32_t items = options_.items;
        std::vector<Key> keys = Gathered(data_.keys, Shuffled(items, 3));
        {
            S store(directory, items);
            uint64_t start = NowNs();
            for (uint32_t i = 0; i < items; i += kPerCommit)
                store.Erase(&keys[i], kPerCommit);
            ReportPerItem("delete_100", items, start);
        }
        Reverify(directory, "delete_100", 0, false);
    }

    Options options_;
    Dataset data_;
};

// The whole run of store S; returns the program's exit code. Recovery runs
// in a child of its own, before this process has started any store's
// threads (its writer is forked in turn); when it fails, the other
// workloads still run and the program fails at the end.
template <typename S> int RunPeer(int argc, char **argv) {
    Options options = ParseOptions(argc, argv);
    Runner<S> runner(options);
    MakeRunDirectory(options.base, S::kName);
    fflush(stdout);
    pid_t child = fork();
    if (child < 0)
        Fail("fork: %s", strerror(errno));
    if (child == 0) {
        runner.Recovery();
        fflush(stdout);
        _exit(0);
    }
    int status = 0;
    bool recovered =
        waitpid(child, &status, 0) == child && WIFEXITED(status) && WEXITSTATUS(status) == 0;
    runner.Work();
    if (!recovered)
        Fail("%s: the recovery workloads failed (above)", S::kName);
    return 0;
}

} // namespace peers
