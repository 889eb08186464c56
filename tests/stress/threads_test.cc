// Threads under stress: hosts on several threads, each with regions of its
// own that it fills, commits, closes, opens again and checks, while the
// checkpoint thread visits every region each millisecond. Run under
// ThreadSanitizer, it shows that the writers and the checkpoint thread
// share nothing unguarded; in any build, that no commit is lost meanwhile.
#include <gtest/gtest.h>
#include <string>
#include <thread>
#include <vector>

#include "capture.h"
#include "lumregion.h"

namespace {

constexpr int kThreads = 4;
constexpr int kRounds = 20;  // each: create or open, fill, close
constexpr int kWords = 2000; // per round, over several commits
constexpr uint32_t kSize = 4 * 1024 * 1024;

// The host's one allocation: made in a new segment, found by the scan in a
// recovered one; null when neither works.
int32_t *Words(LumSegment *segment, bool fresh) {
    void *words = nullptr;
    LumSegmentScan *scan;
    if (fresh && LumMemAlloc(segment, kWords * 4, &words) == 0) {
        LumMemLog(segment, words);
    } else if (!fresh && LumSegmentScanBegin(segment, &scan) == 0) {
        LumSegmentScanNext(scan, &words);
        LumSegmentScanEnd(scan);
    }
    return static_cast<int32_t *>(words);
}

// One host: its region lives in `directory` across rounds; the words of
// round r are r * kWords + i. Returns an empty string or what went wrong.
std::string Host(const std::string &directory, int id) {
    std::string name = "stress" + std::to_string(id);
    for (int round = 0; round < kRounds; ++round) {
        LumRegion *region;
        void *base;
        int32_t rc = round == 0 ? LumRegionCreate(name.c_str(), LUM_REGION_PERSISTENT, kSize, kSize,
                                                  0, 0, directory.c_str(), &region, &base)
                                : LumRegionOpen(name.c_str(), kSize, kSize, 0, 0, directory.c_str(),
                                                &region, &base);
        if (rc != 0)
            return "round " + std::to_string(round) + ": open gave " + std::to_string(rc);
        LumSegment *segment;
        if (round == 0 ? LumSegmentCreate(region, kSize / 2, 0, 0, 0, &segment) != 0
                       : LumSegmentOpen(region, 0, &segment) != 0)
            return "no segment";
        int32_t *word = Words(segment, round == 0);
        if (word == nullptr)
            return "no words";
        for (int i = 0; round > 0 && i < kWords; ++i)
            if (word[i] != (round - 1) * kWords + i)
                return "round " + std::to_string(round) + ": word " + std::to_string(i) + " lost";
        for (int i = 0; i < kWords; ++i) {
            LumMemLogCpyInt(segment, &word[i], round * kWords + i);
            if (i % 100 == 99)
                LumRegionCommit(region);
        }
        LumSegmentClose(segment);
        if (LumRegionClose(region) != 0)
            return "close failed";
    }
    return "";
}

} // namespace

TEST(Threads, HostsAndTheCheckpointThreadShareNothingUnguarded) {
    lumtest::TempDir directory;
    LumPropMgr *properties;
    ASSERT_EQ(LumPropMgrCreate(&properties), 0);
    ASSERT_EQ(LumRegionPropMgrInitialise(properties), 0);
    ASSERT_EQ(LumPropMgrSetText(properties, "Region.CheckpointInterval", "1"), 0);
    ASSERT_EQ(LumRegionStartup(properties, "/nonexistent-home"), 0);
    std::vector<std::string> faults(kThreads);
    std::vector<std::thread> hosts;
    for (int id = 0; id < kThreads; ++id)
        hosts.emplace_back([&, id] { faults[id] = Host(directory.path(), id); });
    for (std::thread &host : hosts)
        host.join();
    for (int id = 0; id < kThreads; ++id)
        EXPECT_EQ(faults[id], "") << "host " << id;
    EXPECT_EQ(LumRegionShutdown(), 0);
    LumPropMgrDestroy(properties);
}
