// The persistent hash table: a seeded model test across closes and opens at
// new bases, the words of its layout, and every refusal and failure path.
#include <algorithm>
#include <map>
#include <random>
#include <set>
#include <sys/mman.h>
#include <unordered_map>

#include "persistent_fixture.h"

namespace {

// Items hold four words: an id, then the value of key 0, 1 and 2. A key to
// find is a record of the same form.
struct Record {
    uint32_t id, value[3];
};

uint32_t HashValue(LumRegHash *, const void *record, void *key) {
    return static_cast<const Record *>(record)->value[reinterpret_cast<uintptr_t>(key)];
}
int32_t CompareValue(LumRegHash *, const void *key, const void *item, void *index) {
    size_t k = reinterpret_cast<uintptr_t>(index);
    return static_cast<const Record *>(key)->value[k] !=
           static_cast<const Record *>(item)->value[k];
}
const LumRegHashKey kKeys[3] = {{HashValue, (void *)0, CompareValue, (void *)0},
                                {HashValue, (void *)1, CompareValue, (void *)1},
                                {HashValue, (void *)2, CompareValue, (void *)2}};
const LumRegHashConfig kConfig = {64 * 1024, 64 * 1024, 50, 0};

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

uint32_t SegmentId(LumSegment *segment) {
    LumSegmentInfo info{};
    LumSegmentGetInfo(segment, &info);
    return info.segment_id;
}

// The host's picture of a table: live items by id with their insertion
// sequence, and per key an unordered_multimap from value to id.
struct Model {
    static constexpr uint32_t kBuckets = 7;
    uint32_t keys;
    std::map<uint32_t, std::pair<Record, uint64_t>> items; // id -> record, sequence
    std::unordered_multimap<uint32_t, uint32_t> by_value[3];
    std::map<uint32_t, void *> where; // id -> item in the open image

    void Add(const Record &r, uint64_t sequence, void *item) {
        items[r.id] = {r, sequence};
        where[r.id] = item;
        for (uint32_t k = 0; k < keys; ++k)
            by_value[k].emplace(r.value[k], r.id);
    }
    void Remove(uint32_t id) {
        for (uint32_t k = 0; k < keys; ++k) {
            auto [first, last] = by_value[k].equal_range(items[id].first.value[k]);
            by_value[k].erase(std::find_if(first, last, [&](auto &e) { return e.second == id; }));
        }
        items.erase(id);
        where.erase(id);
    }
    // Ids whose key k holds `value`, oldest first.
    std::vector<uint32_t> Matches(uint32_t k, uint32_t value) const {
        std::vector<uint32_t> ids;
        auto [first, last] = by_value[k].equal_range(value);
        for (auto it = first; it != last; ++it)
            ids.push_back(it->second);
        std::sort(ids.begin(), ids.end(),
                  [&](uint32_t a, uint32_t b) { return items.at(a).second < items.at(b).second; });
        return ids;
    }
    // Ids in cursor order: bucket of key 0, then insertion.
    std::vector<uint32_t> Order() const {
        std::vector<std::pair<uint32_t, uint64_t>> keyed;
        for (auto &[id, entry] : items)
            keyed.push_back({id, (uint64_t{entry.first.value[0] % kBuckets} << 40) + entry.second});
        std::sort(keyed.begin(), keyed.end(), [](auto &a, auto &b) { return a.second < b.second; });
        std::vector<uint32_t> ids;
        for (auto &e : keyed)
            ids.push_back(e.first);
        return ids;
    }
};

struct Seen {
    std::vector<uint32_t> ids;
    uint32_t stop_id_mod; // a visit stops at ids divisible by this
};
int32_t Visit(void *item, void *seen) {
    auto *s = static_cast<Seen *>(seen);
    s->ids.push_back(Of(item).id);
    return Of(item).id % s->stop_id_mod == 0;
}
int32_t ById(LumRegHash *, const void *a, const void *b, void *) {
    return Of(a).id < Of(b).id ? -1 : Of(a).id > Of(b).id;
}

class HashTableTest : public PersistentTest {
  protected:
    // Closes the region and opens it again at another base, holding the old
    // reservation meanwhile; the table's handle is opened again on it.
    void Reopen(LumRegion *&region, LumRegHash *&table, uint32_t keys) {
        uint32_t id = SegmentId(LumRegHashSegment(table));
        LumRegHashClose(table);
        void *old_base = region->base;
        ASSERT_EQ(LumRegionClose(region), 0);
        void *hold = mmap(old_base, 4 * kMiB, PROT_NONE,
                          MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED_NOREPLACE, -1, 0);
        void *base = nullptr;
        ASSERT_EQ(LumRegionOpen("p", 4 * kMiB, 4 * kMiB, 0, 0, dir_.path().c_str(), &region, &base),
                  0);
        munmap(hold, 4 * kMiB);
        EXPECT_NE(base, old_base);
        table = LumRegHashOpen(region, id, kKeys, keys);
        ASSERT_NE(table, nullptr);
    }

