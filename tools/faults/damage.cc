// The damaged-files mode of lumregion-faults: a small region's five files,
// made once, then for each case copied with one damage (a truncation, or a
// changed byte or word) and opened in a child, or with --in-process in the
// program itself. An open must give an image that verifies, or refuse with
// a result; a crash or a hang is a failure.
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <random>
#include <unistd.h>
#include <vector>

#include "faults.h"
#include "lumregion.h"
#include "workload.h"

namespace faults {
namespace {

constexpr unsigned kAlarmSeconds = 20;
constexpr size_t kWholeBelow = 64 << 10; // smaller files are cut at every length
constexpr size_t kEdge = 4 << 10;        // ... larger ones in their first and last 4 KiB
constexpr uint32_t kCutSamples = 256;    // ... and at this many lengths between

struct File {
    std::string suffix;
    std::vector<uint8_t> bytes;
};

std::vector<uint8_t> ReadAll(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

void WriteAll(const std::string &path, const uint8_t *bytes, size_t length) {
    FILE *out = fopen(path.c_str(), "wb");
    if (out == nullptr || fwrite(bytes, 1, length, out) != length || fclose(out) != 0) {
        fprintf(stderr, "damage: cannot write %s\n", path.c_str());
        exit(2);
    }
}

// Makes the file set with the library, in a child that leaves it open.
bool MakeFileSet(const std::string &directory, std::vector<File> *files) {
    MakeEmptyDirectory(directory);
    Outcome *outcome = SharedOutcome();
    *outcome = Outcome{};
    Ending ending = RunInChild(
        [&] {
            if (!StartLibrary(directory, nullptr, false))
                exit(2);
            RunWorkload(directory, outcome, true);
            _exit(0); // the region stays open: its working files stay
        },
        kAlarmSeconds);
    if (ending != Ending::kClean || !outcome->finished)
        return false;
    for (const char *suffix : {".tab", "_0.chk", "_1.chk", "_0.log", "_1.log"}) {
        files->push_back({suffix, ReadAll(directory + kRegionName + suffix)});
        if (files->back().bytes.empty()) {
            fprintf(stderr, "damage: %s%s is empty\n", kRegionName, suffix);
            return false;
        }
    }
    return true;
}

// A damage: file `file` cut to `length`, or with `width` bytes at `at`
// replaced by `value`.
struct Damage {
    size_t file;
    size_t length;
    size_t at = 0;
    uint32_t width = 0;
    uint32_t value = 0;
};

struct Counts {
    uint64_t cases = 0, opened = 0, refused = 0, crashed = 0, hung = 0, unverified = 0;
};

// Opens the set in this process and closes it. Several times faster than a
// child, which pays for its fork and its leak check; a crash or a hang then
// ends the whole run (the same seed without --in-process counts it).
Ending JudgeHere(const std::string &directory, Outcome *outcome) {
    alarm(kAlarmSeconds);
    if (LumRegion *region = JudgeRegion(directory, 0, -1, outcome))
        LumRegionClose(region);
    alarm(0);
    return Ending::kClean;
}

// Writes the set with `damage` over the five files in `directory` and
// opens it.
void TryDamage(const std::vector<File> &files, const Damage &damage, const std::string &directory,
               bool in_process, Outcome *outcome, Counts *counts) {
    for (size_t i = 0; i < files.size(); ++i) {
        std::vector<uint8_t> bytes = files[i].bytes;
        if (i == damage.file) {
            bytes.resize(damage.length);
            memcpy(bytes.data() + damage.at, &damage.value, damage.width);
        }
        WriteAll(directory + kRegionName + files[i].suffix, bytes.data(), bytes.size());
    }
    *outcome = Outcome{};
    Ending ending = in_process ? JudgeHere(directory, outcome)
                               : RunInChild(
                                     [&] {
                                         if (!StartLibrary(directory, nullptr, false))
                                             exit(2);
                                         JudgeRegion(directory, 0, -1, outcome);
                                         _exit(0);
                                     },
                                     kAlarmSeconds);
    ++counts->cases;
    const char *failure = nullptr;
    if (ending == Ending::kHung)
        ++counts->hung, failure = "hung";
    else if (ending != Ending::kClean)
        ++counts->crashed, failure = "crashed";
    else if (outcome->open_result != 0)
        ++counts->refused;
    else if (outcome->verify_result != 0)
        ++counts->unverified, failure = "opened an image that does not verify";
    else
        ++counts->opened;
    if (failure != nullptr)
        fprintf(stderr, "damage: %s%s cut to %zu, %u bytes at %zu set to %#x: %s\n", kRegionName,
                files[damage.file].suffix.c_str(), damage.length, damage.width, damage.at,
                damage.value, failure);
}

// The lengths each file is cut to: all of them for a small file; for a
// larger one those in its first and last 4 KiB and a seeded sample between.
// With `most` above 0, a seeded sample of at most that many of those.
std::vector<size_t> CutLengths(size_t size, uint64_t most, std::mt19937_64 &random) {
    std::vector<size_t> lengths;
    for (size_t length = 0; length < size; ++length) {
        if (size < kWholeBelow || length < kEdge || length >= size - kEdge)
            lengths.push_back(length);
    }
    if (size >= kWholeBelow) {
        for (uint32_t i = 0; i < kCutSamples; ++i)
            lengths.push_back(kEdge + random() % (size - 2 * kEdge));
    }
    if (most > 0 && lengths.size() > most) {
        std::shuffle(lengths.begin(), lengths.end(), random);
        lengths.resize(most);
    }
    return lengths;
}

// A seeded change of one byte or one word. Half of them fall in the first
// 512 bytes, where the headers are; words take values that limits and
// counts meet often beside random ones.
Damage RandomChange(const std::vector<File> &files, std::mt19937_64 &random) {
    Damage damage{random() % files.size(), 0};
    size_t size = files[damage.file].bytes.size();
    damage.length = size;
    damage.width = size >= 4 && random() % 2 == 0 ? 4 : 1;
    size_t span = size - damage.width + 1;
    damage.at = random() % 2 == 0 ? random() % std::min<size_t>(span, 512) : random() % span;
    uint32_t old = 0;
    memcpy(&old, files[damage.file].bytes.data() + damage.at, damage.width);
    const uint32_t special[] = {
        0,       1,       0xFFFFFFFF,       0x7FFFFFFF,     0x80000000,
        old + 1, old - 1, old ^ 0x80000000, uint32_t(size), uint32_t(size) + 4096};
    if (damage.width == 1)
        damage.value = static_cast<uint8_t>(old ^ (1 + random() % 255));
    else if (random() % 2 == 0)
        damage.value = special[random() % std::size(special)];
    else
        damage.value = old ^ static_cast<uint32_t>(1 + random() % 0xFFFFFFFFu);
    return damage;
}

} // namespace

int RunDamage(const std::string &work, uint64_t cases, uint64_t cuts_per_file, uint64_t seed,
              bool in_process) {
    std::vector<File> files;
    if (!MakeFileSet(work + "set/", &files)) {
        fprintf(stderr, "damage: cannot make the file set\n");
        return 2;
    }
    std::mt19937_64 random(seed);
    Outcome *outcome = SharedOutcome();
    Counts counts;
    std::string directory = work + "case/";
    MakeEmptyDirectory(directory);
    if (in_process && !StartLibrary(directory, nullptr, false)) {
        fprintf(stderr, "damage: the library does not start\n");
        return 2;
    }
    uint64_t cuts = 0;
    for (size_t file = 0; file < files.size(); ++file) {
        for (size_t length : CutLengths(files[file].bytes.size(), cuts_per_file, random)) {
            TryDamage(files, {file, length}, directory, in_process, outcome, &counts);
            ++cuts;
        }
    }
    for (uint64_t i = 0; i < cases; ++i)
        TryDamage(files, RandomChange(files, random), directory, in_process, outcome, &counts);
    printf("damage: %llu cases (%llu cuts, %llu changes), %llu opened, %llu refused, %llu crashed, "
           "%llu hung, %llu unverified\n",
           (unsigned long long)counts.cases, (unsigned long long)cuts, (unsigned long long)cases,
           (unsigned long long)counts.opened, (unsigned long long)counts.refused,
           (unsigned long long)counts.crashed, (unsigned long long)counts.hung,
           (unsigned long long)counts.unverified);
    printf("damage: file set");
    for (const File &file : files)
        printf(" %s%s %zu bytes", kRegionName, file.suffix.c_str(), file.bytes.size());
    printf("\n");
    return counts.crashed + counts.hung + counts.unverified == 0 ? 0 : 1;
}

} // namespace faults
