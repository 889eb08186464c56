// The persistent list: a seeded model across reopens at another base, the
// words of the image, and failed allocations.
#include <list>
#include <random>
#include <sys/mman.h>

#include "persistent_fixture.h"

namespace {

std::vector<uint32_t> Words(const void *at, int count) {
    std::vector<uint32_t> words(count);
    memcpy(words.data(), at, 4 * count);
    return words;
}

int32_t Value(const void *node) {
    return static_cast<int32_t>(ImageLoad32(static_cast<const uint8_t *>(node)));
}

// The values from `node` on in the direction of `step`; at most bound + 1.
std::vector<int32_t> Walk(void *base, void *node, void *(*step)(void *, void *), size_t bound) {
    std::vector<int32_t> values;
    for (; node != nullptr && values.size() <= bound; node = step(base, node))
        values.push_back(Value(node));
    return values;
}

int32_t FreeNode(LumSegment *segment, void *node, void *) {
    return LumRegListFree(segment, node);
}

} // namespace

class ListTest : public PersistentTest {};

TEST_F(ListTest, FollowsAModelAcrossReopensAtAnotherBase) {
    lumtest::TempDir dirs[2];
    int current = 0;
    LumRegion *region;
    uint8_t *base;
    ASSERT_EQ(LumRegionCreate("p", LUM_REGION_PERSISTENT, 8 * kMiB, 8 * kMiB, 0, 0,
                              dirs[0].path().c_str(), &region, reinterpret_cast<void **>(&base)),
              0);
    LumSegment *segment = NewSegment(region, 65536, 65536);
    auto list_at =
        static_cast<uint32_t>(reinterpret_cast<uint8_t *>(LumRegListCreate(segment, base)) - base);
    std::mt19937 random(14);
    auto pick = [&](int32_t bound) { return static_cast<int32_t>(random() % bound); };
    std::list<int32_t> model;
    std::vector<uint32_t> flushed; // offsets of nodes that a flush left on no list
    int32_t next_value = 1, out_of_range = 0;
    lumtest::LogCapture log;
    for (int step = 1; step <= 2400 && !HasFatalFailure(); ++step) {
        auto *list = reinterpret_cast<LumRegList *>(base + list_at);
        auto size = static_cast<int32_t>(model.size());
        int32_t index = pick(size + 1) - 1; // -1: the head or the tail
        auto model_at = std::next(model.begin(), std::max(index, 0));
        void *node = index < 0 ? nullptr : LumRegListNth(base, list, index);
        uint32_t log_used = region->log_buffer->used;
        int32_t op = pick(10) >= 7 ? (size < 30 ? 0 : 6) : pick(7); // about 30 nodes
        if (op <= 3) { // insert after or before a node, the head or the tail
            void *added = LumRegListAlloc(segment, base, 4);
            LumMemLogCpyInt(segment, added, next_value);
            if (op % 2 == 0)
                LumRegListInsertAfter(segment, base, list, added,
                                      node ? node : LumRegListHead(base, list));
            else
                LumRegListInsertBefore(segment, base, list, added,
                                       node ? node : LumRegListTail(base, list));
            model.insert(op % 2 ? (node ? model_at : model.end())
                                : (node ? std::next(model_at) : model.begin()),
                         next_value++);
        } else if (op == 4) { // delete-next; with nothing behind it writes nothing
            void *taken =
                LumRegListDeleteNext(segment, base, list, node ? node : LumRegListHead(base, list));
            auto behind = node ? std::next(model_at) : model.begin();
            EXPECT_EQ(taken ? Value(taken) : 0, behind == model.end() ? 0 : *behind);
            EXPECT_EQ(region->log_buffer->used == log_used, behind == model.end());
            if (taken != nullptr && behind != model.end()) {
                model.erase(behind);
                EXPECT_EQ(LumRegListFree(segment, taken), 0);
            }
        } else if (op == 5) {
            EXPECT_EQ(LumRegListNth(base, list, pick(2) ? -1 - pick(5) : size + pick(5)), nullptr);
            ++out_of_range;
        } else if (node != nullptr) {
            LumRegListDelete(segment, base, list, node);
            EXPECT_EQ(LumRegListNext(base, node), nullptr);
            EXPECT_EQ(LumRegListPrev(base, node), nullptr);
            model.erase(model_at);
            EXPECT_EQ(LumRegListFree(segment, node), 0);
        } else if (pick(4) == 0) { // flush, freeing the nodes or leaving them on no list
            bool keep = pick(2) == 0;
            for (void *n = LumRegListFirst(base, list); n && keep; n = LumRegListNext(base, n))
                flushed.push_back(static_cast<uint32_t>(static_cast<uint8_t *>(n) - base));
            LumRegListFlush(segment, base, list, keep ? nullptr : FreeNode, nullptr);
            log_used = region->log_buffer->used; // empty now: neither call writes
            LumRegListFlush(segment, base, list, FreeNode, nullptr);
            EXPECT_EQ(LumRegListDeleteNext(segment, base, list, LumRegListHead(base, list)),
                      nullptr);
            EXPECT_EQ(region->log_buffer->used, log_used);
            model.clear();
        }
        if (step % 300 == 0) { // commit; open again from the snapshot or from a crash's files
            LumRegionCommit(region);
            if (step % 600 == 300) { // the files as a crash right after the commit leaves them
                for (const auto &file :
                     std::filesystem::directory_iterator(dirs[1 - current].path()))
                    std::filesystem::remove(file);
                std::filesystem::copy(dirs[current].path(), dirs[1 - current].path());
                current = 1 - current;
            }
            LumSegmentClose(segment);
            LumRegionClose(region);
            uint8_t *old_base = base; // held, so that the open must move
            void *held = mmap(old_base, region_page_size, PROT_NONE,
                              MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED_NOREPLACE, -1, 0);
            ASSERT_EQ(LumRegionOpen("p", 8 * kMiB, 8 * kMiB, 0, 0, dirs[current].path().c_str(),
                                    &region, reinterpret_cast<void **>(&base)),
                      0);
            munmap(held, region_page_size);
            ASSERT_NE(base, old_base);
            ASSERT_EQ(LumSegmentOpen(region, 0, &segment), 0);
            ASSERT_EQ(LumRegionVerify(region), 0);
            list = reinterpret_cast<LumRegList *>(base + list_at);
        }
        ASSERT_EQ(Walk(base, LumRegListFirst(base, list), LumRegListNext, model.size()),
                  std::vector<int32_t>(model.begin(), model.end()));
        ASSERT_EQ(Walk(base, LumRegListLast(base, list), LumRegListPrev, model.size()),
                  std::vector<int32_t>(model.rbegin(), model.rend()));
        ASSERT_EQ(LumRegListNumItems(list), model.size());
    }
    EXPECT_EQ(log.Find(102, 0).size(), static_cast<size_t>(out_of_range));
    EXPECT_EQ(log.Find(102, 0).at(0).text, "LumRegListNth: Node is out of range.");
    auto *list = reinterpret_cast<LumRegList *>(base + list_at);
    EXPECT_EQ(LumRegListDestroy(segment, base, list, FreeNode, nullptr), 0);
    for (uint32_t at : flushed) {
        EXPECT_EQ(Words(base + at - 8, 2), std::vector<uint32_t>(2, at - 8)); // self-linked
        EXPECT_EQ(LumRegListFree(segment, base + at), 0);
    }
    EXPECT_EQ(LumSegmentGetUsedBytes(segment), 0u); // every node and the header went back
    LumSegmentClose(segment);
    LumRegionClose(region);
}

