// Segments and chunk allocation, each case with and without page protection.
#include <algorithm>
#include <array>
#include <map>
#include <random>
#include <set>
#include <span>
#include <tuple>

#include "persistent_fixture.h"

namespace {

// Id, extents, total bytes, free bytes and chunks, used bytes and chunks.
using Figures = std::array<uint32_t, 7>;
Figures FiguresOf(LumSegment *segment) {
    static_assert(sizeof(Figures) == sizeof(LumSegmentInfo));
    Figures figures;
    LumSegmentGetInfo(segment, reinterpret_cast<LumSegmentInfo *>(figures.data()));
    return figures;
}

} // namespace

class AllocTest : public PersistentTest, public ::testing::WithParamInterface<int32_t> {
  protected:
    void SetUp() override {
        region_ = CreatePersistent("alloc", 64 * kMiB, 64 * kMiB, kMiB, GetParam());
    }
    void TearDown() override {
        for (LumSegment *segment : segments_)
            EXPECT_EQ(LumSegmentDrop(segment), 0);
        EXPECT_EQ(region_->used, FirstExtentOffset());
        EXPECT_EQ(LumRegionVerifyDeep(region_), 0);
        EXPECT_EQ(LumRegionDrop(region_), 0);
    }
    LumSegment *Segment(uint32_t primary, uint32_t secondary = 0, uint32_t growth = 0,
                        uint32_t maximum = 0) {
        return segments_.emplace_back(NewSegment(region_, primary, secondary, growth, maximum));
    }

    LumRegion *region_ = nullptr;
    std::vector<LumSegment *> segments_;
};

INSTANTIATE_TEST_SUITE_P(Protection, AllocTest, ::testing::Values(0, 1));

// The records (type, value, length) of a new segment of 64 KiB, an
// allocation of 100 bytes and its free; the same whatever the buffer holds.
TEST_P(AllocTest, WorkedExampleLeavesTheseRecordsWhateverTheBufferHolds) {
    ASSERT_EQ(Page(), 4096u);
    const std::vector<std::array<uint32_t, 3>> example = {
        {LOG_SIZE, 69632, 0},   {LOG_DATA, 4096, 16},  {LOG_DATA, 69628, 4}, {LOG_DATA, 32, 4},
        {LOG_DATA, 4096, 1636}, {LOG_DATA, 69588, 40}, {LOG_DATA, 5608, 8},  {LOG_DATA, 5720, 8},
        {LOG_DATA, 4096, 1604}, {LOG_DATA, 544, 4},    {LOG_DATA, 5608, 8},  {LOG_DATA, 5608, 8},
        {LOG_DATA, 5828, 12},   {LOG_DATA, 69608, 4},  {LOG_DATA, 4136, 24}, {LOG_DATA, 5716, 112},
        {LOG_DATA, 5608, 8},    {LOG_DATA, 5608, 8},   {LOG_DATA, 5716, 12}, {LOG_DATA, 69608, 4},
        {LOG_DATA, 4136, 24}};
    // Whether a commit empties the buffer first; the room left (0: as it comes).
    const std::tuple<const char *, bool, uint32_t> rows[] = {
        {"the worked example", true, 0},
        {"in an empty buffer", true, 0},
        {"in a buffer that runs full after two records", false, 40},
        {"in a buffer with no room", false, 4}};
    LumSegment *segment = nullptr;
    LogBuffer *buffer = region_->log_buffer;
    using Record = std::tuple<uint32_t, uint32_t, uint32_t, std::vector<uint8_t>>;
    std::vector<Record> first;
    for (auto [what, commit_first, room] : rows) {
        SCOPED_TRACE(what);
        if (commit_first)
            LumRegionCommit(region_);
        for (uint32_t left; room != 0 && (left = buffer->capacity - buffer->used - room) != 0;)
            LumMemLogSet(segment, segment->primary + 16384, 0x5A, left > 4120 ? 4096 : left - 12);
        size_t before = ParseLog(Read("alloc_0.log")).size() + BufferRecords(region_).size();
        _LumDirtyMapFill(region_, 0, 0);
        _LumDirtyMapFill(region_, 1, 0);
        segment = segment != nullptr ? segment : Segment(65536);
        ASSERT_EQ(LumMemFree(segment, AllocLogged(segment, 100)), 0);
        LumRegionCommit(region_);
        std::vector<ParsedRecord> all = ParseLog(Read("alloc_0.log"));
        EXPECT_TRUE(!commit_first || all[before].type == LOG_SIZE) << "a log opens with its size";
        std::vector<Record> records;
        std::vector<std::array<uint32_t, 3>> heads;
        std::set<uint32_t> pages;
        for (const ParsedRecord &r : std::span(all).subspan(before)) {
            if (r.type == LOG_DATA || (first.empty() && r.type == LOG_SIZE)) {
                records.emplace_back(r.type, r.value, r.length, r.payload);
                heads.push_back({r.type, r.value, r.length});
            }
            for (uint32_t page = r.value / Page();
                 r.type == LOG_DATA && page <= (r.value + r.length - 1) / Page(); ++page)
                pages.insert(page);
        }
        for (DirtyMap *map : region_->dirty_map)
            for (uint32_t page = 0; page < region_->used / Page(); ++page)
                EXPECT_EQ(_LumDirtyMapTest(map, page) != 0, pages.contains(page)) << page;
        if (first.empty())
            EXPECT_EQ(heads, example);
        else
            EXPECT_EQ(records, std::vector<Record>(first.end() - 11, first.end()));
        first = first.empty() ? records : first;
    }
}

