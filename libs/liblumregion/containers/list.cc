// The persistent list: a doubly linked list with two sentinels, whose
// header and nodes are chunks of a caller's segment. A list owns no segment
// and has no handle; each call takes the `base` from which its links are
// offsets. The image's base makes them RegionOffsets, so that the list is
// found again after a restart at any address; any other base works as long
// as every call on the list passes the same one.
//
// Layout of the 28-byte header (all words unsigned 32-bit little-endian):
//    0 count      nodes on the list
//    4 head       offset of the head sentinel: the header's address + 12 - base
//    8 tail       offset of the tail sentinel: the header's address + 20 - base
//   12 head_next  the head sentinel's next: the first node, or tail
//   16 head_prev  the head sentinel's prev: always head
//   20 tail_next  the tail sentinel's next: always tail
//   24 tail_prev  the tail sentinel's prev: the last node, or head
// A node: next at 0, prev at 4, the caller's data from 8. Callers hold
// the address of the data, the user pointer; the sentinels' user pointers
// are the positions LumRegListHead and LumRegListTail give.
//
// Invariants: a link whose next (or prev) leads to itself ends the list in
// that direction: the two sentinels' outer words do so for good, and a node
// on no list is self-linked both ways (as LumRegListAlloc makes it and the
// delete operations and the flush leave it). So Next and Prev need no
// special case for the ends, nor for a node that was taken out.
//
// A new header or node is filled with plain stores and logged whole by
// LumMemLog; every later change is one LumMemLogCpyInt per word, in the
// order the log records get, so a word that already holds its value costs
// no record. Nothing here commits or takes a lock, and a position on no
// list or a node inserted twice damages the list. But no link is trusted:
// every pointer an operation reads or writes through must lie in the used
// bytes of the image that holds it, from the first extent on, and walks
// take at most as many steps as the image has room for links. A link that
// leads elsewhere is reported and ends the operation before it changes a
// word, so a damaged image costs a report, never a stray read or write.
#include <cstring>

#include "alloc/layout.h"
#include "frame/frame.h"
#include "region/region.h"

namespace list_header {
inline constexpr uint32_t kCount = 0;
inline constexpr uint32_t kHead = 4;
inline constexpr uint32_t kTail = 8;
inline constexpr uint32_t kHeadLink = 12; // the head sentinel: head_next, head_prev
inline constexpr uint32_t kTailLink = 20; // the tail sentinel: tail_next, tail_prev
inline constexpr uint32_t kSize = 28;
} // namespace list_header

namespace list_link {
inline constexpr uint32_t kNext = 0;
inline constexpr uint32_t kPrev = 4;
inline constexpr uint32_t kData = 8; // the user pointer of a node, and the size of a link
static_assert(list_header::kHeadLink + kData == list_header::kTailLink);
static_assert(list_header::kTailLink + kData == list_header::kSize);

constexpr uint32_t Opposite(uint32_t word) {
    return word == kNext ? kPrev : kNext;
}
} // namespace list_link

namespace {

constexpr uint32_t kListReportId = 0;

template <typename... Args> void Report(const char *format, Args... args) {
    LumLog(LUM_LOG_FAILURE, 1, region_catalog, kSetContainer, kListReportId, format, args...);
}

uint8_t *Bytes(void *pointer) {
    return static_cast<uint8_t *>(pointer);
}
uint8_t *Bytes(LumRegList *list) {
    return reinterpret_cast<uint8_t *>(list);
}

RegionOffset OffsetFrom(void *base, const uint8_t *link) {
    return static_cast<RegionOffset>(link - Bytes(base));
}

// The link of a node or sentinel from its user pointer, and back.
uint8_t *LinkOf(void *user) {
    return Bytes(user) - list_link::kData;
}
void *UserOf(uint8_t *link) {
    return link + list_link::kData;
}

// The bytes an operation may read or write: the used part of the image of
// `region` behind its region header. Addresses are compared as integers,
// since a damaged link may point anywhere.
struct ListImage {
    const LumRegion *region; // null: the list is in no open region
    uintptr_t first;
    uintptr_t end;

