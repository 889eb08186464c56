// The scripted workload of lumregion-faults and the judge of a region after
// it (see workload.h).
#include "workload.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <optional>
#include <random>
#include <sys/mman.h>
#include <utility>

#include "alloc/layout.h"
#include "common/seeded_items.h"
#include "lumregion.h"

namespace faults {
namespace {

constexpr uint32_t kSlots = 16;
constexpr uint64_t kSeed = 16;

using namespace seeded;
constexpr Shape kShape{6, 8, 6000, 300, 48};

uint32_t HashWord(LumRegHash *, const void *item, void *) {
    return ImageLoad32(static_cast<const uint8_t *>(item));
}
int32_t CompareWord(LumRegHash *, const void *key, const void *item, void *) {
    return memcmp(key, item, 4) != 0;
}
const LumRegHashKey kKeys[] = {{HashWord, nullptr, CompareWord, nullptr}};
const LumRegHashConfig kHashSegment = {16384, 16384, 0, 0};
int32_t CountItem(void *, void *count) {
    ++*static_cast<uint32_t *>(count);
    return 0;
}

Outcome *reported_to = nullptr;
bool show_reports = false;

void CountFailureReports(void *, int32_t severity, uint32_t, uint32_t, const char *text) {
    if (severity >= LUM_LOG_FAILURE && reported_to != nullptr)
        ++reported_to->failures_shown;
    if (show_reports)
        fprintf(stderr, "  report: %s\n", text);
}

// The workload's state: its handles and its place in the script.
struct Host {
    std::string directory;
    Outcome *outcome;
    LumRegion *region = nullptr;
    LumSegment *segment = nullptr;
    LumRegHash *hash = nullptr;
    uint8_t *base = nullptr;
    uint32_t hash_segment = 0;
    std::mt19937_64 random{kSeed};
    Items model = Items(kSlots);

    // True when `result` is a failure, which it counts as shown.
    bool Failed(int32_t result) {
        outcome->failures_shown += result != 0;
        return result != 0;
    }

    uint32_t *Slot(uint32_t slot) {
        return reinterpret_cast<uint32_t *>(base + outcome->root) + slot;
    }

    // Applies the next transaction; false when an allocation fails.
    bool Transaction() {
        for (const Op &op : NextTransaction(random, kShape, model)) {
            uint32_t *slot = Slot(op.slot);
            if (op.kind == kAllocate) {
                void *item;
                if (Failed(LumMemAlloc(segment, op.bytes.size(), &item)))
                    return false;
                memcpy(item, op.bytes.data(), op.bytes.size());
                LumMemLog(segment, item);
                LumMemLogCpyInt(segment, slot,
                                static_cast<int32_t>(static_cast<uint8_t *>(item) - base));
            } else if (op.kind == kChange) {
                LumMemLogCpy(segment, base + *slot + op.at, op.bytes.data(), op.bytes.size());
            } else {
                Failed(LumMemFree(segment, base + *slot));
                LumMemLogCpyInt(segment, slot, 0);
            }
        }
        return true;
    }

    // Commits, and counts the commit acknowledged when its log holds it.
    void Commit() {
        int64_t number = ++outcome->attempted;
        LumRegionCommit(region);
        LumLogState state;
        if (LumRegionGetLogState(region, &state) == 0 && state.failed == 0)
            outcome->acknowledged = number;
        else
            ++outcome->failures_shown;
    }

    bool TransactionAndCommit() {
        if (!Transaction())
            return false;
        Commit();
        return true;
    }

    // Closes the handles the host holds, the region last.
    void CloseAll() {
        if (hash != nullptr)
            LumRegHashClose(std::exchange(hash, nullptr));
        if (segment != nullptr)
            LumSegmentClose(std::exchange(segment, nullptr));
        if (region != nullptr)
            Failed(LumRegionClose(std::exchange(region, nullptr)));
    }

    bool Create() {
        void *image, *root;
        if (Failed(LumRegionCreate(kRegionName, LUM_REGION_PERSISTENT, kHardLimit, kHardLimit, 0, 0,
                                   directory.c_str(), &region, &image)))
            return false;
        base = static_cast<uint8_t *>(image);
        if (Failed(LumSegmentCreate(region, 65536, 65536, 50, 0, &segment)) ||
            Failed(LumMemAlloc(segment, kSlots * 4, &root)))
            return false;
        memset(root, 0, kSlots * 4);
        LumMemLog(segment, root);
        outcome->root = static_cast<uint32_t>(static_cast<uint8_t *>(root) - base);
        Commit();
        return true;
    }