// The smallest sizes, the split that needs 16 bytes to spare, frees in any order.
TEST_P(AllocTest, ChunkSizesSplitsAndMergesAtTheirEdges) {
    LumSegment *segment = Segment(4096);
    Figures empty = FiguresOf(segment);
    uint8_t *first = AllocLogged(segment, 100);
    std::vector<void *> live = {first};
    EXPECT_EQ(lumtest::FaultsInChild([&] { first[50] = 1; }), GetParam() != 0) << "closed";
    EXPECT_EQ(FiguresOf(segment), (Figures{0, 1, 4096, 2344, 1, 112, 1}));
    for (auto [request, usable] : {std::pair{0u, 8u}, {1u, 8u}, {8u, 8u}, {9u, 16u}}) {
        live.push_back(AllocLogged(segment, request));
        EXPECT_EQ(LumMemGetSize(live.back()), usable) << request;
    }
    void *a = AllocLogged(segment, 24); // a chunk of 32
    live.push_back(AllocLogged(segment, 8));
    void *e = AllocLogged(segment, 16); // a chunk of 24
    live.push_back(AllocLogged(segment, 8));
    ASSERT_EQ(LumMemFree(segment, a), 0);
    ASSERT_EQ(LumMemFree(segment, e), 0);
    live.push_back(AllocLogged(segment, 8));
    EXPECT_EQ(live.back(), e) << "the best fit, 24, taken whole";
    EXPECT_EQ(LumMemGetSize(e), 16u);
    live.push_back(AllocLogged(segment, 8));
    EXPECT_EQ(live.back(), a) << "the 32 is split into 16 and 16";
    uint32_t rest = FiguresOf(segment)[3] - 16; // less 8 bytes, a request takes it whole
    live.push_back(AllocLogged(segment, rest - 8));
    EXPECT_EQ(LumMemGetSize(live.back()), rest - 8);
    std::shuffle(live.begin(), live.end(), std::mt19937(7));
    for (void *pointer : live)
        ASSERT_EQ(LumMemFree(segment, pointer), 0);
    EXPECT_EQ(FiguresOf(segment), empty);
    void *out = &out;
    EXPECT_EQ(LumMemAlloc(segment, 0xFFFFFFFF - 70, &out), LUM_RC_FAILURE);
    EXPECT_EQ(out, nullptr);
}

