// The persistent hash table: chains of link pairs in one segment, with one
// bucket array and one chain per key, found again by its segment id.
//
// Layout in the image (all words 32-bit little-endian, links RegionOffsets):
//   header, the first live chunk of the segment:
//     0 format_version (1)   4 user_version   8 bucket_count
//     12 item_count          16 key_count
//     20 bucket pairs {head, tail}, key by key: key k, bucket b at
//        20 + (k * bucket_count + b) * 8; then one unused pair.
//   item: key_count link pairs {next, prev}, then the host's data. The host
//     holds the address of its data, the item's address + 8 * key_count.
//
// Invariants, kept by insert and delete:
//   1. A link's prev names the word that points to it: the next of the link
//      before it, or the head of its bucket pair, which stands at the same
//      place in a bucket pair as next does in a link pair. So unlinking needs
//      no case for the first link of a chain.
//   2. A bucket's tail is 0 (never used, or flushed), the last link of the
//      chain, or, once deletions emptied the chain, the bucket pair itself.
//      Insert appends behind the word tail names, or behind the bucket
//      pair when tail is 0; all three states give the same chain.
//   3. Every inserted item stands on exactly one chain of every key, so
//      walks, flush and cursors follow key 0 alone and see each item once.
// Every change goes through the logged writes; nothing here commits.
#include <algorithm>
#include <cstring>

#include "alloc/layout.h"
#include "frame/frame.h"

namespace hash_header {
inline constexpr uint32_t kFormatVersion = 0;
inline constexpr uint32_t kUserVersion = 4;
inline constexpr uint32_t kBucketCount = 8;
inline constexpr uint32_t kItemCount = 12;
inline constexpr uint32_t kKeyCount = 16;
inline constexpr uint32_t kBuckets = 20;
inline constexpr uint32_t kPairSize = 8;
inline constexpr uint32_t kVersion = 1;
constexpr uint64_t BucketOffset(uint32_t key, uint32_t bucket, uint32_t bucket_count) {
    return kBuckets + (uint64_t{key} * bucket_count + bucket) * kPairSize;
}
// The header's allocation: fixed fields, the pairs, one unused pair.
constexpr uint64_t Size(uint32_t bucket_count, uint32_t key_count) {
    return BucketOffset(key_count, 0, bucket_count) + kPairSize;
}
static_assert(kKeyCount + 4 == kBuckets);
static_assert(Size(1, 1) == 8 * 1 * 1 + 28 && Size(3, 2) == 8 * 3 * 2 + 28);
} // namespace hash_header

// A link pair of an item, and a bucket pair, which shares its shape.
namespace hash_link {
inline constexpr uint32_t kNext = 0; // head in a bucket pair
inline constexpr uint32_t kPrev = 4; // tail in a bucket pair
inline constexpr uint32_t kSize = 8;
} // namespace hash_link

struct LumRegHash {
    uint8_t *header;
    LumRegion *region;
    LumSegment *segment; // owned
    uint8_t *base;
    uint32_t key_count;
    const LumRegHashKey *keys; // the host's array, not a copy
};

struct LumRegHashCursor {
    LumRegHash *table;
    uint8_t *current;    // link of key 0 returned last; null at first
    RegionOffset next;   // link to return next; 0 when the chain is used up
    uint32_t bucket;     // bucket of key 0 being walked
    uint32_t steps_left; // links the walk may still take (see ChainSteps)
};