    bool Holds(const void *at, uint32_t size) const {
        auto address = reinterpret_cast<uintptr_t>(at);
        return address >= first && address <= end && end - address >= size;
    }
    // Links a walk may take before it must have come round: one per link's
    // worth of the image.
    uint32_t Steps() const { return static_cast<uint32_t>((end - first) / list_link::kData); }
};

ListImage ImageOf(const LumRegion *region) {
    if (region == nullptr)
        return {nullptr, 1, 0};
    auto base = reinterpret_cast<uintptr_t>(region->base);
    return {region, base + FirstExtentOffset(),
            base + region->used.load(std::memory_order_relaxed)};
}

// Reports for `operation` a link at `at` that the list may not use.
void ReportDamage(const ListImage &image, const void *at, const char *operation) {
    if (image.region == nullptr) {
        Report("%s: List is in no open region.", operation);
        return;
    }
    auto offset = reinterpret_cast<uintptr_t>(at) - reinterpret_cast<uintptr_t>(image.region->base);
    Report("%s: List in region \"%s\" has a damaged link at offset %u.", operation,
           image.region->name, static_cast<uint32_t>(offset));
}

// `at` itself when its `size` bytes lie in `image`; else null, reported.
template <typename T>
T *Checked(const ListImage &image, T *at, uint32_t size, const char *operation) {
    if (image.Holds(at, size))
        return at;
    ReportDamage(image, at, operation);
    return nullptr;
}

// The link that the word at `word` (list_link::kNext or kPrev) of `link`
// leads to, or null when it leads out of `image`.
uint8_t *Follow(const ListImage &image, void *base, const uint8_t *link, uint32_t word,
                const char *operation) {
    return Checked(image, Bytes(base) + ImageLoad32(link + word), list_link::kData, operation);
}

void WriteWord(LumSegment *segment, uint8_t *at, uint32_t value) {
    LumMemLogCpyInt(segment, at, static_cast<int32_t>(value));
}

void SetLink(LumSegment *segment, void *base, uint8_t *link, uint32_t word, const uint8_t *to) {
    WriteWord(segment, link + word, OffsetFrom(base, to));
}

// Takes `link` off every list: next, then prev, lead to itself.
void SelfLink(LumSegment *segment, void *base, uint8_t *link) {
    SetLink(segment, base, link, list_link::kNext, link);
    SetLink(segment, base, link, list_link::kPrev, link);
}

void AddToCount(LumSegment *segment, LumRegList *list, int32_t delta) {
    uint8_t *count = Bytes(list) + list_header::kCount;
    WriteWord(segment, count, ImageLoad32(count) + static_cast<uint32_t>(delta));
}

// The image of an operation that changes `list` through `segment`, with the
// list's header checked; a null header when it does not lie in the image.
ListImage ChangeImage(LumSegment *segment, LumRegList **list, const char *operation) {
    ListImage image = ImageOf(segment == nullptr ? nullptr : segment->region);
    *list = Checked(image, *list, list_header::kSize, operation);
    return image;
}

// Puts the node of `added` beside `near`, on the side its word `toward`
// leads to, after checking every link it will write: first the word
// `toward` of both, then the word back of both.
void InsertBeside(LumSegment *segment, void *base, LumRegList *list, void *node, void *position,
                  uint32_t toward, const char *operation) {
    if (list == nullptr || node == nullptr || position == nullptr)
        return;
    ListImage image = ChangeImage(segment, &list, operation);
    uint8_t *added = Checked(image, LinkOf(node), list_link::kData, operation);
    uint8_t *near = Checked(image, LinkOf(position), list_link::kData, operation);
    uint8_t *far = near == nullptr ? nullptr : Follow(image, base, near, toward, operation);
    if (list == nullptr || added == nullptr || far == nullptr)
        return;
    uint32_t back = list_link::Opposite(toward);
    SetLink(segment, base, added, toward, far);
    SetLink(segment, base, near, toward, added);
    SetLink(segment, base, added, back, near);
    SetLink(segment, base, far, back, added);
    AddToCount(segment, list, 1);
}

// Takes `taken` from between `before` and `after`.
void Unlink(LumSegment *segment, void *base, LumRegList *list, uint8_t *before, uint8_t *taken,
            uint8_t *after) {
    SetLink(segment, base, before, list_link::kNext, after);
    SelfLink(segment, base, taken);
    SetLink(segment, base, after, list_link::kPrev, before);
    AddToCount(segment, list, -1);
}

// The user pointer of the link that the word `word` of `node`'s link leads
// to, or null at the end of the list in that direction or at a damaged link.
void *Step(void *base, void *node, uint32_t word, const char *operation) {
    if (node == nullptr)
        return nullptr;
    ListImage image = ImageOf(_LumRegionHolding(node));
    uint8_t *link = Checked(image, LinkOf(node), list_link::kData, operation);
    uint8_t *to = link == nullptr ? nullptr : Follow(image, base, link, word, operation);
    if (to == nullptr || Bytes(base) + ImageLoad32(to + word) == to)
        return nullptr;
    return UserOf(to);
}

// `list` when its header lies in the image that holds it, else null.
LumRegList *ReadableList(LumRegList *list, ListImage *image, const char *operation) {
    if (list == nullptr)
        return nullptr;
    *image = ImageOf(_LumRegionHolding(list));
    return Checked(*image, list, list_header::kSize, operation);
}

// The user pointer of the sentinel whose offset the header keeps at
// `word`: the position before the first or behind the last node.
void *Sentinel(void *base, LumRegList *list, uint32_t word, const char *operation) {
    ListImage image;
    if (ReadableList(list, &image, operation) == nullptr)
        return nullptr;
    uint8_t *link =
        Checked(image, Bytes(base) + ImageLoad32(Bytes(list) + word), list_link::kData, operation);
    return link == nullptr ? nullptr : UserOf(link);
}

} // namespace