// Each row frees chunks of a to d, then a pointer `shift` from a chunk (d
// and the free rest h hold forged tags), the image's base (e), its end (f)
// or another segment's (g); with the mutation check on, the free reports.
TEST_P(AllocTest, FreesOfPointersThatNameNoLiveChunkChangeNothing) {
    uint8_t *elsewhere = AllocLogged(Segment(4096), 40);
    const char *kNone = "", *kFree = "Free memory write", *kInvalid = "Invalid pointer write",
               *kNotFound = "Chunk not found in segment";
    const std::tuple<const char *, const char *, char, int32_t, int32_t, const char *> rows[] = {
        {"not a multiple of 8", "", 'a', 4, LUM_RC_FAILURE, kNone},
        {"in the region header", "", 'e', 8, LUM_RC_FAILURE, kNotFound},
        {"at the image's end", "", 'f', 0, LUM_RC_FAILURE, kNotFound},
        {"freed already", "a", 'a', 0, LUM_RC_DOUBLE_FREE, kNone},
        {"merged into the free chunk below", "ab", 'b', 0, LUM_RC_DOUBLE_FREE, kFree},
        {"merged on both sides", "acb", 'b', 0, LUM_RC_DOUBLE_FREE, kFree},
        {"inside a live chunk", "", 'a', 16, LUM_RC_DOUBLE_FREE, kNone},
        {"a forged tag without its foot", "", 'd', 40, LUM_RC_DOUBLE_FREE, kInvalid},
        {"a forged chunk below a forged free one", "", 'd', 8, LUM_RC_DOUBLE_FREE, kNone},
        {"a forged chunk above a forged free one", "", 'd', 16, LUM_RC_DOUBLE_FREE, kNone},
        {"the front fence", "", 'a', -16, LUM_RC_DOUBLE_FREE, kNotFound},
        {"a chunk of another segment", "", 'g', 0, LUM_RC_DOUBLE_FREE, kNotFound},
        {"a forged live chunk inside a free one", "", 'h', 20, LUM_RC_DOUBLE_FREE, kFree},
    };
    const std::pair<uint32_t, uint32_t> forged[] = {
        {4, 16}, {8, 17}, {12, 16}, {16, 16}, {20, 17}, {24, 16}, {36, 16}, {60, 16}, {72, 16}};
    for (int32_t check : {0, 1})
        for (auto [what, freed, target, shift, code, verdict] : rows) {
            if (target == 'h' && !check)
                continue; // only the check can tell a forged chunk from a live one
            SCOPED_TRACE(std::string(what) + (check ? ", checked" : ""));
            LumSegment *segment = Segment(4096);
            auto chunk = [&] { return AllocLogged(segment, 40); };
            uint8_t *end = region_->base + region_->used; // the image's end
            uint8_t *chunks[8] = {chunk(),       chunk(), chunk(),  chunk(),
                                  region_->base, end,     elsewhere};
            chunks[7] = chunks[3] + 44;
            for (auto [at, tag] : forged)
                LumMemLogCpyUnsigned(segment, chunks[3] + at, tag);
            for (const char *name = freed; *name != '\0'; ++name)
                ASSERT_EQ(LumMemFree(segment, chunks[*name - 'a']), 0);
            Figures before = FiguresOf(segment);
            uint32_t logged = region_->log_buffer->used;
            lumtest::LogCapture capture;
            region_mutation_check = check;
            uint8_t *pointer = chunks[target - 'a'] + shift;
            EXPECT_EQ(LumMemFree(segment, pointer), code);
            region_mutation_check = 0;
            char text[160];
            snprintf(text, sizeof text,
                     "Attempted memory free error at '0x%p' in segment with ID = %u: %s",
                     static_cast<void *>(pointer), before[0], verdict);
            auto reports = capture.Find(kSetError, 13);
            EXPECT_EQ(reports.size(), check && *verdict ? 1u : 0u);
            for (const lumtest::LogRecord &report : reports)
                EXPECT_EQ(report.text, text);
            EXPECT_EQ(FiguresOf(segment), before);
            EXPECT_EQ(region_->log_buffer->used, logged);
            EXPECT_EQ(LumRegionVerifyDeep(region_), 0);
        }
}

