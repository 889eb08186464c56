// The persistent hash table: a seeded model across reopens at new bases,
// the words of its layout, refusals and damaged chains.
#include <algorithm>
#include <array>
#include <map>
#include <random>
#include <sys/mman.h>
#include <tuple>

#include "persistent_fixture.h"

namespace {

// An item and a key to find: an id (rising with each insert) and the
// values of keys 0, 1 and 2.
struct Record {
    uint32_t id, value[3];
};
uint32_t hash_calls = 0;
uint32_t Hash(LumRegHash *, const void *record, void *key) {
    ++hash_calls;
    return static_cast<const Record *>(record)->value[reinterpret_cast<uintptr_t>(key)];
}
int32_t Compare(LumRegHash *, const void *key, const void *item, void *index) {
    size_t k = reinterpret_cast<uintptr_t>(index);
    return static_cast<const Record *>(key)->value[k] !=
           static_cast<const Record *>(item)->value[k];
}
const LumRegHashKey kKeys[3] = {{Hash, (void *)0, Compare, (void *)0},
                                {Hash, (void *)1, Compare, (void *)1},
                                {Hash, (void *)2, Compare, (void *)2}};
const LumRegHashConfig kConfig = {64 * 1024, 64 * 1024, 50, 0};
constexpr uint32_t kBuckets = 7, kValues = 20;

const Record &Of(const void *item) {
    return *static_cast<const Record *>(item);
}
void *Put(LumRegHash *table, Record record) {
    void *item = LumRegHashAlloc(table, sizeof record);
    LumMemLogCpy(LumRegHashSegment(table), item, &record, sizeof record);
    LumRegHashInsert(table, item);
    return item;
}
void FreeItem(LumRegHash *table, void *item, void *count) {
    ++*static_cast<uint32_t *>(count);
    LumRegHashFree(table, item);
}
int32_t Visit(void *item, void *ids) { // stops at ids divisible by the first element
    auto &seen = *static_cast<std::vector<uint32_t> *>(ids);
    seen.push_back(Of(item).id);
    return Of(item).id % seen[0] == 0;
}
int32_t ById(LumRegHash *, const void *a, const void *b, void *) {
    return Of(a).id < Of(b).id ? -1 : Of(a).id > Of(b).id;
}
uint32_t SegmentCount(LumRegion *region) {
    LumRegionInfo info{};
    LumRegionGetInfo(region, &info);
    return info.segment_count;
}
uint32_t SegmentId(LumSegment *segment) {
    LumSegmentInfo info{};
    LumSegmentGetInfo(segment, &info);
    return info.segment_id;
}

struct Model {
    uint32_t keys;
    std::map<uint32_t, void *> items;