LumRegList *LumRegListCreate(LumSegment *segment, void *base) {
    void *list = nullptr;
    int32_t rc = LumMemAlloc(segment, list_header::kSize, &list);
    if (rc != 0) {
        LumLog(LUM_LOG_FAILURE, 1, region_catalog, kSetContainer, kListReportId,
               "%s: Failed to allocate memory for region list. %s", "LumRegListCreate",
               LumRCToString(rc));
        return nullptr;
    }
    uint8_t *header = Bytes(list);
    RegionOffset head = OffsetFrom(base, header + list_header::kHeadLink);
    RegionOffset tail = OffsetFrom(base, header + list_header::kTailLink);
    ImageStore32(header + list_header::kCount, 0);
    ImageStore32(header + list_header::kHead, head);
    ImageStore32(header + list_header::kTail, tail);
    ImageStore32(header + list_header::kHeadLink + list_link::kNext, tail);
    ImageStore32(header + list_header::kHeadLink + list_link::kPrev, head);
    ImageStore32(header + list_header::kTailLink + list_link::kNext, tail);
    ImageStore32(header + list_header::kTailLink + list_link::kPrev, head);
    LumMemLog(segment, list);
    return reinterpret_cast<LumRegList *>(list);
}

void *LumRegListAlloc(LumSegment *segment, void *base, uint32_t size) {
    void *chunk = nullptr;
    // A size that would wrap with the links is refused as the allocator
    // refuses one beyond its largest request.
    int32_t rc = size > UINT32_MAX - list_link::kData
                     ? LUM_RC_FAILURE
                     : LumMemAlloc(segment, size + list_link::kData, &chunk);
    if (rc != 0) {
        const char *reason = LumRCToString(rc);
        LumValue value{};
        value.type = LUM_VALUE_STRING;
        value.value.string.text = reason;
        value.value.string.length = static_cast<uint32_t>(strlen(reason));
        LumThreadExceptionRaise(LumThreadGetID(), "RegionList", region_catalog, kSetContainer,
                                kListReportId, "Failed to allocate persistent list entry", &value,
                                nullptr, 0, "LumRegListAlloc");
        return nullptr;
    }
    uint8_t *link = Bytes(chunk);
    ImageStore32(link + list_link::kNext, OffsetFrom(base, link));
    ImageStore32(link + list_link::kPrev, OffsetFrom(base, link));
    LumMemLog(segment, chunk);
    return UserOf(link);
}

int32_t LumRegListFree(LumSegment *segment, void *node) {
    if (node == nullptr)
        return LUM_RC_FAILURE;
    return LumMemFree(segment, LinkOf(node));
}

void LumRegListInsertAfter(LumSegment *segment, void *base, LumRegList *list, void *node,
                           void *position) {
    InsertBeside(segment, base, list, node, position, list_link::kNext, "LumRegListInsertAfter");
}

void LumRegListInsertBefore(LumSegment *segment, void *base, LumRegList *list, void *node,
                            void *position) {
    InsertBeside(segment, base, list, node, position, list_link::kPrev, "LumRegListInsertBefore");
}

void LumRegListDelete(LumSegment *segment, void *base, LumRegList *list, void *node) {
    const char *operation = "LumRegListDelete";
    if (list == nullptr || node == nullptr)
        return;
    ListImage image = ChangeImage(segment, &list, operation);
    uint8_t *taken = Checked(image, LinkOf(node), list_link::kData, operation);
    if (list == nullptr || taken == nullptr)
        return;
    uint8_t *after = Follow(image, base, taken, list_link::kNext, operation);
    uint8_t *before = Follow(image, base, taken, list_link::kPrev, operation);
    if (after != nullptr && before != nullptr)
        Unlink(segment, base, list, before, taken, after);
}

void *LumRegListDeleteNext(LumSegment *segment, void *base, LumRegList *list, void *position) {
    const char *operation = "LumRegListDeleteNext";
    if (list == nullptr || position == nullptr)
        return nullptr;
    ListImage image = ChangeImage(segment, &list, operation);
    uint8_t *before = Checked(image, LinkOf(position), list_link::kData, operation);
    if (list == nullptr || before == nullptr)
        return nullptr;
    uint8_t *taken = Follow(image, base, before, list_link::kNext, operation);
    uint8_t *after =
        taken == nullptr ? nullptr : Follow(image, base, taken, list_link::kNext, operation);
    // Behind the last node stands the tail sentinel, which leads to itself:
    // it is never taken out (nor is a position on no list).
    if (after == nullptr || after == taken)
        return nullptr;
    Unlink(segment, base, list, before, taken, after);
    return UserOf(taken);
}