// A segment of 64 KiB grown by allocations of 2000 bytes: the sizes of its
// secondary extents, then the code that stops it (0: none).
TEST_P(AllocTest, SecondaryExtentsGrowByTheirPercentUntilSomethingStopsThem) {
    using Row =
        std::tuple<const char *, uint32_t, uint32_t, uint32_t, std::vector<uint32_t>, int32_t>;
    const Row rows[] = {
        {"flat up to its maximum", 65536, 0, 196608, {65536, 65536}, LUM_RC_MAX_SEGMENT_SIZE},
        {"50% on, past its maximum", 65536, 50, 196608, {65536, 98304, 147456}, 0},
        {"no secondary size: as the requests need", 0, ~0u, 0, std::vector<uint32_t>(50, 4096), 0},
        {"a growth beyond any region", 4096, ~0u, 0, {4096}, LUM_RC_EXTEND},
    };
    for (const auto &[what, secondary, percent, maximum, expected, end] : rows) {
        SCOPED_TRACE(what);
        LumSegment *segment = Segment(65536, secondary, percent, maximum);
        Figures empty = FiguresOf(segment);
        uint32_t used = region_->used;
        std::vector<uint32_t> sizes;
        std::vector<void *> pointers;
        int32_t rc = 0;
        for (void *pointer; rc == 0 && (end != 0 || sizes.size() < expected.size());) {
            Figures before = FiguresOf(segment);
            rc = LumMemAlloc(segment, 2000, &pointer);
            Figures after = FiguresOf(segment);
            EXPECT_TRUE(rc == 0 || after == before) << "a refused growth changes nothing";
            if (rc == 0)
                LumMemLog(segment, pointers.emplace_back(pointer));
            if (after[1] > before[1]) {
                sizes.push_back(after[2] - before[2]);
                EXPECT_EQ(after[4], before[4] + 1);
            }
        }
        EXPECT_EQ(sizes, expected);
        EXPECT_EQ(rc, end);
        for (void *pointer : pointers)
            ASSERT_EQ(LumMemFree(segment, pointer), 0);
        EXPECT_EQ(FiguresOf(segment), empty);
        EXPECT_EQ(region_->used, used);
    }
}

TEST_P(AllocTest, SegmentsTakeTheLowestFreeIdDropOnceAndRefuseBadParameters) {
    const std::tuple<const char *, uint32_t, uint32_t, uint32_t> refused[] = {
        {"no primary extent", 0, 0, 0},
        {"a maximum below the first two extents", 8192, 8192, 16383},
        {"a primary size that rounds past 4 GiB", 0xFFFFFFFF, 0, 0},
        {"a secondary size that rounds past 4 GiB", 4096, 0xFFFFFFFF, 0},
        {"a maximum that rounds past 4 GiB", 4096, 0, 0xFFFFFFFF},
        {"a primary size beyond the hard limit", 64 * kMiB + 1, 0, 0},
    };
    uint32_t used = region_->used, logged = region_->log_buffer->used;
    LumSegment *opened = reinterpret_cast<LumSegment *>(1);
    for (auto [what, primary, secondary, maximum] : refused)
        EXPECT_EQ(LumSegmentCreate(region_, primary, secondary, 0, maximum, &opened),
                  LUM_RC_ALLOCATOR_TYPE)
            << what;
    EXPECT_EQ(opened, reinterpret_cast<LumSegment *>(1));
    EXPECT_EQ(region_->used, used);
    EXPECT_EQ(region_->log_buffer->used, logged);

    std::vector<LumSegment *> seven;
    for (int i = 0; i < 7; ++i)
        seven.push_back(Segment(4096));
    std::erase(segments_, seven[5]);
    ASSERT_EQ(LumSegmentOpen(region_, 5, &opened), 0);
    ASSERT_EQ(LumSegmentDrop(seven[5]), 0);
    EXPECT_EQ(LumSegmentDrop(opened), LUM_RC_FAILURE) << "dropped through another handle";
    EXPECT_EQ(LumSegmentClose(opened), 0);
    EXPECT_EQ(LumSegmentOpen(region_, 5, &opened), LUM_RC_BAD_SEGMENT_ID);
    LumSegment *exact = Segment(8192, 8192, 0, 16384);
    EXPECT_EQ(FiguresOf(exact)[0], 5u);
    EXPECT_EQ(ImageLoad32(Segment(1)->primary + primary_extent::kPrimarySize), Page());
    while (segments_.size() < 128)
        Segment(1);
    EXPECT_EQ(LumSegmentCreate(region_, 0, 0, 0, 0, &opened), LUM_RC_MAX_SEGMENTS);
    EXPECT_EQ(LumRegionDrop(region_), LUM_RC_SEGMENTS_REMAIN);
}