namespace {

// A failure of a table's operation, in the log: severity 4, set 102, id 0.
template <typename... Args> void Report(const char *format, Args... args) {
    LumLog(LUM_LOG_FAILURE, 1, region_catalog, kSetContainer, 0, format, args...);
}

uint32_t Word(const uint8_t *at, uint32_t offset) {
    return ImageLoad32(at + offset);
}

void LogWord(LumRegHash *table, uint8_t *at, uint32_t value) {
    LumMemLogCpyInt(table->segment, at, static_cast<int32_t>(value));
}

uint8_t *At(const LumRegHash *table, RegionOffset offset) {
    return table->base + offset;
}

RegionOffset OffsetOf(const LumRegHash *table, const uint8_t *at) {
    return static_cast<RegionOffset>(at - table->base);
}

// Chains are walked without trusting their links: a walk takes at most as
// many steps as the image has room for link pairs, so a cycle ends.
uint32_t ChainSteps(const LumRegHash *table) {
    return table->region->used.load(std::memory_order_relaxed) / hash_link::kSize;
}

// The link at `offset` of a chain being walked: null at the chain's end,
// and null with a report at a link whose item's links do not lie inside the
// image's used bytes or when `*steps_left` is spent.
uint8_t *ChainLink(const LumRegHash *table, RegionOffset offset, uint32_t *steps_left) {
    if (offset == 0)
        return nullptr;
    uint64_t end = uint64_t{offset} + hash_link::kSize * table->key_count;
    if (offset >= FirstExtentOffset() && end <= table->region->used.load() && *steps_left > 0) {
        --*steps_left;
        return At(table, offset);
    }
    Report("Hash table in region \"%s\" has a damaged chain at offset %u: walk ended",
           table->region->name, offset);
    return nullptr;
}

uint32_t BucketCount(const LumRegHash *table) {
    return Word(table->header, hash_header::kBucketCount);
}

uint8_t *BucketPair(const LumRegHash *table, uint32_t key, uint32_t bucket) {
    return table->header + hash_header::BucketOffset(key, bucket, BucketCount(table));
}

// The bucket pair of key `key` for a key or an item, by that key's hash.
uint8_t *BucketFor(LumRegHash *table, uint32_t key, const void *key_or_item) {
    const LumRegHashKey &functions = table->keys[key];
    uint32_t hash = functions.hash(table, key_or_item, functions.hash_argument);
    return BucketPair(table, key, hash % BucketCount(table));
}

uint8_t *ItemOf(const LumRegHash *table, void *item) {
    return static_cast<uint8_t *>(item) - hash_link::kSize * table->key_count;
}

uint8_t *LinkOf(const LumRegHash *table, void *item, uint32_t key) {
    return ItemOf(table, item) + hash_link::kSize * key;
}

// The host's item whose link of key `key` stands at `link`.
void *ItemAtLink(const LumRegHash *table, uint8_t *link, uint32_t key) {
    return link + hash_link::kSize * (table->key_count - key);
}

// Whether every key has both functions; reports it for `operation` if not.
bool KeysAreWhole(const char *operation, const LumRegHashKey *keys, uint32_t key_count) {
    bool whole = keys != nullptr;
    for (uint32_t k = 0; whole && k < key_count; ++k)
        whole = keys[k].hash != nullptr && keys[k].compare != nullptr;
    if (whole)
        return true;
    Report("%s: Hash and comparison functions must be specified.", operation);
    return false;
}

// A cleared handle for `keys`, or null with the report of `operation`.
LumRegHash *NewHandle(const char *operation, LumRegion *region, const LumRegHashKey *keys,
                      uint32_t key_count) {
    auto *table = static_cast<LumRegHash *>(lum_malloc(sizeof(LumRegHash)));
    if (table == nullptr) {
        Report("%s: Failed to allocate volatile space.", operation);
        return nullptr;
    }
    lum_bzero(table, sizeof *table);
    table->region = region;
    table->key_count = key_count;
    table->keys = keys;
    return table;
}

void Attach(LumRegHash *table, LumSegment *segment, void *header) {
    table->segment = segment;
    table->base = segment->region->base;
    table->header = static_cast<uint8_t *>(header);
}

// Allocates and logs the header of a new table with plain stores.
int32_t MakeHeader(LumRegHash *table, uint32_t bucket_count, void **header) {
    uint64_t size = hash_header::Size(bucket_count, table->key_count);
    // A size beyond 32 bits is one that the allocator refuses.
    int32_t code = LumMemAlloc(table->segment, size > UINT32_MAX ? UINT32_MAX : size, header);
    if (code != 0)
        return code;
    auto *at = static_cast<uint8_t *>(*header);
    memset(at, 0, LumMemGetSize(at));
    ImageStore32(at + hash_header::kFormatVersion, hash_header::kVersion);
    ImageStore32(at + hash_header::kBucketCount, bucket_count);
    ImageStore32(at + hash_header::kKeyCount, table->key_count);
    LumMemLog(table->segment, at);
    return 0;
}

// The first live chunk of the table's segment, or null with a report.
void *FindHeader(LumRegHash *table) {
    LumSegmentScan *scan = nullptr;
    int32_t code = LumSegmentScanBegin(table->segment, &scan);
    if (code != 0) {
        Report("%s: Segment Scan Begin failed. %s", "LumRegHashOpen", LumRCToString(code));
        return nullptr;
    }
    void *header = nullptr;
    code = LumSegmentScanNext(scan, &header);
    LumSegmentScanEnd(scan);
    if (code != 0)
        Report("%s: LumSegmentScanNext failed. %s", "LumRegHashOpen", LumRCToString(code));
    return header;
}

// Whether the chunk at `header` holds a table of the handle's key count
// whose bucket arrays fit inside it; reports why not.
bool HeaderFits(const LumRegHash *table, uint32_t segment_id, const uint8_t *header) {
    const char *name = table->region->name;
    uint32_t version = Word(header, hash_header::kFormatVersion);
    if (version != hash_header::kVersion) {
        Report("Hash table %d in region \"%s\" has wrong version number (%d != %d)", segment_id,
               name, version, hash_header::kVersion);
        return false;
    }
    // Every chunk holds at least the version word; the other fixed fields
    // are read only from a chunk that holds them.
    uint32_t chunk = LumMemGetSize(const_cast<uint8_t *>(header));
    bool fixed_fields = chunk >= hash_header::kBuckets;
    uint32_t keys = fixed_fields ? Word(header, hash_header::kKeyCount) : 0;
    uint32_t buckets = fixed_fields ? Word(header, hash_header::kBucketCount) : 0;
    if (fixed_fields && keys != table->key_count) {
        Report("Hash table %d in region \"%s\" has %d keys, not %d", segment_id, name, keys,
               table->key_count);
        return false;
    }
    if (buckets != 0 && hash_header::BucketOffset(keys, 0, buckets) <= chunk)
        return true;
    Report("Hash table %d in region \"%s\" has %d buckets of %d keys in a chunk of %d bytes",
           segment_id, name, buckets, keys, chunk);
    return false;
}

// Follows the chain of `key_index` from `offset` to the first item that
// `compare` accepts for `key`.
void *Search(LumRegHash *table, const void *key, uint32_t key_index, RegionOffset offset) {
    const LumRegHashKey &functions = table->keys[key_index];
    uint32_t steps = ChainSteps(table);
    for (uint8_t *link = ChainLink(table, offset, &steps); link != nullptr;
         link = ChainLink(table, Word(link, hash_link::kNext), &steps)) {
        void *candidate = ItemAtLink(table, link, key_index);
        if (functions.compare(table, key, candidate, functions.compare_argument) == 0)
            return candidate;
    }
    return nullptr;
}

// Calls `visit` on the chain from `offset` until it asks to stop.
void WalkChain(LumRegHash *table, RegionOffset offset, LumRegHashVisit visit, void *argument) {
    uint32_t steps = ChainSteps(table);
    for (uint8_t *link = ChainLink(table, offset, &steps); link != nullptr;
         link = ChainLink(table, Word(link, hash_link::kNext), &steps))
        if (visit(ItemAtLink(table, link, 0), argument) != 0)
            return;
}

struct SortContext {
    LumRegHash *table;
    LumRegHashOrder order;
    void *argument;
};

int CompareLinks(const void *a, const void *b, void *context) {
    auto *sort = static_cast<SortContext *>(context);
    auto item = [&](const void *element) {
        return ItemAtLink(sort->table,
                          At(sort->table, ImageLoad32(static_cast<const uint8_t *>(element))), 0);
    };
    return sort->order(sort->table, item(a), item(b), sort->argument);
}

// The sorted walk: the links of key 0 in an array, sorted, visited until
// a visit asks to stop. 12 when the array cannot be had.
int32_t WalkSorted(LumRegHash *table, uint32_t items, LumRegHashVisit visit, void *argument,
                   LumRegHashOrder order, void *order_argument) {
    auto *links = static_cast<RegionOffset *>(lum_malloc(sizeof(RegionOffset) * size_t{items}));
    if (links == nullptr)
        return LUM_RC_NO_MEMORY;
    uint32_t filled = 0;
    uint32_t steps = ChainSteps(table);
    for (uint32_t b = 0; b < BucketCount(table) && filled < items; ++b)
        for (uint8_t *link =
                 ChainLink(table, Word(BucketPair(table, 0, b), hash_link::kNext), &steps);
             link != nullptr && filled < items;
             link = ChainLink(table, Word(link, hash_link::kNext), &steps))
            links[filled++] = OffsetOf(table, link);
    SortContext context{table, order, order_argument};
    lum_qsort(links, filled, sizeof(RegionOffset), CompareLinks, &context);
    for (uint32_t i = 0; i < filled; ++i)
        if (visit(ItemAtLink(table, At(table, links[i]), 0), argument) != 0)
            break;
    lum_free(links);
    return 0;
}

} // namespace

