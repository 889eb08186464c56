// The persistent containers, each beside its references in the same run.
// An item is a 16-byte key and a 100-byte value, written into its chunk
// with the logged writes; figures are per item.
//   HashInsertCommit/K    alloc + write + insert, one commit per K items;
//   BareLoggedWords/K     what such an insert cannot avoid: allocate and log
//                         the item's chunk, two logged link words and a
//                         logged count, one commit per K items;
//   UnorderedMapInsert    std::unordered_map insert, volatile: the floor;
//   HashFindHit/Miss      beside UnorderedMapFindHit/Miss;
//   HashDeleteFree/K      delete + free, one commit per K items;
//   ListInsertHead/K      alloc + write + insert at the head;
//   ListDeleteHead/K      delete at the head + free.
// The work of keeping the runs bounded (emptying the containers after each
// round of kRound items, refilling them for deletes, rewinding the log)
// stays outside the timed part.
#include <benchmark/benchmark.h>
#include <cstdio>
#include <cstring>
#include <string>
#include <unordered_map>
#include <vector>

#include "bench_region.h"

namespace {

constexpr uint32_t kKeySize = 16, kValueSize = 100;
constexpr uint32_t kRound = 4000; // items per round; a multiple of every K
constexpr uint32_t kBuckets = 4096;

struct Key {
    char bytes[kKeySize];
};
struct Item {
    Key key;
    char value[kValueSize];
};
// The chunk of an item in a table of one key: its link pair, then the item.
constexpr uint32_t kChunkSize = sizeof(Item) + 8;

Key KeyOf(uint32_t i) {
    char text[kKeySize + 1];
    snprintf(text, sizeof text, "key-%012u", i);
    Key key;
    memcpy(key.bytes, text, kKeySize);
    return key;
}
// The items of a round, made once, so that no timed part formats a key.
const Item &ItemOf(uint32_t n) {
    static const std::vector<Item> items = [] {
        std::vector<Item> made(kRound);
        for (uint32_t i = 0; i < kRound; ++i) {
            made[i].key = KeyOf(i);
            memset(made[i].value, 'a' + i % 26, kValueSize);
        }
        return made;
    }();
    return items[n % kRound];
}

// FNV-1a over the key, which an item begins with as well.
uint32_t HashKey(LumRegHash *, const void *key_or_item, void *) {
    uint32_t hash = 2166136261u;
    for (char byte : static_cast<const Key *>(key_or_item)->bytes)
        hash = (hash ^ static_cast<uint8_t>(byte)) * 16777619u;
    return hash;
}
int32_t CompareKey(LumRegHash *, const void *key, const void *item, void *) {
    return memcmp(key, item, kKeySize) != 0;
}
const LumRegHashKey kKeys[1] = {{HashKey, nullptr, CompareKey, nullptr}};
const LumRegHashConfig kConfig = {kMiB, kMiB, 0, 0};

void FreeItem(LumRegHash *table, void *item, void *) {
    LumRegHashFree(table, item);
}

// One region for all: a table to insert into and delete from, a table kept
// full for the finds, a segment with a list, and a segment for the bare
// words with their bucket words and count.
struct Fixture : BenchRegion {
    Fixture() : BenchRegion("containers", 4 * kMiB) {
        table = LumRegHashCreate(region, &kConfig, kBuckets, kKeys, 1);
        full_table = LumRegHashCreate(region, &kConfig, kBuckets, kKeys, 1);
        if (table == nullptr || full_table == nullptr ||
            LumSegmentCreate(region, kMiB, kMiB, 0, 0, &list_segment) != 0 ||
            LumSegmentCreate(region, kMiB, kMiB, 0, 0, &bare_segment) != 0 ||
            LumMemAlloc(bare_segment, kBuckets * 4 + 4, &bare_words) != 0)
            abort();
        LumMemLog(bare_segment, bare_words);
        list = LumRegListCreate(list_segment, region->base);
        for (uint32_t i = 0; i < kRound; ++i)
            Put(full_table, ItemOf(i));
        Commit();
    }
    // Ends the round's transaction and starts the log afresh.
    void Commit() {
        LumRegionCommit(region);
        RewindLog();
    }
    // Allocates, writes and inserts an item as a host does.
    static void *Put(LumRegHash *into, const Item &item) {
        void *stored = LumRegHashAlloc(into, sizeof item);
        LumMemLogCpy(LumRegHashSegment(into), stored, &item, sizeof item);
        LumRegHashInsert(into, stored);
        return stored;
    }