    // A hash table with one item and a list with one node.
    bool Containers() {
        hash = LumRegHashCreate(region, &kHashSegment, 7, kKeys, 1);
        LumRegList *list = LumRegListCreate(segment, base);
        if (Failed(hash == nullptr || list == nullptr ? LUM_RC_FAILURE : 0))
            return false;
        LumSegmentInfo info;
        LumSegmentGetInfo(LumRegHashSegment(hash), &info);
        hash_segment = info.segment_id;
        void *item = LumRegHashAlloc(hash, 8);
        void *node = LumRegListAlloc(segment, base, 8);
        if (Failed(item == nullptr || node == nullptr ? LUM_RC_FAILURE : 0))
            return false;
        LumMemLogCpyUnsigned(segment, item, 0x600d);
        LumRegHashInsert(hash, item);
        LumRegListInsertAfter(segment, base, list, node, LumRegListHead(base, list));
        return true;
    }

    bool Reopen() {
        CloseAll();
        void *image;
        int32_t result = LumRegionOpen(kRegionName, kHardLimit, kHardLimit, 0, 0, directory.c_str(),
                                       &region, &image);
        if (Failed(result))
            return false;
        base = static_cast<uint8_t *>(image);
        if (Failed(LumSegmentOpen(region, 0, &segment)))
            return false;
        hash = LumRegHashOpen(region, hash_segment, kKeys, 1);
        uint32_t items = 0;
        if (Failed(hash == nullptr ? LUM_RC_FAILURE
                                   : LumRegHashWalk(hash, CountItem, &items, 0, nullptr, nullptr)))
            return false;
        return !Failed(items == 1 ? 0 : LUM_RC_FAILURE);
    }

    // The script; false where it stopped for want of a handle.
    bool Script() {
        if (!Create())
            return false;
        for (int i = 0; i < 3; ++i)
            if (!TransactionAndCommit())
                return false;
        Failed(LumRegionCheckpoint(region));
        if (!TransactionAndCommit() || !Containers() || !TransactionAndCommit())
            return false;
        Failed(LumRegionCheckpoint(region));
        if (!TransactionAndCommit())
            return false;
        Failed(LumRegionSyncAll((directory + "copy/").c_str()));
        if (!TransactionAndCommit() || !Reopen() || !TransactionAndCommit())
            return false;
        return true;
    }
};

} // namespace

Outcome *SharedOutcome() {
    void *page =
        mmap(nullptr, sizeof(Outcome), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    return page == MAP_FAILED ? nullptr : static_cast<Outcome *>(page);
}

bool StartLibrary(const std::string &directory, Outcome *outcome, bool show) {
    reported_to = outcome;
    show_reports = show;
    LumLogSetSink(CountFailureReports, nullptr);
    return LumRegionStartup(nullptr, (directory + "home/").c_str()) == 0;
}

void RunWorkload(const std::string &directory, Outcome *outcome, bool abandon) {
    Host host{directory, outcome};
    outcome->finished = host.Script();
    if (host.region != nullptr)
        outcome->verify_result = LumRegionVerify(host.region);
    if (!abandon) {
        host.CloseAll();
        return;
    }
    for (int i = 0; i < 2 && outcome->finished; ++i) { // one checkpoint of each parity
        outcome->finished = LumRegionCheckpoint(host.region) == 0;
        host.Commit();
        host.TransactionAndCommit();
    }
}

LumRegion *JudgeRegion(const std::string &directory, uint32_t root, int64_t last,
                       Outcome *outcome) {
    LumRegion *region;
    void *base;
    outcome->open_result =
        LumRegionOpen(kRegionName, kHardLimit, kHardLimit, 0, 0, directory.c_str(), &region, &base);
    outcome->recovered = -1;
    if (region == nullptr)
        return nullptr;
    outcome->verify_result = LumRegionVerify(region);
    LumRegionInfo info;
    LumRegionGetInfo(region, &info);
    outcome->recovered =
        MatchingCommit(kSeed, kShape, kSlots, last,
                       ImageItems(static_cast<uint8_t *>(base), info.used, root, kSlots));
    return region;
}

} // namespace faults
