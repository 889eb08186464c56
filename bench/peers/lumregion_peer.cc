// This library in the comparison: a persistent region holding one hash
// table of one key, whose items are a key and a value allocated in the
// table's segment and logged; one LumRegionCommit per transaction. The
// commit reaches the log file through the operating system, unforced
// (Region.SyncCommit off, the default); a close writes the snapshot.
#include <cstring>
#include <filesystem>

#include "lum_rs.h"
#include "lumregion.h"
#include "peer_harness.h"

namespace {

using namespace peers;

constexpr uint32_t kMiB = 1024 * 1024;
constexpr uint32_t kItemSize = kKeySize + kValueSize; // the key, then the value
constexpr uint32_t kTableSegment = 0;                 // the region's first segment
constexpr char kRegionName[] = "peers";

// The keys are random bytes: their two words mixed make the hash.
uint32_t HashKey(LumRegHash *, const void *key_or_item, void *) {
    uint64_t words[2];
    memcpy(words, key_or_item, sizeof words);
    return static_cast<uint32_t>(((words[0] ^ words[1]) * 0x9E3779B97F4A7C15ull) >> 32);
}
int32_t CompareKey(LumRegHash *, const void *key, const void *item, void *) {
    return memcmp(key, item, kKeySize) != 0;
}
const LumRegHashKey kKeys[1] = {{HashKey, nullptr, CompareKey, nullptr}};

void StartLibraryOnce() {
    static bool started = [] {
        LumPropMgr *properties;
        return LumPropMgrCreate(&properties) == 0 && LumRegionPropMgrInitialise(properties) == 0 &&
               LumRegionStartup(properties, "/nonexistent-home") == 0;
    }();
    if (!started)
        Fail("the library does not start");
}

uint32_t RoundUp(uint64_t bytes, uint32_t unit) {
    return static_cast<uint32_t>((bytes + unit - 1) / unit * unit);
}

struct LumRegionStore {
    static constexpr const char *kName = "lumregion";

    // Sized for `capacity` items: a bucket per item, a chunk of about 136
    // bytes per item, and room to spare for the segment's growth.
    LumRegionStore(const std::string &directory, uint32_t capacity) {
        StartLibraryOnce();
        uint32_t buckets = std::max(capacity, 1024u);
        uint32_t header = 8 * buckets + 28;
        uint32_t limit = RoundUp(uint64_t{capacity} * 192 + header + 32ull * kMiB, kMiB);
        std::string path = directory + "/";
        void *base;
        bool exists = std::filesystem::exists(path + kRegionName + ".tab") ||
                      std::filesystem::exists(path + kRegionName + "_0.log");
        int32_t rc = exists ? LumRegionOpen(kRegionName, limit, limit, header, 0, path.c_str(),
                                            &region_, &base)
                            : LumRegionCreate(kRegionName, LUM_REGION_PERSISTENT, limit, limit,
                                              header, 0, path.c_str(), &region_, &base);
        if (rc != 0)
            Fail("lumregion: %s gave %d", exists ? "LumRegionOpen" : "LumRegionCreate", rc);
        LumRegHashConfig config = {RoundUp(header + uint64_t{capacity} * 136, kMiB), 16 * kMiB, 0,
                                   0};
        table_ = exists ? LumRegHashOpen(region_, kTableSegment, kKeys, 1)
                        : LumRegHashCreate(region_, &config, buckets, kKeys, 1);
        if (table_ == nullptr)
            Fail("lumregion: the table cannot be %s", exists ? "opened" : "created");
        segment_ = LumRegHashSegment(table_);
        if (!exists)
            Commit();
    }
    ~LumRegionStore() {
        LumRegHashClose(table_);
        if (int32_t rc = LumRegionClose(region_); rc != 0)
            Fail("lumregion: LumRegionClose gave %d", rc);
    }

    void Insert(const Key *keys, const Value *values, uint32_t count) {
        for (uint32_t i = 0; i < count; ++i) {
            auto *item = static_cast<uint8_t *>(LumRegHashAlloc(table_, kItemSize));
            if (item == nullptr)
                Fail("lumregion: LumRegHashAlloc failed");
            uint8_t bytes[kItemSize];
            memcpy(bytes, keys[i].bytes, kKeySize);
            memcpy(bytes + kKeySize, values[i].bytes, kValueSize);
            LumMemLogCpy(segment_, item, bytes, kItemSize);
            LumRegHashInsert(table_, item);
        }
        Commit();
    }
    const uint8_t *Get(const Key &key) {
        auto *item = static_cast<const uint8_t *>(LumRegHashFind(table_, &key, 0));
        return item == nullptr ? nullptr : item + kKeySize;
    }
    void Update(const Key *keys, const Patch *patches, uint32_t count) {
        for (uint32_t i = 0; i < count; ++i)
            LumMemLogCpy(segment_, Found(keys[i]) + kKeySize, patches[i].bytes, kPatchSize);
        Commit();
    }
    void Erase(const Key *keys, uint32_t count) {
        for (uint32_t i = 0; i < count; ++i) {
            uint8_t *item = Found(keys[i]);
            LumRegHashDelete(table_, item);
            LumRegHashFree(table_, item);
        }
        Commit();
    }
    uint64_t Count() { return LumRegHashNumItems(table_); }

  private:
    uint8_t *Found(const Key &key) {
        auto *item = static_cast<uint8_t *>(LumRegHashFind(table_, &key, 0));
        if (item == nullptr)
            Fail("lumregion: a key to change is missing");
        return item;
    }
    void Commit() {
        LumLogState state;
        if (LumRegionCommit(region_) != 0 || LumRegionGetLogState(region_, &state) != 0 ||
            state.failed)
            Fail("lumregion: the commit did not reach the log");
    }

    LumRegion *region_ = nullptr;
    LumRegHash *table_ = nullptr;
    LumSegment *segment_ = nullptr;
};

} // namespace

int main(int argc, char **argv) {
    return peers::RunPeer<LumRegionStore>(argc, argv);
}