    // The whole table against the model: every item once through a cursor,
    // and every value of every key through find and next.
    static void Compare(LumRegHash *table, Model &model) {
        ASSERT_EQ(LumRegHashNumItems(table), model.items.size());
        std::vector<uint32_t> seen;
        LumRegHashCursor *cursor = LumRegHashCursorOpen(table);
        for (void *item; (item = LumRegHashCursorNext(cursor)) != nullptr;) {
            seen.push_back(Of(item).id);
            model.where[Of(item).id] = item;
        }
        LumRegHashCursorClose(cursor);
        ASSERT_EQ(seen, model.Order());
        for (uint32_t k = 0; k < model.keys; ++k)
            for (uint32_t value = 0; value < 20; ++value)
                ExpectChain(table, model, k, value);
    }

    static void ExpectChain(LumRegHash *table, const Model &model, uint32_t k, uint32_t value) {
        Record key{0, {value, value, value}};
        std::vector<uint32_t> found;
        for (void *item = LumRegHashFind(table, &key, k); item != nullptr;
             item = LumRegHashNext(table, item, k))
            found.push_back(Of(item).id);
        EXPECT_EQ(found, model.Matches(k, value)) << "key " << k << " value " << value;
    }
};

// Seeded random work on tables of two and three keys, checked against the
// model step by step and whole after each close and open at a new base.
TEST_F(HashTableTest, SeededWorkMatchesAMultimapAcrossClosesAndOpens) {
    for (uint32_t keys : {2u, 3u}) {
        SCOPED_TRACE(keys);
        std::filesystem::remove_all(dir_.path() + "p.tab");
        LumRegion *region = CreatePersistent();
        LumRegHash *table = LumRegHashCreate(region, &kConfig, Model::kBuckets, kKeys, keys);
        ASSERT_NE(table, nullptr);
        Model model{keys, {}, {}, {}};
        std::mt19937 random(keys * 7919);
        auto pick = [&](uint32_t n) { return static_cast<uint32_t>(random() % n); };
        uint32_t next_id = 1;
        uint64_t sequence = 0;
        for (int step = 1; step <= 2400; ++step) {
            uint32_t action = pick(100);
            if (action < 50 || model.items.empty()) {
                Record r{next_id++, {pick(20), pick(20), pick(20)}};
                model.Add(r, sequence++, Put(table, r));
            } else if (action < 75) {
                auto it = std::next(model.items.begin(), pick(model.items.size()));
                void *item = model.where[it->first];
                LumRegHashDelete(table, item);
                LumRegHashFree(table, item);
                model.Remove(it->first);
            } else if (action < 90) {
                ExpectChain(table, model, pick(keys), pick(20));
            } else if (action < 93) {
                // Deleting each third item just as the cursor returns it.
                std::vector<uint32_t> seen, order = model.Order();
                LumRegHashCursor *cursor = LumRegHashCursorOpen(table);
                for (void *item; (item = LumRegHashCursorNext(cursor)) != nullptr;) {
                    seen.push_back(Of(item).id);
                    if (Of(item).id % 3 == 0) {
                        model.Remove(Of(item).id);
                        LumRegHashDelete(table, item);
                        LumRegHashFree(table, item);
                    }
                }
                LumRegHashCursorClose(cursor);
                EXPECT_EQ(seen, order);
            } else if (action < 96) {
                // Unsorted: a stop skips the rest of its bucket only.
                Seen seen{{}, 2 + pick(3)}, expected{{}, seen.stop_id_mod};
                std::vector<uint32_t> order = model.Order();
                for (size_t i = 0; i < order.size(); ++i) {
                    uint32_t bucket = model.items[order[i]].first.value[0] % Model::kBuckets;
                    bool stopped = false;
                    for (size_t j = i; j > 0; --j) {
                        uint32_t before = order[j - 1];
                        if (model.items[before].first.value[0] % Model::kBuckets != bucket)
                            break;
                        stopped = stopped || before % seen.stop_id_mod == 0;
                    }
                    if (!stopped)
                        expected.ids.push_back(order[i]);
                }
                EXPECT_EQ(LumRegHashWalk(table, Visit, &seen, 0, nullptr, nullptr), 0);
                EXPECT_EQ(seen.ids, expected.ids);
            } else if (action < 99) {
                // Sorted: a stop ends the walk.
                Seen seen{{}, 5 + pick(20)};
                std::vector<uint32_t> expected;
                for (auto &[id, entry] : model.items)
                    if (expected.push_back(id); id % seen.stop_id_mod == 0)
                        break;
                EXPECT_EQ(LumRegHashWalk(table, Visit, &seen, 1, ById, nullptr), 0);
                EXPECT_EQ(seen.ids, expected);
            } else {
                uint32_t freed = 0;
                LumRegHashFlush(table, FreeItem, &freed);
                EXPECT_EQ(freed, model.items.size());
                model = Model{keys, {}, {}, {}};
            }
            if (step % 100 == 0) {
                ASSERT_EQ(LumRegionVerifyDeep(region), 0);
            }
            if (step % 400 == 0) {
                ASSERT_EQ(LumRegionCommit(region), 0);
                Reopen(region, table, keys);
                Compare(table, model);
            }
        }
        uint32_t freed = 0;
        LumRegHashDestroy(table, FreeItem, &freed);
        EXPECT_EQ(freed, model.items.size());
        EXPECT_EQ(LumRegionVerifyDeep(region), 0);
        LumRegionInfo info{};
        LumRegionGetInfo(region, &info);
        EXPECT_EQ(info.segment_count, 0u);
        EXPECT_EQ(LumRegionClose(region), 0);
    }
}

} // namespace