LumRegHash *LumRegHashCreate(LumRegion *region, const LumRegHashConfig *config,
                             uint32_t bucket_count, const LumRegHashKey *keys, uint32_t key_count) {
    const char *operation = "LumRegHashCreate";
    if (bucket_count == 0 || key_count == 0) {
        Report("%s: Bucket and key counts must be at least 1.", operation);
        return nullptr;
    }
    // A missing config is refused with the keys: both are the caller's setup.
    if (!KeysAreWhole(operation, config != nullptr ? keys : nullptr, key_count))
        return nullptr;
    LumRegHash *table = NewHandle(operation, region, keys, key_count);
    if (table == nullptr)
        return nullptr;
    LumSegment *segment = nullptr;
    int32_t code = LumSegmentCreate(region, config->primary_size, config->secondary_size,
                                    config->growth_percent, config->maximum_size, &segment);
    if (code != 0) {
        Report("%s: Failed to create segment.  %s", operation, LumRCToString(code));
        lum_free(table);
        return nullptr;
    }
    table->segment = segment;
    void *header = nullptr;
    code = MakeHeader(table, bucket_count, &header);
    if (code != 0) {
        Report("%s: Failed to allocate space for persistent store. %s", operation,
               LumRCToString(code));
        LumSegmentDrop(segment);
        lum_free(table);
        return nullptr;
    }
    Attach(table, segment, header);
    return table;
}