    LumRegHash *table = nullptr, *full_table = nullptr;
    LumSegment *list_segment = nullptr, *bare_segment = nullptr;
    LumRegList *list = nullptr;
    void *bare_words = nullptr;
};

Fixture &Bench() {
    static Fixture fixture;
    return fixture;
}

// Runs `step(n)` for every iteration with a commit after each K steps, and
// `round_end` untimed after each kRound steps and once at the end.
template <typename Step, typename RoundEnd>
void CommittedRounds(benchmark::State &state, Step step, RoundEnd round_end) {
    Fixture &f = Bench();
    uint32_t per_commit = static_cast<uint32_t>(state.range(0)), n = 0;
    for (auto _ : state) {
        step(n);
        if (++n % per_commit == 0)
            LumRegionCommit(f.region);
        if (n % kRound == 0) {
            state.PauseTiming();
            round_end();
            state.ResumeTiming();
        }
    }
    round_end();
    state.SetItemsProcessed(state.iterations());
}

void BM_HashInsertCommit(benchmark::State &state) {
    Fixture &f = Bench();
    CommittedRounds(
        state, [&](uint32_t n) { Fixture::Put(f.table, ItemOf(n)); },
        [&] {
            LumRegHashFlush(f.table, FreeItem, nullptr);
            f.Commit();
        });
}
BENCHMARK(BM_HashInsertCommit)->Arg(1)->Arg(100);

// The same chunk, allocated, filled and logged whole; the item's prev link
// and its predecessor's next link; the count.
void BM_BareLoggedWords(benchmark::State &state) {
    Fixture &f = Bench();
    auto *words = static_cast<uint8_t *>(f.bare_words);
    std::vector<void *> chunks;
    chunks.reserve(kRound);
    CommittedRounds(
        state,
        [&](uint32_t n) {
            const Item &item = ItemOf(n);
            void *chunk;
            if (LumMemAlloc(f.bare_segment, kChunkSize, &chunk) != 0)
                abort();
            memcpy(static_cast<uint8_t *>(chunk) + 8, &item, sizeof item);
            LumMemLog(f.bare_segment, chunk);
            uint8_t *bucket = words + 4 + HashKey(nullptr, &item, nullptr) % kBuckets * 4;
            LumMemLogCpyInt(f.bare_segment, static_cast<uint8_t *>(chunk) + 4,
                            static_cast<int32_t>(bucket - f.region->base));
            LumMemLogCpyInt(f.bare_segment, bucket,
                            static_cast<int32_t>(static_cast<uint8_t *>(chunk) - f.region->base));
            LumMemLogCpyInt(f.bare_segment, words, static_cast<int32_t>(n + 1));
            chunks.push_back(chunk);
        },
        [&] {
            for (void *chunk : chunks)
                LumMemFree(f.bare_segment, chunk);
            chunks.clear();
            f.Commit();
        });
}
BENCHMARK(BM_BareLoggedWords)->Arg(1)->Arg(100);

void BM_UnorderedMapInsert(benchmark::State &state) {
    std::unordered_map<std::string, std::string> map;
    map.reserve(kBuckets);
    uint32_t n = 0;
    for (auto _ : state) {
        const Item &item = ItemOf(n);
        map.emplace(std::string(item.key.bytes, kKeySize), std::string(item.value, kValueSize));
        if (++n % kRound == 0) {
            state.PauseTiming();
            map.clear();
            state.ResumeTiming();
        }
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_UnorderedMapInsert);

// Keys to look up: those of the full table (hits) or beyond them (misses).
std::vector<Key> LookupKeys(bool hits) {
    std::vector<Key> keys;
    for (uint32_t i = 0; i < kRound; ++i)
        keys.push_back(KeyOf(hits ? (i * 7919) % kRound : kRound + i));
    return keys;
}

void HashFind(benchmark::State &state, bool hits) {
    Fixture &f = Bench();
    std::vector<Key> keys = LookupKeys(hits);
    uint32_t n = 0;
    for (auto _ : state) {
        void *found = LumRegHashFind(f.full_table, &keys[n++ % kRound], 0);
        benchmark::DoNotOptimize(found);
        if ((found != nullptr) != hits)
            abort();
    }
    state.SetItemsProcessed(state.iterations());
}
void BM_HashFindHit(benchmark::State &state) {
    HashFind(state, true);
}
void BM_HashFindMiss(benchmark::State &state) {
    HashFind(state, false);
}
BENCHMARK(BM_HashFindHit);
BENCHMARK(BM_HashFindMiss);

void UnorderedMapFind(benchmark::State &state, bool hits) {
    std::unordered_map<std::string, std::string> map;
    map.reserve(kBuckets);
    for (uint32_t i = 0; i < kRound; ++i) {
        const Item &item = ItemOf(i);
        map.emplace(std::string(item.key.bytes, kKeySize), std::string(item.value, kValueSize));
    }
    std::vector<std::string> keys;
    for (const Key &key : LookupKeys(hits))
        keys.emplace_back(key.bytes, kKeySize);
    uint32_t n = 0;
    for (auto _ : state) {
        auto found = map.find(keys[n++ % kRound]);
        benchmark::DoNotOptimize(found);
        if ((found != map.end()) != hits)
            abort();
    }
    state.SetItemsProcessed(state.iterations());
}
void BM_UnorderedMapFindHit(benchmark::State &state) {
    UnorderedMapFind(state, true);
}
void BM_UnorderedMapFindMiss(benchmark::State &state) {
    UnorderedMapFind(state, false);
}
BENCHMARK(BM_UnorderedMapFindHit);
BENCHMARK(BM_UnorderedMapFindMiss);

// Deletes the oldest inserted item and frees it; each round refills the
// table untimed.
void BM_HashDeleteFree(benchmark::State &state) {
    Fixture &f = Bench();
    std::vector<void *> items;
    auto refill = [&] {
        LumRegHashFlush(f.table, FreeItem, nullptr);
        items.clear();
        for (uint32_t i = 0; i < kRound; ++i)
            items.push_back(Fixture::Put(f.table, ItemOf(i)));
        f.Commit();
    };
    refill();
    CommittedRounds(
        state,
        [&](uint32_t n) {
            void *item = items[n % kRound];
            LumRegHashDelete(f.table, item);
            LumRegHashFree(f.table, item);
        },
        refill);
    LumRegHashFlush(f.table, FreeItem, nullptr);
    f.Commit();
}
BENCHMARK(BM_HashDeleteFree)->Arg(1)->Arg(100);

int32_t FreeNode(LumSegment *segment, void *node, void *) {
    return LumRegListFree(segment, node);
}

void EmptyList(Fixture &f) {
    LumRegListFlush(f.list_segment, f.region->base, f.list, FreeNode, nullptr);
    f.Commit();
}

void *PushNode(Fixture &f, uint32_t n) {
    const Item &item = ItemOf(n);
    void *node = LumRegListAlloc(f.list_segment, f.region->base, sizeof item);
    LumMemLogCpy(f.list_segment, node, &item, sizeof item);
    LumRegListInsertAfter(f.list_segment, f.region->base, f.list, node,
                          LumRegListHead(f.region->base, f.list));
    return node;
}

void BM_ListInsertHead(benchmark::State &state) {
    Fixture &f = Bench();
    CommittedRounds(
        state, [&](uint32_t n) { PushNode(f, n); }, [&] { EmptyList(f); });
}
BENCHMARK(BM_ListInsertHead)->Arg(1)->Arg(100);

void BM_ListDeleteHead(benchmark::State &state) {
    Fixture &f = Bench();
    auto refill = [&] {
        EmptyList(f);
        for (uint32_t i = 0; i < kRound; ++i)
            PushNode(f, i);
        f.Commit();
    };
    refill();
    CommittedRounds(
        state,
        [&](uint32_t) {
            void *node = LumRegListDeleteNext(f.list_segment, f.region->base, f.list,
                                              LumRegListHead(f.region->base, f.list));
            LumRegListFree(f.list_segment, node);
        },
        refill);
    EmptyList(f);
}
BENCHMARK(BM_ListDeleteHead)->Arg(1)->Arg(100);

} // namespace