// From the image's base and from a base of the caller's above it.
TEST_F(ListTest, TheImageHoldsTheHeaderAndLinksOfTheLayout) {
    LumRegion *region = CreatePersistent();
    LumSegment *segment = NewSegment(region, 65536);
    for (uint8_t *base : {region->base, region->base + 4096}) {
        LumRegList *list = LumRegListCreate(segment, base);
        uint8_t *a = static_cast<uint8_t *>(LumRegListAlloc(segment, base, 4)) - 8;
        uint8_t *b = static_cast<uint8_t *>(LumRegListAlloc(segment, base, 4)) - 8;
        uint32_t head = reinterpret_cast<uint8_t *>(list) + 12 - base, tail = head + 8;
        uint32_t la = a - base, lb = b - base;
        using W = std::vector<uint32_t>;
        EXPECT_EQ(Words(list, 7), (W{0, head, tail, tail, head, tail, head}));
        EXPECT_EQ(Words(a, 2), (W{la, la}));
        LumRegListInsertAfter(segment, base, list, a + 8, LumRegListHead(base, list));
        EXPECT_EQ(Words(list, 7), (W{1, head, tail, la, head, tail, la}));
        EXPECT_EQ(Words(a, 2), (W{tail, head}));
        LumRegListInsertBefore(segment, base, list, b + 8, LumRegListTail(base, list));
        EXPECT_EQ(Words(list, 7), (W{2, head, tail, la, head, tail, lb}));
        EXPECT_EQ(Words(a, 2), (W{lb, head}));
        EXPECT_EQ(Words(b, 2), (W{tail, la}));
        LumRegListDelete(segment, base, list, a + 8);
        EXPECT_EQ(Words(a, 2), (W{la, la}));
        EXPECT_EQ(Words(list, 7), (W{1, head, tail, lb, head, tail, lb}));
    }
    LumSegmentClose(segment);
    LumRegionClose(region);
}