LumRegHash *LumRegHashOpen(LumRegion *region, uint32_t segment_id, const LumRegHashKey *keys,
                           uint32_t key_count) {
    const char *operation = "LumRegHashOpen";
    if (!KeysAreWhole(operation, keys, key_count))
        return nullptr;
    LumRegHash *table = NewHandle(operation, region, keys, key_count);
    if (table == nullptr)
        return nullptr;
    LumSegment *segment = nullptr;
    int32_t code = LumSegmentOpen(region, segment_id, &segment);
    if (code != 0) {
        Report("%s: Failed to open segment. %s", operation, LumRCToString(code));
        lum_free(table);
        return nullptr;
    }
    table->segment = segment;
    auto *header = static_cast<uint8_t *>(FindHeader(table));
    if (header == nullptr || !HeaderFits(table, segment_id, header)) {
        LumSegmentClose(segment);
        lum_free(table);
        return nullptr;
    }
    Attach(table, segment, header);
    return table;
}

void LumRegHashClose(LumRegHash *table) {
    if (table == nullptr)
        return;
    LumSegmentClose(table->segment);
    lum_free(table);
}

void LumRegHashFlush(LumRegHash *table, LumRegHashItemCallback callback, void *argument) {
    if (table == nullptr)
        return;
    uint32_t steps = ChainSteps(table);
    for (uint32_t b = 0; b < BucketCount(table); ++b) {
        uint8_t *link = ChainLink(table, Word(BucketPair(table, 0, b), hash_link::kNext), &steps);
        while (link != nullptr) {
            uint8_t *next = ChainLink(table, Word(link, hash_link::kNext), &steps); // before a free
            if (callback != nullptr)
                callback(table, ItemAtLink(table, link, 0), argument);
            link = next;
        }
    }
    LogWord(table, table->header + hash_header::kItemCount, 0);
    LumMemLogSet(table->segment, table->header + hash_header::kBuckets, 0,
                 hash_link::kSize * BucketCount(table) * table->key_count);
}

