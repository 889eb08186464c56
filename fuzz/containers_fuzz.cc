// The containers on any image: the input becomes the image of a scratch
// region. Each segment is opened as a hash table of one or two keys, and
// find, the cursor and both walks run over it; each of its first chunks is
// taken for a list header, walked both ways, indexed, cut and flushed.
// None may loop or read or write outside the image, whatever its links say.
#include <cstring>
#include <vector>

#include "fuzz_support.h"

namespace {

uint32_t HashWord(LumRegHash *, const void *item, void *) {
    uint32_t word;
    memcpy(&word, item, sizeof word);
    return word;
}
int32_t CompareWord(LumRegHash *, const void *key, const void *item, void *) {
    return memcmp(key, item, 4);
}
int32_t VisitAll(void *, void *) {
    return 0;
}
int32_t Order(LumRegHash *, const void *a, const void *b, void *) {
    return memcmp(a, b, 4);
}

const LumRegHashKey kKeys[2] = {{HashWord, nullptr, CompareWord, nullptr},
                                {HashWord, nullptr, CompareWord, nullptr}};

void WalkTable(LumRegHash *table) {
    uint32_t key = 0x12345678;
    LumRegHashFind(table, &key, 0);
    LumRegHashWalk(table, VisitAll, nullptr, 0, nullptr, nullptr);
    LumRegHashWalk(table, VisitAll, nullptr, 1, Order, nullptr);
    if (LumRegHashCursor *cursor = LumRegHashCursorOpen(table)) {
        while (LumRegHashCursorNext(cursor) != nullptr) {
        }
        LumRegHashCursorClose(cursor);
    }
}

// A host's walks of a list, bounded by the host as a host would bound them
// (Next and Prev take one step each and cannot know a circle).
void WalkList(LumSegment *segment, uint8_t *base, LumRegList *list) {
    LumRegListNth(base, list, static_cast<int32_t>(LumRegListNumItems(list) / 2));
    uint32_t steps = 0;
    for (void *node = LumRegListFirst(base, list); node != nullptr && steps < 4096;
         node = LumRegListNext(base, node))
        ++steps;
    for (void *node = LumRegListLast(base, list); node != nullptr && steps < 8192;
         node = LumRegListPrev(base, node))
        ++steps;
    LumRegListDeleteNext(segment, base, list, LumRegListHead(base, list));
    LumRegListFlush(segment, base, list, nullptr, nullptr);
}

// The scan ends before the walks begin: their writes may land on any tag.
void WalkLists(LumRegion *region, uint32_t id) {
    LumSegment *segment;
    LumSegmentScan *scan;
    if (LumSegmentOpen(region, id, &segment) != 0)
        return;
    std::vector<LumRegList *> lists;
    if (LumSegmentScanBegin(segment, &scan) == 0) {
        void *chunk;
        while (lists.size() < 4 && LumSegmentScanNext(scan, &chunk) == 0)
            if (LumMemGetSize(chunk) >= 28)
                lists.push_back(static_cast<LumRegList *>(chunk));
        LumSegmentScanEnd(scan);
    }
    for (LumRegList *list : lists)
        WalkList(segment, region->base, list);
    LumSegmentClose(segment);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    FuzzStart();
    LumRegion *region = RegionHolding(data, size);
    if (region == nullptr)
        return 0;
    if (LumRegionVerify(region) == 0) { // the allocator's own walks need a sound image
        for (uint32_t id = 0; id < 4; ++id)
            for (uint32_t keys = 1; keys <= 2; ++keys)
                if (LumRegHash *table = LumRegHashOpen(region, id, kKeys, keys)) {
                    WalkTable(table);
                    LumRegHashClose(table);
                }
        for (uint32_t id = 0; id < 4; ++id)
            WalkLists(region, id);
    }
    LumRegionClose(region);
    return 0;
}
