// The hash table on any image: the input becomes the image of a scratch
// region, each segment is opened as a table of one or two keys, and find,
// the cursor and both walks run over it. None may loop or read outside the
// image, whatever its chains say.
#include <cstring>

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
    }
    LumRegionClose(region);
    return 0;
}