void LumRegHashDestroy(LumRegHash *table, LumRegHashItemCallback callback, void *argument) {
    if (table == nullptr)
        return;
    LumRegHashFlush(table, callback, argument);
    LumMemFree(table->segment, table->header);
    LumSegmentDrop(table->segment);
    lum_free(table);
}

void *LumRegHashAlloc(LumRegHash *table, uint32_t size) {
    if (table == nullptr)
        return nullptr;
    uint64_t whole = uint64_t{size} + hash_link::kSize * table->key_count;
    void *chunk = nullptr;
    int32_t code = LumMemAlloc(table->segment, whole > UINT32_MAX ? UINT32_MAX : whole, &chunk);
    if (code != 0) {
        const char *text = LumRCToString(code);
        LumValue value{
            LUM_VALUE_STRING, 0, {.string = {text, static_cast<uint32_t>(strlen(text))}}};
        LumThreadExceptionRaise(LumThreadGetID(), "RegionHash", region_catalog, kSetContainer, 0,
                                "Failed to allocate persistent hash table entry", &value, __FILE__,
                                __LINE__, "LumRegHashAlloc");
        return nullptr;
    }
    LumMemLog(table->segment, chunk);
    return static_cast<uint8_t *>(chunk) + hash_link::kSize * table->key_count;
}

void LumRegHashFree(LumRegHash *table, void *item) {
    if (table == nullptr || item == nullptr)
        return;
    int32_t code = LumMemFree(table->segment, ItemOf(table, item));
    if (code != 0)
        Report("%s: Failed to free the hash table entry. %s", "LumRegHashFree",
               LumRCToString(code));
}

void LumRegHashInsert(LumRegHash *table, void *item) {
    if (table == nullptr || item == nullptr)
        return;
    for (uint32_t k = 0; k < table->key_count; ++k) {
        uint8_t *link = LinkOf(table, item, k);
        uint8_t *bucket = BucketFor(table, k, item);
        RegionOffset tail = Word(bucket, hash_link::kPrev);
        RegionOffset predecessor = tail != 0 ? tail : OffsetOf(table, bucket);
        LogWord(table, link + hash_link::kNext, 0);
        LogWord(table, link + hash_link::kPrev, predecessor);
        LogWord(table, At(table, predecessor) + hash_link::kNext, OffsetOf(table, link));
        LogWord(table, bucket + hash_link::kPrev, OffsetOf(table, link));
    }
    uint8_t *count = table->header + hash_header::kItemCount;
    LogWord(table, count, Word(count, 0) + 1);
}

void LumRegHashDelete(LumRegHash *table, void *item) {
    if (table == nullptr || item == nullptr)
        return;
    uint8_t *count = table->header + hash_header::kItemCount;
    LogWord(table, count, Word(count, 0) - 1);
    for (uint32_t k = 0; k < table->key_count; ++k) {
        uint8_t *link = LinkOf(table, item, k);
        RegionOffset next = Word(link, hash_link::kNext);
        RegionOffset prev = Word(link, hash_link::kPrev);
        LogWord(table, At(table, prev) + hash_link::kNext, next);
        if (next != 0)
            LogWord(table, At(table, next) + hash_link::kPrev, prev);
        else
            LogWord(table, BucketFor(table, k, item) + hash_link::kPrev, prev);
    }
}

