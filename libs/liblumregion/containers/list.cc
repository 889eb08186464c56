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
// no record. Nothing here commits, takes a lock or tests its arguments
// beyond null pointers: a position on no list or a node inserted twice
// damages the list.
#include <cstring>

#include "alloc/layout.h"
#include "frame/frame.h"

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
inline constexpr uint32_t kData = 8; // the user pointer of a node
static_assert(list_header::kHeadLink + kData == list_header::kTailLink);
static_assert(list_header::kTailLink + kData == list_header::kSize);
} // namespace list_link

namespace {

constexpr uint32_t kListReportId = 0;

uint8_t *Bytes(void *pointer) {
    return static_cast<uint8_t *>(pointer);
}
uint8_t *Bytes(LumRegList *list) {
    return reinterpret_cast<uint8_t *>(list);
}

RegionOffset OffsetFrom(void *base, const uint8_t *link) {
    return static_cast<RegionOffset>(link - Bytes(base));
}

uint8_t *LinkAt(void *base, RegionOffset offset) {
    return Bytes(base) + offset;
}

// The link of a node or sentinel from its user pointer, and back.
uint8_t *LinkOf(void *user) {
    return Bytes(user) - list_link::kData;
}
void *UserOf(uint8_t *link) {
    return link + list_link::kData;
}

uint8_t *NextLink(void *base, const uint8_t *link) {
    return LinkAt(base, ImageLoad32(link + list_link::kNext));
}
uint8_t *PrevLink(void *base, const uint8_t *link) {
    return LinkAt(base, ImageLoad32(link + list_link::kPrev));
}

void WriteWord(LumSegment *segment, uint8_t *at, uint32_t value) {
    LumMemLogCpyInt(segment, at, static_cast<int32_t>(value));
}

void SetNext(LumSegment *segment, void *base, uint8_t *link, const uint8_t *to) {
    WriteWord(segment, link + list_link::kNext, OffsetFrom(base, to));
}
void SetPrev(LumSegment *segment, void *base, uint8_t *link, const uint8_t *to) {
    WriteWord(segment, link + list_link::kPrev, OffsetFrom(base, to));
}

// Takes `link` off every list: next, then prev, lead to itself.
void SelfLink(LumSegment *segment, void *base, uint8_t *link) {
    SetNext(segment, base, link, link);
    SetPrev(segment, base, link, link);
}

void AddToCount(LumSegment *segment, LumRegList *list, int32_t delta) {
    uint8_t *count = Bytes(list) + list_header::kCount;
    WriteWord(segment, count, ImageLoad32(count) + static_cast<uint32_t>(delta));
}

// The user pointer of `link`, or null when it ends the list in the
// direction whose word stands at `word`: that word leads back to it.
void *UserUnlessEnd(void *base, uint8_t *link, uint32_t word) {
    return LinkAt(base, ImageLoad32(link + word)) == link ? nullptr : UserOf(link);
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
    if (list == nullptr || node == nullptr || position == nullptr)
        return;
    uint8_t *added = LinkOf(node);
    uint8_t *before = LinkOf(position);
    uint8_t *after = NextLink(base, before);
    SetNext(segment, base, added, after);
    SetNext(segment, base, before, added);
    SetPrev(segment, base, added, before);
    SetPrev(segment, base, after, added);
    AddToCount(segment, list, 1);
}

void LumRegListInsertBefore(LumSegment *segment, void *base, LumRegList *list, void *node,
                            void *position) {
    if (list == nullptr || node == nullptr || position == nullptr)
        return;
    uint8_t *added = LinkOf(node);
    uint8_t *after = LinkOf(position);
    uint8_t *before = PrevLink(base, after);
    SetPrev(segment, base, added, before);
    SetPrev(segment, base, after, added);
    SetNext(segment, base, added, after);
    SetNext(segment, base, before, added);
    AddToCount(segment, list, 1);
}

void LumRegListDelete(LumSegment *segment, void *base, LumRegList *list, void *node) {
    if (list == nullptr || node == nullptr)
        return;
    uint8_t *taken = LinkOf(node);
    uint8_t *after = NextLink(base, taken);
    uint8_t *before = PrevLink(base, taken);
    SetNext(segment, base, before, after);
    SelfLink(segment, base, taken);
    SetPrev(segment, base, after, before);
    AddToCount(segment, list, -1);
}

void *LumRegListDeleteNext(LumSegment *segment, void *base, LumRegList *list, void *position) {
    if (list == nullptr || position == nullptr)
        return nullptr;
    uint8_t *before = LinkOf(position);
    uint8_t *taken = NextLink(base, before);
    uint8_t *after = NextLink(base, taken);
    // Behind the last node stands the tail sentinel, which leads to itself:
    // it is never taken out (nor is a position on no list).
    if (after == taken)
        return nullptr;
    SetNext(segment, base, before, after);
    SelfLink(segment, base, taken);
    SetPrev(segment, base, after, before);
    AddToCount(segment, list, -1);
    return UserOf(taken);
}

void LumRegListFlush(LumSegment *segment, void *base, LumRegList *list, LumRegListCallback callback,
                     void *argument) {
    if (list == nullptr)
        return;
    uint8_t *header = Bytes(list);
    uint8_t *tail = header + list_header::kTailLink;
    uint8_t *link = NextLink(base, header + list_header::kHeadLink);
    while (link != tail) {
        uint8_t *node = link;
        link = NextLink(base, node);
        SelfLink(segment, base, node);
        // The node leads nowhere now and the walk has left it: the
        // callback may free it.
        if (callback != nullptr)
            callback(segment, UserOf(node), argument);
    }
    WriteWord(segment, header + list_header::kHeadLink + list_link::kNext,
              ImageLoad32(header + list_header::kTail));
    WriteWord(segment, header + list_header::kTailLink + list_link::kPrev,
              ImageLoad32(header + list_header::kHead));
    WriteWord(segment, header + list_header::kCount, 0);
}

int32_t LumRegListDestroy(LumSegment *segment, void *base, LumRegList *list,
                          LumRegListCallback callback, void *argument) {
    LumRegListFlush(segment, base, list, callback, argument);
    return LumMemFree(segment, list);
}

void *LumRegListFirst(void *base, LumRegList *list) {
    if (list == nullptr)
        return nullptr;
    uint8_t *first = NextLink(base, Bytes(list) + list_header::kHeadLink);
    return first == Bytes(list) + list_header::kTailLink ? nullptr : UserOf(first);
}

void *LumRegListLast(void *base, LumRegList *list) {
    if (list == nullptr)
        return nullptr;
    uint8_t *last = PrevLink(base, Bytes(list) + list_header::kTailLink);
    return last == Bytes(list) + list_header::kHeadLink ? nullptr : UserOf(last);
}

void *LumRegListHead(void *base, LumRegList *list) {
    if (list == nullptr)
        return nullptr;
    return UserOf(LinkAt(base, ImageLoad32(Bytes(list) + list_header::kHead)));
}

void *LumRegListTail(void *base, LumRegList *list) {
    if (list == nullptr)
        return nullptr;
    return UserOf(LinkAt(base, ImageLoad32(Bytes(list) + list_header::kTail)));
}

void *LumRegListNext(void *base, void *node) {
    if (node == nullptr)
        return nullptr;
    return UserUnlessEnd(base, NextLink(base, LinkOf(node)), list_link::kNext);
}

void *LumRegListPrev(void *base, void *node) {
    if (node == nullptr)
        return nullptr;
    return UserUnlessEnd(base, PrevLink(base, LinkOf(node)), list_link::kPrev);
}

void *LumRegListNth(void *base, LumRegList *list, int32_t index) {
    if (list == nullptr)
        return nullptr;
    auto count = static_cast<int32_t>(ImageLoad32(Bytes(list) + list_header::kCount));
    if (index < 0 || index >= count) {
        LumLog(LUM_LOG_FAILURE, 1, region_catalog, kSetContainer, kListReportId,
               "%s: Node is out of range.", "LumRegListNth");
        return nullptr;
    }
    uint8_t *link = NextLink(base, Bytes(list) + list_header::kHeadLink);
    for (int32_t i = 0; i < index; ++i)
        link = NextLink(base, link);
    return UserOf(link);
}

uint32_t LumRegListNumItems(LumRegList *list) {
    return list == nullptr ? 0 : ImageLoad32(Bytes(list) + list_header::kCount);
}
