// The persistent list: a seeded model test against std::list across
// commits, closes and opens at another base; the words of the image; and
// the failures of allocation.
#include <list>
#include <random>
#include <sys/mman.h>

#include "persistent_fixture.h"

namespace {

// A flush callback that frees each node it is given.
struct Freeing {
    void *base;
    int freed;
};
int32_t FreeNode(LumSegment *segment, void *node, void *argument) {
    auto *freeing = static_cast<Freeing *>(argument);
    EXPECT_EQ(LumRegListNext(freeing->base, node), nullptr); // taken off already
    ++freeing->freed;
    return LumRegListFree(segment, node);
}

int32_t Value(void *node) {
    return static_cast<int32_t>(ImageLoad32(static_cast<uint8_t *>(node)));
}

// A persistent region "p" with one segment and a list whose base is the
// image's, so that it survives a reopen at another address.
struct ListHost {
    ListHost() {
        EXPECT_EQ(LumRegionCreate("p", LUM_REGION_PERSISTENT, 8 * kMiB, 8 * kMiB, 0, 0,
                                  Dir(0).c_str(), &region, &base),
                  0);
        EXPECT_EQ(LumSegmentCreate(region, 65536, 65536, 0, 0, &segment), 0);
        list_offset = Offset(LumRegListCreate(segment, base));
    }
    ~ListHost() {
        LumSegmentClose(segment);
        LumRegionClose(region);
    }
    // Commits, and opens the region again where its old base is taken: from
    // the snapshot of a close, or from a copy of its files as a crash right
    // after the commit leaves them (the live region then closes unused).
    void Reopen(bool crash) {
        LumRegionCommit(region);
        if (crash) {
            for (const auto &file : std::filesystem::directory_iterator(Dir(1)))
                std::filesystem::remove(file);
            std::filesystem::copy(Dir(0), Dir(1));
        }
        LumSegmentClose(segment);
        void *old_base = base;
        LumRegionClose(region);
        current = crash ? 1 - current : current;
        void *held = mmap(old_base, region_page_size, PROT_NONE,
                          MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED_NOREPLACE, -1, 0);
        ASSERT_EQ(LumRegionOpen("p", 8 * kMiB, 8 * kMiB, 0, 0, Dir(0).c_str(), &region, &base), 0);
        ASSERT_EQ(LumSegmentOpen(region, 0, &segment), 0);
        EXPECT_NE(base, old_base);
        munmap(held, region_page_size);
    }
    uint32_t Offset(void *at) const {
        return static_cast<uint32_t>(static_cast<uint8_t *>(at) - static_cast<uint8_t *>(base));
    }
    void *At(uint32_t offset) const { return static_cast<uint8_t *>(base) + offset; }
    LumRegList *List() const { return static_cast<LumRegList *>(At(list_offset)); }
    uint32_t LogUsed() const { return region->log_buffer->used; }
    // The region's directory (0) and the other one (1).
    const std::string &Dir(int which) const { return dirs[(current + which) % 2].path(); }

    lumtest::TempDir dirs[2];
    int current = 0;
    LumRegion *region = nullptr;
    void *base = nullptr;
    LumSegment *segment = nullptr;
    uint32_t list_offset = 0;
};

// The whole list, both ways and at both ends, against the model.
void ExpectListIs(const ListHost &host, const std::list<int32_t> &model) {
    void *base = host.base;
    LumRegList *list = host.List();
    ASSERT_EQ(LumRegListNumItems(list), model.size());
    std::vector<int32_t> forward, backward;
    for (void *node = LumRegListFirst(base, list); node && forward.size() <= model.size();
         node = LumRegListNext(base, node))
        forward.push_back(Value(node));
    for (void *node = LumRegListLast(base, list); node && backward.size() <= model.size();
         node = LumRegListPrev(base, node))
        backward.push_back(Value(node));
    EXPECT_EQ(forward, std::vector<int32_t>(model.begin(), model.end()));
    EXPECT_EQ(backward, std::vector<int32_t>(model.rbegin(), model.rend()));
    EXPECT_EQ(LumRegListNext(base, LumRegListHead(base, list)), LumRegListFirst(base, list));
    EXPECT_EQ(LumRegListPrev(base, LumRegListTail(base, list)), LumRegListLast(base, list));
}

} // namespace

class ListTest : public PersistentTest {};

