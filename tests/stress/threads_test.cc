// Hosts on several threads fill, commit, close and reopen regions of their own
// while the checkpoint thread visits them each millisecond: under
// ThreadSanitizer the race check of closes against its visits.
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

// The words of round r are r * kWords + i; gives what went wrong, if anything.
std::string Host(const std::string &directory, int id) {
    std::string name = "stress" + std::to_string(id);
    uint32_t words_at = 0; // the host's one allocation, in every round
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
        void *words = static_cast<uint8_t *>(base) + words_at;
        if (round == 0) {
            if (LumMemAlloc(segment, kWords * 4, &words) != 0)
                return "no words";
            LumMemLog(segment, words);
            words_at =
                static_cast<uint32_t>(static_cast<uint8_t *>(words) - static_cast<uint8_t *>(base));
        }
        auto *word = static_cast<int32_t *>(words);
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