    void Add(void *item) { items[Of(item).id] = item; }
    // The ids of the items whose key k has `value`, oldest first.
    std::vector<uint32_t> Matches(uint32_t k, uint32_t value) const {
        std::vector<uint32_t> found;
        for (auto &[id, item] : items)
            if (Of(item).value[k] == value)
                found.push_back(id);
        return found;
    }
    // The order of a cursor: by bucket of key 0, then by age.
    std::vector<uint32_t> Order() const {
        std::vector<uint32_t> order;
        for (auto &[id, item] : items)
            order.push_back(id);
        std::ranges::stable_sort(order, {},
                                 [&](uint32_t id) { return Of(items.at(id)).value[0] % kBuckets; });
        return order;
    }
};

void ExpectChain(LumRegHash *table, const Model &model, uint32_t k, uint32_t value) {
    Record key{0, {value, value, value}};
    std::vector<uint32_t> found;
    for (void *item = LumRegHashFind(table, &key, k); item; item = LumRegHashNext(table, item, k))
        found.push_back(Of(item).id);
    EXPECT_EQ(found, model.Matches(k, value)) << "key " << k << " value " << value;
}

// Deletes each third item as the cursor returns it.
void CursorDeletingThirds(LumRegHash *table, Model &model) {
    std::vector<uint32_t> seen, order = model.Order();
    LumRegHashCursor *cursor = LumRegHashCursorOpen(table);
    for (void *item; (item = LumRegHashCursorNext(cursor)) != nullptr;) {
        seen.push_back(Of(item).id);
        if (Of(item).id % 3 == 0) {
            model.items.erase(Of(item).id);
            LumRegHashDelete(table, item);
            LumRegHashFree(table, item);
        }
    }
    LumRegHashCursorClose(cursor);
    EXPECT_EQ(seen, order);
}

// An unsorted stop skips the rest of its bucket; a sorted one ends the walk.
void Walks(LumRegHash *table, const Model &model, uint32_t stop) {
    std::vector<uint32_t> seen{stop}, expected{stop};
    uint32_t bucket = kBuckets;
    bool stopped = false;
    for (uint32_t id : model.Order()) {
        uint32_t b = Of(model.items.at(id)).value[0] % kBuckets;
        stopped = stopped && b == bucket;
        if (bucket = b; !stopped)
            expected.push_back(id), stopped = id % stop == 0;
    }
    EXPECT_EQ(LumRegHashWalk(table, Visit, &seen, 0, nullptr, nullptr), 0);
    EXPECT_EQ(seen, expected);
    seen = expected = {stop};
    for (auto &[id, item] : model.items)
        if (expected.push_back(id); id % stop == 0)
            break;
    EXPECT_EQ(LumRegHashWalk(table, Visit, &seen, 1, ById, nullptr), 0);
    EXPECT_EQ(seen, expected);
}

class HashTableTest : public PersistentTest {
  protected:
    // Reopens the region with the old base held, so the image moves, and
    // compares the whole table.
    void ReopenAndCompare(LumRegion *&region, LumRegHash *&table, Model &model) {
        uint32_t id = SegmentId(LumRegHashSegment(table));
        ASSERT_EQ(LumRegionCommit(region), 0);
        LumRegHashClose(table);
        void *old_base = region->base, *base = nullptr;
        ASSERT_EQ(LumRegionClose(region), 0);
        void *hold = mmap(old_base, 4 * kMiB, PROT_NONE,
                          MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED_NOREPLACE, -1, 0);
        ASSERT_EQ(LumRegionOpen("p", 4 * kMiB, 4 * kMiB, 0, 0, dir_.path().c_str(), &region, &base),
                  0);
        munmap(hold, 4 * kMiB);
        EXPECT_NE(base, old_base);
        ASSERT_NE(table = LumRegHashOpen(region, id, kKeys, model.keys), nullptr);
        ASSERT_EQ(LumRegHashNumItems(table), model.items.size());
        LumRegHashCursor *cursor = LumRegHashCursorOpen(table);
        for (void *item; (item = LumRegHashCursorNext(cursor)) != nullptr;)
            model.items[Of(item).id] = item; // the items moved with the base
        LumRegHashCursorClose(cursor);
        for (uint32_t k = 0; k < model.keys; ++k)
            for (uint32_t value = 0; value < kValues; ++value)
                ExpectChain(table, model, k, value);
    }
};

TEST_F(HashTableTest, SeededWorkMatchesAModelAcrossClosesAndOpens) {
    for (uint32_t keys : {2u, 3u}) {
        SCOPED_TRACE(keys);
        LumRegion *region = CreatePersistent();
        LumRegHash *table = LumRegHashCreate(region, &kConfig, kBuckets, kKeys, keys);
        Model model{keys, {}};
        std::mt19937 random(keys);
        auto pick = [&](uint32_t n) { return static_cast<uint32_t>(random() % n); };
        uint32_t next_id = 1;
        for (int step = 1; step <= 2400; ++step) {
            uint32_t action = pick(200);
            if (action < 100 || (action < 150 && model.items.empty())) {
                model.Add(Put(table, {next_id++, {pick(kValues), pick(kValues), pick(kValues)}}));
            } else if (action < 150) {
                auto [id, item] = *std::next(model.items.begin(), pick(model.items.size()));
                LumRegHashDelete(table, item);
                LumRegHashFree(table, item);
                model.items.erase(id);
            } else if (action < 185) {
                ExpectChain(table, model, pick(keys), pick(kValues));
            } else if (action < 192) {
                CursorDeletingThirds(table, model);
            } else if (action < 199) {
                Walks(table, model, 2 + pick(20));
            } else {
                uint32_t freed = 0;
                LumRegHashFlush(table, FreeItem, &freed);
                EXPECT_EQ(freed, model.items.size());
                model.items.clear();
            }
            if (step % 100 == 0) {
                ASSERT_EQ(LumRegionVerifyDeep(region), 0) << step;
            }
            if (step % 400 == 0) {
                ReopenAndCompare(region, table, model);
            }
        }
        uint32_t freed = 0;
        LumRegHashDestroy(table, FreeItem, &freed);
        EXPECT_EQ(freed, model.items.size());
        EXPECT_EQ(LumRegionVerifyDeep(region), 0);
        EXPECT_EQ(SegmentCount(region), 0u);
        EXPECT_EQ(LumRegionClose(region), 0);
        std::filesystem::remove(Path("p.tab"));
    }
}

int32_t VisitNothing(void *, void *) {
    ADD_FAILURE() << "visited";
    return 0;
}

// Header, bucket pairs and links after inserts, deletes (the first link,
// then the only one) and an insert into the emptied bucket.
TEST_F(RegionTest, HashTableWordsAreTheDocumentedOnes) {
    LumRegion *region = Create(4 * kMiB, 4 * kMiB);
    LumRegHash *table = LumRegHashCreate(region, &kConfig, 3, kKeys, 2);
    LumSegmentScan *scan = nullptr;
    void *header = nullptr;
    LumSegmentScanBegin(LumRegHashSegment(table), &scan);
    LumSegmentScanNext(scan, &header);
    LumSegmentScanEnd(scan);
    auto off = [&](const void *at) { return ImageOffsetOf(region, (const uint8_t *)at); };
    auto word = [&](uint32_t at) { return ImageLoad32(region->base + at); };
    const uint32_t h = off(header);
    auto bucket = [&](uint32_t k, uint32_t b) { return h + 20 + (k * 3 + b) * 8; };
    auto link = [&](void *item, uint32_t k) { return off(item) - 16 + 8 * k; };
    auto expect = [&](std::vector<std::array<uint32_t, 3>> pairs) {
        for (auto [at, first, second] : pairs)
            EXPECT_EQ(word(at) * 0x100000000ull + word(at + 4), first * 0x100000000ull + second)
                << "pair at " << at;
    };
    EXPECT_GE(LumMemGetSize(header), 8u * 3 * 2 + 28);
    expect({{h, 1, 0}, {h + 8, 3, 0}, {h + 16, 2, 0}});
    void *a = Put(table, {1, {0, 1, 0}}), *b = Put(table, {2, {3, 1, 0}});
    LumRegHashSetVersion(table, 7);
    expect({{h, 1, 7},
            {h + 8, 3, 2},
            {bucket(0, 0), link(a, 0), link(b, 0)},
            {link(a, 0), link(b, 0), bucket(0, 0)},
            {link(b, 0), 0, link(a, 0)},
            {bucket(1, 1), link(a, 1), link(b, 1)},
            {link(a, 1), link(b, 1), bucket(1, 1)},
            {link(b, 1), 0, link(a, 1)},
            {bucket(0, 1), 0, 0},
            {bucket(0, 2), 0, 0},
            {bucket(1, 0), 0, 0},
            {bucket(1, 2), 0, 0}});
    Record key{0, {0, 1, 0}};
    hash_calls = 0;
    EXPECT_EQ(LumRegHashFind(table, &key, 2), nullptr);
    EXPECT_EQ(LumRegHashNext(table, a, 2), nullptr);
    LumRegHashDelete(table, a); // the first link: no hash, its words stay
    EXPECT_EQ(hash_calls, 0u);
    expect({{bucket(0, 0), link(b, 0), link(b, 0)},
            {link(b, 0), 0, bucket(0, 0)},
            {link(a, 0), link(b, 0), bucket(0, 0)}});
    LumRegHashDelete(table, b); // the only link: the tail names the bucket
    expect({{bucket(0, 0), 0, bucket(0, 0)}, {bucket(1, 1), 0, bucket(1, 1)}, {h + 8, 3, 0}});
    LumRegHashInsert(table, a);
    expect({{bucket(0, 0), link(a, 0), link(a, 0)}, {link(a, 0), 0, bucket(0, 0)}});
    EXPECT_EQ(LumRegHashFind(table, &key, 1), a);

    LumRegHashFree(table, b);
    uint32_t freed = 0;
    LumRegHashDestroy(table, FreeItem, &freed);
    EXPECT_EQ(freed, 1u);
    EXPECT_EQ(LumRegionVerifyDeep(region), 0);
}

std::string Text(int32_t code) {
    return LumRCToString(code);
}

// Each failing call gives null and exactly one report.
void ExpectRefused(const std::function<void *()> &call, uint32_t failing_malloc,
                   const std::string &report) {
    lumtest::LogCapture capture;
    lumtest::MallocFailure failure(failing_malloc);
    EXPECT_EQ(call(), nullptr);
    std::vector<std::string> texts;
    for (const lumtest::LogRecord &r : capture.Find(102, 0))
        texts.push_back(std::to_string(r.severity) + " " + r.text);
    EXPECT_EQ(texts, std::vector<std::string>{"4 " + report});
}

uint32_t SegmentHolding(LumRegion *region, std::vector<uint32_t> words, uint32_t bytes) {
    LumSegment *segment = NewSegment(region, 64 * 1024);
    if (bytes != 0)
        memcpy(AllocLogged(segment, bytes), words.data(), 4 * words.size());
    uint32_t id = SegmentId(segment);
    LumSegmentClose(segment);
    return id;
}

// Refused creates leave no segment behind, refused opens the segments as
// they were.
TEST_F(RegionTest, HashTableRefusalsReportAndLeaveNothingHalfDone) {
    LumRegion *region = Create(4 * kMiB, 4 * kMiB);
    const LumRegHashKey no_compare[2] = {kKeys[0], {Hash, nullptr, nullptr, nullptr}};
    const LumRegHashConfig small = {64 * 1024, 0, 0, 64 * 1024};
    const std::string create = "LumRegHashCreate: ", open = "LumRegHashOpen: ";
    const std::string counts = "Bucket and key counts must be at least 1.";
    const std::string functions = "Hash and comparison functions must be specified.";
    auto create_with = [&](uint32_t buckets, uint32_t keys, const LumRegHashKey *functions,
                           const LumRegHashConfig *config) {
        return [=] { return (void *)LumRegHashCreate(region, config, buckets, functions, keys); };
    };
    const std::tuple<std::function<void *()>, uint32_t, std::string> creates[] = {
        {create_with(0, 1, kKeys, &kConfig), 0, counts},
        {create_with(3, 0, kKeys, &kConfig), 0, counts},
        {create_with(3, 2, no_compare, &kConfig), 0, functions},
        {create_with(3, 1, kKeys, nullptr), 0, functions},
        {create_with(3, 1, kKeys, &kConfig), 1, "Failed to allocate volatile space."},
        {create_with(3, 1, kKeys, &kConfig), 2, "Failed to create segment.  " + Text(12)},
        {create_with(10000, 1, kKeys, &small), 0,
         "Failed to allocate space for persistent store. " + Text(-407)},
    };
    for (const auto &[call, failing_malloc, report] : creates)
        ExpectRefused(call, failing_malloc, create + report);
    EXPECT_EQ(SegmentCount(region), 0u);

    LumRegHash *table = LumRegHashCreate(region, &kConfig, 5, kKeys, 2);
    const uint32_t id = SegmentId(LumRegHashSegment(table));
    const uint32_t empty = SegmentHolding(region, {}, 0);
    const uint32_t version = SegmentHolding(region, {2, 0, 5, 0, 1}, 40);
    const uint32_t no_buckets = SegmentHolding(region, {1, 0, 0, 0, 1}, 40);
    const uint32_t too_small = SegmentHolding(region, {1, 0, 100, 0, 1}, 24);
    auto wrong = [&](uint32_t id) {
        return "Hash table " + std::to_string(id) + " in region \"test\" has ";
    };
    auto open_with = [&](uint32_t id, uint32_t keys, const LumRegHashKey *functions = kKeys) {
        return [=] { return (void *)LumRegHashOpen(region, id, functions, keys); };
    };
    const std::tuple<std::function<void *()>, uint32_t, std::string> opens[] = {
        {open_with(id, 2, nullptr), 0, open + functions},
        {open_with(id, 2), 1, open + "Failed to allocate volatile space."},
        {open_with(id, 2), 3, open + "Segment Scan Begin failed. " + Text(-19)},
        {open_with(50, 2), 0, open + "Failed to open segment. " + Text(-22)},
        {open_with(empty, 1), 0, open + "LumSegmentScanNext failed. " + Text(-19)},
        {open_with(version, 1), 0, wrong(version) + "wrong version number (2 != 1)"},
        {open_with(id, 3), 0, wrong(id) + "2 keys, not 3"},
        {open_with(no_buckets, 1), 0,
         wrong(no_buckets) + "0 buckets of 1 keys in a chunk of 40 bytes"},
        {open_with(too_small, 1), 0,
         wrong(too_small) + "100 buckets of 1 keys in a chunk of 24 bytes"},
    };
    for (const auto &[call, failing_malloc, report] : opens)
        ExpectRefused(call, failing_malloc, report);
    EXPECT_EQ(SegmentCount(region), 5u);

    EXPECT_EQ(LumRegHashAlloc(table, 0xFFFFFFF0u), nullptr);
    EXPECT_EQ(lumtest::TakeException(),
              "RegionHash|Failed to allocate persistent hash table entry|" + Text(-19));
    ExpectRefused([&] { return LumRegHashCursorOpen(table); }, 1,
                  "LumRegHashCursorOpen: Failed to allocate memory for cursor. " + Text(12));
    void *item = Put(table, {1, {0, 0, 0}});
    {
        lumtest::MallocFailure failure(1);
        EXPECT_EQ(LumRegHashWalk(table, VisitNothing, nullptr, 1, ById, nullptr), 12);
    }
    LumRegHashDelete(table, item);
    LumRegHashFree(table, item);
    ExpectRefused([&] { return LumRegHashFree(table, item), nullptr; }, 0,
                  "LumRegHashFree: Failed to free the hash table entry. " + Text(-408));
    LumRegHashDestroy(table, nullptr, nullptr);
    EXPECT_EQ(LumRegionVerifyDeep(region), 0);
}

// A chain whose last link leads back into it, past the image or into the
// region header ends find and the cursor with a report.
TEST_F(RegionTest, HashTableDamagedChainsEndEveryWalk) {
    LumRegion *region = Create(4 * kMiB, 4 * kMiB);
    LumRegHash *table = LumRegHashCreate(region, &kConfig, 1, kKeys, 1);
    uint8_t *last = static_cast<uint8_t *>(Put(table, {1, {5, 0, 0}})) - 8; // its link
    Put(table, {2, {6, 0, 0}});                                             // heads the chain
    const uint32_t kept = ImageLoad32(last);
    const std::pair<const char *, uint32_t> damage[] = {{"a circle", ImageOffsetOf(region, last)},
                                                        {"past the image", region->used + 4096},
                                                        {"the region header", 64}};
    for (auto [what, next] : damage) {
        SCOPED_TRACE(what);
        ImageStore32(last, next);
        lumtest::LogCapture capture;
        Record missing{0, {7, 0, 0}};
        EXPECT_EQ(LumRegHashFind(table, &missing, 0), nullptr);
        LumRegHashCursor *cursor = LumRegHashCursorOpen(table);
        uint32_t returned = 0;
        while (LumRegHashCursorNext(cursor) != nullptr)
            ++returned;
        LumRegHashCursorClose(cursor);
        EXPECT_LE(returned, region->used / 8);
        EXPECT_EQ(capture.Find(102, 0).size(), 2u);
    }
    ImageStore32(last, kept);
    // A damaged item count cannot size the sorted walk's memory.
    LumSegmentScan *scan = nullptr;
    void *header = nullptr;
    LumSegmentScanBegin(LumRegHashSegment(table), &scan);
    LumSegmentScanNext(scan, &header);
    LumSegmentScanEnd(scan);
    ImageStore32(static_cast<uint8_t *>(header) + 12, 0xFFFFFFFF);
    std::vector<uint32_t> ids{1000};
    EXPECT_EQ(LumRegHashWalk(table, Visit, &ids, 1, ById, nullptr), 0);
    EXPECT_EQ(ids, (std::vector<uint32_t>{1000, 1, 2}));
    ImageStore32(static_cast<uint8_t *>(header) + 12, 2);
    LumRegHashClose(table);
}

} // namespace