TEST_F(ListTest, FollowsAModelAcrossReopensAtAnotherBase) {
    ListHost host;
    lumtest::LogCapture log;
    std::mt19937 random(14);
    std::list<int32_t> model;
    std::vector<uint32_t> loose; // offsets of nodes on no list, with their values
    int32_t next_value = 1, out_of_range = 0;
    Freeing freeing{};
    auto pick = [&](size_t bound) { return static_cast<int32_t>(random() % bound); };
    for (int step = 1; step <= 2400; ++step) {
        void *base = host.base;
        LumRegList *list = host.List();
        auto size = static_cast<int32_t>(model.size());
        int32_t at = pick(size + 1) - 1; // -1: the head or tail position
        auto model_at = std::next(model.begin(), at < 0 ? 0 : at);
        void *node = at < 0 ? nullptr : LumRegListNth(base, list, at);
        int32_t op = pick(10);
        if (op >= 7) // the list grows to about 30 nodes and stays there
            op = size < 30 ? 0 : 7;
        switch (op) {
        case 0:
        case 1:
        case 2:
        case 3: { // insert a new or a loose node after a position
            void *added;
            if (!loose.empty() && pick(2) == 0) {
                added = host.At(loose.back());
                loose.pop_back();
            } else {
                added = LumRegListAlloc(host.segment, base, 4);
                LumMemLogCpyInt(host.segment, added, next_value++);
            }
            bool after = pick(2) == 0;
            void *position = node    ? node
                             : after ? LumRegListHead(base, list)
                                     : LumRegListTail(base, list);
            if (after) {
                LumRegListInsertAfter(host.segment, base, list, added, position);
                model.insert(at < 0 ? model.begin() : std::next(model_at), Value(added));
            } else {
                LumRegListInsertBefore(host.segment, base, list, added, position);
                model.insert(at < 0 ? model.end() : model_at, Value(added));
            }
            break;
        }
        case 4: { // delete-next, also with nothing behind the position
            void *position = node ? node : LumRegListHead(base, list);
            uint32_t used = host.LogUsed();
            void *taken = LumRegListDeleteNext(host.segment, base, list, position);
            auto behind = at < 0 ? model.begin() : std::next(model_at);
            if (behind == model.end()) {
                EXPECT_EQ(taken, nullptr);
                EXPECT_EQ(host.LogUsed(), used);
                break;
            }
            ASSERT_NE(taken, nullptr);
            EXPECT_EQ(Value(taken), *behind);
            model.erase(behind);
            loose.push_back(host.Offset(taken));
            break;
        }
        case 5: // nth out of range
            EXPECT_EQ(LumRegListNth(base, list, pick(2) ? -1 - pick(5) : size + pick(5)), nullptr);
            ++out_of_range;
            break;
        case 6: // flush, rarely, with or without a callback
            if (pick(6) == 0) {
                uint32_t used = host.LogUsed();
                std::vector<void *> nodes;
                for (void *n = LumRegListFirst(base, list); n; n = LumRegListNext(base, n))
                    nodes.push_back(n);
                freeing = {base, 0};
                bool with_callback = pick(2) == 0;
                LumRegListFlush(host.segment, base, list, with_callback ? FreeNode : nullptr,
                                &freeing);
                EXPECT_EQ(freeing.freed, with_callback ? size : 0);
                if (size == 0) { // an empty list's flush writes nothing
                    EXPECT_EQ(host.LogUsed(), used);
                }
                for (void *n : with_callback ? std::vector<void *>{} : nodes) {
                    EXPECT_EQ(LumRegListPrev(base, n), nullptr);
                    loose.push_back(host.Offset(n));
                }
                model.clear();
            }
            break;
        default: // delete a node, then free it or keep it for another insert
            if (node == nullptr)
                break;
            LumRegListDelete(host.segment, base, list, node);
            EXPECT_EQ(LumRegListNext(base, node), nullptr);
            EXPECT_EQ(LumRegListPrev(base, node), nullptr);
            model.erase(model_at);
            if (pick(2) == 0)
                EXPECT_EQ(LumRegListFree(host.segment, node), 0);
            else
                loose.push_back(host.Offset(node));
        }
        ExpectListIs(host, model);
        if (step % 300 == 0) {
            host.Reopen(step % 600 == 300);
            ExpectListIs(host, model);
            ASSERT_EQ(LumRegionVerify(host.region), 0);
        }
        if (HasFatalFailure())
            return;
    }
    EXPECT_EQ(log.Find(102, 0).size(), static_cast<size_t>(out_of_range));
    EXPECT_EQ(log.Find(102, 0).at(0).text, "LumRegListNth: Node is out of range.");
    freeing = {host.base, 0};
    EXPECT_EQ(LumRegListDestroy(host.segment, host.base, host.List(), FreeNode, &freeing), 0);
    EXPECT_EQ(freeing.freed, static_cast<int>(model.size()));
    for (uint32_t offset : loose)
        EXPECT_EQ(LumRegListFree(host.segment, host.At(offset)), 0);
    LumSegmentInfo info;
    LumSegmentGetInfo(host.segment, &info);
    EXPECT_EQ(info.used_chunks, 0u); // every node and the header went back
    EXPECT_EQ(LumRegionVerify(host.region), 0);
}