TEST_F(ListTest, AFailedAllocationIsReportedOrRaisedAndLeavesNothing) {
    LumRegion *region = CreatePersistent();
    LumSegment *segment = NewSegment(region, Page(), 0, 0, Page());
    for (void *filler; LumMemAlloc(segment, 8, &filler) == 0;)
        LumMemLog(segment, filler);
    uint32_t used = LumSegmentGetUsedBytes(segment);
    std::string full = LumRCToString(LUM_RC_MAX_SEGMENT_SIZE);
    lumtest::LogCapture log;
    EXPECT_EQ(LumRegListCreate(segment, region->base), nullptr);
    EXPECT_EQ(log.Lines(), std::vector<std::string>{"4 102/0 LumRegListCreate: Failed to allocate "
                                                    "memory for region list. " +
                                                    full});
    for (uint32_t size : {64u, UINT32_MAX - 4}) { // the second would wrap with the links
        EXPECT_EQ(LumRegListAlloc(segment, region->base, size), nullptr);
        EXPECT_EQ(lumtest::TakeException(),
                  "RegionList|Failed to allocate persistent list entry|" +
                      (size == 64 ? full : LumRCToString(LUM_RC_FAILURE)));
    }
    EXPECT_EQ(LumSegmentGetUsedBytes(segment), used);
    LumSegmentClose(segment);
    LumRegionClose(region);
}

// A damaged link or count ends every operation with a report before it
// reads or writes outside the image, and a change writes nothing.
TEST_F(ListTest, DamagedLinksEndEveryOperationWithAReport) {
    LumRegion *region = CreatePersistent();
    LumSegment *segment = NewSegment(region, 65536);
    uint8_t *base = region->base;
    LumRegList *list = LumRegListCreate(segment, base);
    void *nodes[4];
    for (void *&node : nodes)
        node = LumRegListAlloc(segment, base, 4);
    for (void *node : {nodes[0], nodes[1], nodes[2]})
        LumRegListInsertBefore(segment, base, list, node, LumRegListTail(base, list));
    uint8_t *last_next = static_cast<uint8_t *>(nodes[2]) - 8;
    const std::pair<const char *, uint32_t> damage[] = {{"past the image", region->used + 4096},
                                                        {"the region header", 64}};
    for (auto [what, next] : damage) {
        SCOPED_TRACE(what);
        ImageStore32(last_next, next);
        uint32_t log_used = region->log_buffer->used;
        lumtest::LogCapture capture;
        EXPECT_EQ(LumRegListNext(base, nodes[2]), nullptr);
        EXPECT_EQ(LumRegListDeleteNext(segment, base, list, nodes[1]), nullptr);
        LumRegListDelete(segment, base, list, nodes[2]);
        LumRegListInsertAfter(segment, base, list, nodes[3], nodes[2]);
        EXPECT_EQ(region->log_buffer->used, log_used);
        EXPECT_EQ(capture.Find(102, 0).size(), 4u);
        EXPECT_EQ(capture.Find(102, 0).at(0).text,
                  "LumRegListNext: List in region \"p\" has a damaged link at offset " +
                      std::to_string(next) + ".");
    }
    // A circle and a count beyond the image: both walks end.
    ImageStore32(last_next, ImageOffsetOf(region, static_cast<uint8_t *>(nodes[0]) - 8));
    ImageStore32(reinterpret_cast<uint8_t *>(list), INT32_MAX);
    lumtest::LogCapture capture;
    EXPECT_EQ(LumRegListNth(base, list, INT32_MAX - 1), nullptr);
    LumRegListFlush(segment, base, list, nullptr, nullptr);
    EXPECT_EQ(capture.Find(102, 0).size(), 2u);
    EXPECT_EQ(LumRegListNumItems(list), 0u);
    EXPECT_EQ(LumRegListFirst(base, list), nullptr);
    uint32_t elsewhere[7] = {};
    EXPECT_EQ(LumRegListFirst(base, reinterpret_cast<LumRegList *>(elsewhere)), nullptr);
    EXPECT_EQ(capture.Lines().back(), "4 102/0 LumRegListFirst: List is in no open region.");
    LumSegmentClose(segment);
    LumRegionClose(region);
}