void *LumRegHashFind(LumRegHash *table, const void *key, uint32_t key_index) {
    if (table == nullptr || key_index >= table->key_count)
        return nullptr;
    uint8_t *bucket = BucketFor(table, key_index, key);
    return Search(table, key, key_index, Word(bucket, hash_link::kNext));
}

void *LumRegHashNext(LumRegHash *table, void *item, uint32_t key_index) {
    if (table == nullptr || item == nullptr || key_index >= table->key_count)
        return nullptr;
    return Search(table, item, key_index, Word(LinkOf(table, item, key_index), hash_link::kNext));
}

int32_t LumRegHashWalk(LumRegHash *table, LumRegHashVisit visit, void *argument, int32_t sorted,
                       LumRegHashOrder order, void *order_argument) {
    if (table == nullptr || visit == nullptr || (sorted != 0 && order == nullptr))
        return LUM_RC_FAILURE;
    uint32_t items = Word(table->header, hash_header::kItemCount);
    if (items == 0)
        return 0;
    // The header's count sizes the sorted walk's memory, so it is not trusted
    // beyond the image's room for items: one link pair per key each.
    items = std::min(items, ChainSteps(table) / table->key_count);
    if (sorted != 0)
        return WalkSorted(table, items, visit, argument, order, order_argument);
    for (uint32_t b = 0; b < BucketCount(table); ++b)
        WalkChain(table, Word(BucketPair(table, 0, b), hash_link::kNext), visit, argument);
    return 0;
}

uint32_t LumRegHashNumItems(LumRegHash *table) {
    return table == nullptr ? 0 : Word(table->header, hash_header::kItemCount);
}

LumSegment *LumRegHashSegment(LumRegHash *table) {
    return table == nullptr ? nullptr : table->segment;
}

uint32_t LumRegHashGetVersion(LumRegHash *table) {
    return table == nullptr ? 0 : Word(table->header, hash_header::kUserVersion);
}

void LumRegHashSetVersion(LumRegHash *table, uint32_t version) {
    if (table != nullptr)
        LogWord(table, table->header + hash_header::kUserVersion, version);
}

LumRegHashCursor *LumRegHashCursorOpen(LumRegHash *table) {
    if (table == nullptr)
        return nullptr;
    auto *cursor = static_cast<LumRegHashCursor *>(lum_malloc(sizeof(LumRegHashCursor)));
    if (cursor == nullptr) {
        Report("%s: Failed to allocate memory for cursor. %s", "LumRegHashCursorOpen",
               LumRCToString(LUM_RC_NO_MEMORY));
        return nullptr;
    }
    *cursor = {table, nullptr, Word(BucketPair(table, 0, 0), hash_link::kNext), 0,
               ChainSteps(table)};
    return cursor;
}

void *LumRegHashCursorNext(LumRegHashCursor *cursor) {
    if (cursor == nullptr)
        return nullptr;
    LumRegHash *table = cursor->table;
    while (cursor->next == 0) {
        if (cursor->bucket + 1 >= BucketCount(table)) {
            cursor->bucket = BucketCount(table);
            return nullptr;
        }
        cursor->next = Word(BucketPair(table, 0, ++cursor->bucket), hash_link::kNext);
    }
    cursor->current = ChainLink(table, cursor->next, &cursor->steps_left);
    if (cursor->current == nullptr) { // damaged: the walk ends here
        cursor->bucket = BucketCount(table);
        cursor->next = 0;
        return nullptr;
    }
    cursor->next = Word(cursor->current, hash_link::kNext);
    return ItemAtLink(table, cursor->current, 0);
}

void LumRegHashCursorClose(LumRegHashCursor *cursor) {
    lum_free(cursor);
}