// The words of the header and of the nodes, for the image's base and for a
// base of the caller's own above it.
TEST_F(ListTest, TheImageHoldsTheHeaderAndLinksOfTheLayout) {
    LumRegion *region = CreatePersistent();
    LumSegment *segment;
    ASSERT_EQ(LumSegmentCreate(region, 65536, 0, 0, 0, &segment), 0);
    for (uint32_t shift : {0u, 4096u}) {
        uint8_t *base = region->base + shift;
        LumRegList *list = LumRegListCreate(segment, base);
        void *a = LumRegListAlloc(segment, base, 4), *b = LumRegListAlloc(segment, base, 4);
        void *c = LumRegListAlloc(segment, base, 4);
        auto off = [&](void *at) {
            return static_cast<uint32_t>(static_cast<uint8_t *>(at) - base);
        };
        auto words = [](void *at, int n) {
            std::vector<uint32_t> w(n);
            memcpy(w.data(), at, 4 * n);
            return w;
        };
        uint32_t head = off(list) + 12, tail = off(list) + 20;
        uint32_t la = off(a) - 8, lb = off(b) - 8, lc = off(c) - 8;
        EXPECT_EQ(words(list, 7), (std::vector<uint32_t>{0, head, tail, tail, head, tail, head}));
        EXPECT_EQ(words(static_cast<uint8_t *>(a) - 8, 2), (std::vector<uint32_t>{la, la}));
        LumRegListInsertAfter(segment, base, list, a, LumRegListHead(base, list));
        EXPECT_EQ(words(list, 7), (std::vector<uint32_t>{1, head, tail, la, head, tail, la}));
        EXPECT_EQ(words(static_cast<uint8_t *>(a) - 8, 2), (std::vector<uint32_t>{tail, head}));
        LumRegListInsertBefore(segment, base, list, b, LumRegListTail(base, list));
        LumRegListInsertAfter(segment, base, list, c, a); // a c b
        EXPECT_EQ(words(list, 7), (std::vector<uint32_t>{3, head, tail, la, head, tail, lb}));
        EXPECT_EQ(words(static_cast<uint8_t *>(a) - 8, 2), (std::vector<uint32_t>{lc, head}));
        EXPECT_EQ(words(static_cast<uint8_t *>(c) - 8, 2), (std::vector<uint32_t>{lb, la}));
        EXPECT_EQ(words(static_cast<uint8_t *>(b) - 8, 2), (std::vector<uint32_t>{tail, lc}));
        LumRegListDelete(segment, base, list, c);
        EXPECT_EQ(words(static_cast<uint8_t *>(c) - 8, 2), (std::vector<uint32_t>{lc, lc}));
        EXPECT_EQ(words(static_cast<uint8_t *>(a) - 8, 2), (std::vector<uint32_t>{lb, head}));
        EXPECT_EQ(words(static_cast<uint8_t *>(b) - 8, 2), (std::vector<uint32_t>{tail, la}));
        EXPECT_EQ(LumRegListDeleteNext(segment, base, list, LumRegListHead(base, list)), a);
        EXPECT_EQ(words(list, 7), (std::vector<uint32_t>{1, head, tail, lb, head, tail, lb}));
        LumRegListFlush(segment, base, list, nullptr, nullptr);
        EXPECT_EQ(words(list, 7), (std::vector<uint32_t>{0, head, tail, tail, head, tail, head}));
        EXPECT_EQ(words(static_cast<uint8_t *>(b) - 8, 2), (std::vector<uint32_t>{lb, lb}));
    }
    EXPECT_EQ(LumRegionVerify(region), 0);
    LumSegmentClose(segment);
    LumRegionClose(region);
}

// A segment at its maximum: create reports and gives null, alloc raises
// "RegionList" and gives null, and neither leaves a chunk behind.
TEST_F(ListTest, AFailedAllocationLeavesNothingAndIsReportedOrRaised) {
    LumRegion *region = CreatePersistent();
    LumSegment *segment;
    ASSERT_EQ(LumSegmentCreate(region, Page(), 0, 0, Page(), &segment), 0);
    void *filler;
    for (int i = 0; i < 10000 && LumMemAlloc(segment, 8, &filler) == 0; ++i)
        LumMemLog(segment, filler);
    uint32_t used = LumSegmentGetUsedBytes(segment);
    std::string full = LumRCToString(LUM_RC_MAX_SEGMENT_SIZE);

    lumtest::LogCapture log;
    EXPECT_EQ(LumRegListCreate(segment, region->base), nullptr);
    ASSERT_EQ(log.Find(102, 0).size(), 1u);
    EXPECT_EQ(log.Find(102, 0)[0].text,
              "LumRegListCreate: Failed to allocate memory for region list. " + full);
    EXPECT_EQ(log.Find(102, 0)[0].severity, LUM_LOG_FAILURE);

    for (uint32_t size : {64u, UINT32_MAX - 4}) {
        LumThreadExceptionClear();
        EXPECT_EQ(LumRegListAlloc(segment, region->base, size), nullptr);
        LumException raised;
        ASSERT_EQ(LumThreadExceptionGet(&raised), 0);
        EXPECT_STREQ(raised.class_name, "RegionList");
        EXPECT_STREQ(raised.message, "Failed to allocate persistent list entry");
        EXPECT_EQ(raised.value, size == 64 ? full : std::string(LumRCToString(LUM_RC_FAILURE)));
    }
    LumThreadExceptionClear();
    EXPECT_EQ(LumSegmentGetUsedBytes(segment), used);
    EXPECT_EQ(LumRegionVerify(region), 0);
    LumSegmentClose(segment);
    LumRegionClose(region);
}