// Takes every node off `list`, in order, and empties the header. A damaged
// link or a walk that does not come round ends it early: the nodes not yet
// taken stay as they are, off the emptied list. False when the header does
// not lie in the image.
static bool Flush(LumSegment *segment, void *base, LumRegList *list, LumRegListCallback callback,
                  void *argument, const char *operation) {
    ListImage image = ChangeImage(segment, &list, operation);
    if (list == nullptr)
        return false;
    uint8_t *header = Bytes(list);
    uint8_t *tail = header + list_header::kTailLink;
    uint8_t *link =
        Follow(image, base, header + list_header::kHeadLink, list_link::kNext, operation);
    for (uint32_t steps = image.Steps(); link != nullptr && link != tail; --steps) {
        uint8_t *node = link;
        link = Follow(image, base, node, list_link::kNext, operation);
        if (link == node || steps == 0) { // a node off any list, or a cycle
            ReportDamage(image, node, operation);
            link = nullptr;
        }
        SelfLink(segment, base, node);
        // The node leads nowhere now and the walk has left it: the
        // callback may free it.
        if (callback != nullptr)
            callback(segment, UserOf(node), argument);
    }
    WriteWord(segment, header + list_header::kHeadLink + list_link::kNext,
              OffsetFrom(base, header + list_header::kTailLink));
    WriteWord(segment, header + list_header::kTailLink + list_link::kPrev,
              OffsetFrom(base, header + list_header::kHeadLink));
    WriteWord(segment, header + list_header::kCount, 0);
    return true;
}

void LumRegListFlush(LumSegment *segment, void *base, LumRegList *list, LumRegListCallback callback,
                     void *argument) {
    if (list != nullptr)
        Flush(segment, base, list, callback, argument, "LumRegListFlush");
}

int32_t LumRegListDestroy(LumSegment *segment, void *base, LumRegList *list,
                          LumRegListCallback callback, void *argument) {
    if (list == nullptr || !Flush(segment, base, list, callback, argument, "LumRegListDestroy"))
        return LUM_RC_FAILURE;
    return LumMemFree(segment, list);
}

void *LumRegListFirst(void *base, LumRegList *list) {
    return Step(base, Sentinel(base, list, list_header::kHead, "LumRegListFirst"), list_link::kNext,
                "LumRegListFirst");
}

void *LumRegListLast(void *base, LumRegList *list) {
    return Step(base, Sentinel(base, list, list_header::kTail, "LumRegListLast"), list_link::kPrev,
                "LumRegListLast");
}

void *LumRegListHead(void *base, LumRegList *list) {
    return Sentinel(base, list, list_header::kHead, "LumRegListHead");
}

void *LumRegListTail(void *base, LumRegList *list) {
    return Sentinel(base, list, list_header::kTail, "LumRegListTail");
}

void *LumRegListNext(void *base, void *node) {
    return Step(base, node, list_link::kNext, "LumRegListNext");
}

void *LumRegListPrev(void *base, void *node) {
    return Step(base, node, list_link::kPrev, "LumRegListPrev");
}

void *LumRegListNth(void *base, LumRegList *list, int32_t index) {
    const char *operation = "LumRegListNth";
    ListImage image;
    if (ReadableList(list, &image, operation) == nullptr)
        return nullptr;
    auto count = static_cast<int32_t>(ImageLoad32(Bytes(list) + list_header::kCount));
    if (index < 0 || index >= count) {
        Report("%s: Node is out of range.", operation);
        return nullptr;
    }
    // A walk longer than the image has room for, or one that meets the tail
    // sentinel early, shows a damaged count or chain.
    uint8_t *tail = Bytes(list) + list_header::kTailLink;
    uint8_t *link =
        Follow(image, base, Bytes(list) + list_header::kHeadLink, list_link::kNext, operation);
    for (int32_t i = 0; link != nullptr; ++i) {
        if (link == tail || static_cast<uint32_t>(i) > image.Steps()) {
            ReportDamage(image, link, operation);
            return nullptr;
        }
        if (i == index)
            return UserOf(link);
        link = Follow(image, base, link, list_link::kNext, operation);
    }
    return nullptr;
}

uint32_t LumRegListNumItems(LumRegList *list) {
    return list == nullptr ? 0 : ImageLoad32(Bytes(list) + list_header::kCount);
}