// Random allocations, filled while open and ended with LumMemLog or
// LumMemNoLog, and frees, against a model of the live chunks. A store into
// an open chunk must not fault while others' ends protect pages around it.
TEST_P(AllocTest, RandomRunKeepsTheModelAndAVerifiableImage) {
    std::mt19937 random(12345);
    std::vector<LumSegment *> segments = {Segment(8192, 4096, 25), Segment(65536, 16384, 0),
                                          Segment(4096, 0)};
    struct Chunk {
        LumSegment *segment;
        uint32_t size;
        uint8_t fill;
    };
    std::map<uint8_t *, Chunk> live;
    std::vector<uint8_t *> open; // allocated and not yet ended
    for (int step = 0; step < 4000; ++step) {
        uint32_t action = open.size() >= 16 ? 4 : random() % 6; // allocate, refill, end, free
        if (live.empty() || action <= 2) {
            LumSegment *segment = segments[random() % segments.size()];
            uint32_t size = random() % 4 == 0 ? 1 + random() % 12000 : 1 + random() % 300;
            uint8_t *at = nullptr;
            ASSERT_EQ(LumMemAlloc(segment, size, reinterpret_cast<void **>(&at)), 0);
            ASSERT_GE(LumMemGetSize(at), size);
            for (auto &[other, chunk] : live)
                ASSERT_TRUE(at + size <= other || other + chunk.size <= at) << "overlap";
            Chunk &chunk = live[at] = {segment, size, static_cast<uint8_t>(random())};
            memset(at, chunk.fill, size); // plain stores: a new chunk is writable
            open.push_back(at);
        } else if (action <= 4 && !open.empty()) {
            size_t i = random() % open.size();
            Chunk &chunk = live[open[i]];
            if (action == 3) {
                chunk.fill = static_cast<uint8_t>(random());
                memset(open[i], chunk.fill, chunk.size);
            } else {
                (random() % 2 ? LumMemLog : LumMemNoLog)(chunk.segment, open[i]);
                open.erase(open.begin() + static_cast<ptrdiff_t>(i));
            }
        } else {
            auto it = std::next(live.begin(), random() % live.size());
            for (uint32_t i = 0; i < it->second.size; i += 97)
                ASSERT_EQ(it->first[i], it->second.fill) << "contents of a live chunk";
            ASSERT_EQ(LumMemFree(it->second.segment, it->first), 0);
            std::erase(open, it->first);
            live.erase(it);
        }
        if (step % 50 == 0) {
            ASSERT_EQ(LumRegionVerifyDeep(region_), 0) << "step " << step;
            LumRegionCommit(region_);
        }
    }
    for (uint8_t *at : open)
        LumMemLog(live[at].segment, at);
    EXPECT_FALSE(region_->open_chunks.overflowed);
    EXPECT_EQ(lumtest::FaultsInChild([&] { live.begin()->first[0] ^= 1; }), GetParam() != 0);
    EXPECT_EQ(FiguresOf(segments[0])[6] + FiguresOf(segments[1])[6] + FiguresOf(segments[2])[6],
              live.size());
}

// The primary extent's chunks first, then the secondaries' from the newest;
// a damaged tag ends the scan inside the image.
TEST_P(AllocTest, ScanWalksLiveChunksByExtentFromTheNewest) {
    auto scan_all = [](LumSegment *segment) {
        std::vector<void *> found;
        LumSegmentScan *scan;
        EXPECT_EQ(LumSegmentScanBegin(segment, &scan), 0);
        void *pointer = &found;
        while (LumSegmentScanNext(scan, &pointer) == 0)
            found.push_back(pointer);
        EXPECT_EQ(pointer, nullptr);
        EXPECT_EQ(LumSegmentScanNext(scan, &pointer), LUM_RC_FAILURE) << "stays ended";
        EXPECT_EQ(LumSegmentScanEnd(scan), 0);
        return found;
    };
    LumSegment *segment = Segment(Page(), Page());
    EXPECT_TRUE(scan_all(segment).empty());
    std::vector<void *> chunks; // 1 in the primary extent, 2 in each secondary
    for (int i = 0; i < 5; ++i)
        chunks.push_back(AllocLogged(segment, 1500));
    EXPECT_EQ(FiguresOf(segment)[1], 3u) << "extents";
    EXPECT_EQ(scan_all(segment),
              (std::vector<void *>{chunks[0], chunks[3], chunks[4], chunks[1], chunks[2]}));
    ASSERT_EQ(LumMemFree(segment, chunks[3]), 0);
    EXPECT_EQ(scan_all(segment), (std::vector<void *>{chunks[0], chunks[4], chunks[1], chunks[2]}));

    uint8_t *tag = static_cast<uint8_t *>(chunks[4]) - 4;
    uint32_t saved = ImageLoad32(tag);
    _LumPageUnprotect(region_, tag, 4);
    ImageStore32(tag, 0x7ffffff8); // a size far beyond the extent
    EXPECT_EQ(scan_all(segment), (std::vector<void *>{chunks[0]}));
    ImageStore32(tag, saved);
    _LumPageProtect(region_, tag, 4);
}
