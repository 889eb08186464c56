// The mutation check: where a write lands among the chunks of its segment,
// read from the reports and the live-chunk trace.
#include <cstdio>
#include <string>
#include <tuple>

#include "region_fixture.h"
#include "verify/verify.h"

class MutationCheckTest : public RegionTest {
  protected:
    void SetUp() override {
        region_mutation_check = 1;
        LumDebugFacilitySet("region_mutation", 1);
        region_ = Create(16 * kMiB, 16 * kMiB);
        segment_ = NewSegment(region_, 4096, 4096);
        other_ = NewSegment(region_, 4096);
    }
    void TearDown() override {
        region_mutation_check = 0;
        LumDebugFacilitySet("region_mutation", 0);
        LumSegmentClose(segment_);
        LumSegmentClose(other_);
        RegionTest::TearDown();
    }
    // Rewrites the bytes at `target` with themselves: the write reports and
    // the number of live-chunk traces.
    std::pair<std::vector<std::string>, size_t> Rewrite(uint8_t *target, uint32_t length) {
        std::vector<uint8_t> same(target, target + length);
        lumtest::LogCapture capture;
        EXPECT_EQ(LumMemLogCpy(segment_, target, same.data(), length), target);
        std::vector<std::string> reports;
        for (const lumtest::LogRecord &record : capture.Find(kSetError, 12))
            reports.push_back(record.text);
        return {reports, capture.Find(kSetReport, 28).size()};
    }
    static std::string Report(const uint8_t *target, uint32_t length, const char *verdict) {
        char text[160];
        snprintf(text, sizeof text,
                 "Attempted memory write error at '0x%p' for %u byte(s) in segment with ID = 0: %s",
                 static_cast<const void *>(target), length, verdict);
        return text;
    }

    LumRegion *region_ = nullptr;
    LumSegment *segment_ = nullptr;
    LumSegment *other_ = nullptr;
};

// Live chunks a (48 bytes) and c (112), a free 16 between them and the free
// rest behind c; live chunk s in a secondary extent. Each row names the
// verdict and whether a live chunk holds the write.
TEST_F(MutationCheckTest, EveryWriteIsClassifiedByTheChunkThatHoldsIt) {
    uint8_t *a = AllocLogged(segment_, 40);
    uint8_t *b = AllocLogged(segment_, 8);
    uint8_t *c = AllocLogged(segment_, 100);
    ASSERT_EQ(LumMemFree(segment_, b), 0);
    uint8_t *s = AllocLogged(segment_, 2400); // too big for the primary extent
    uint8_t *rest = c - 4 + 112;
    uint8_t *secondary = region_->base + ImageLoad32(segment_->primary + extent_header::kNext);
    uint8_t *elsewhere = AllocLogged(other_, 40);
    const char *kNone = "", *kBounds = "Array bounds write", *kFree = "Free memory write",
               *kInvalid = "Invalid pointer write", *kNotFound = "Chunk not found in segment";
    const std::tuple<const char *, uint8_t *, uint32_t, const char *, bool> rows[] = {
        {"a's head tag", a - 4, 4, kInvalid, true},
        {"a's data, whole", a, 40, kNone, true},
        {"a's data and one byte more", a, 41, kBounds, true},
        {"a's last 4 bytes", a + 36, 4, kNone, true},
        {"a's last 4 bytes and one more", a + 36, 5, kBounds, true},
        {"a's foot tag", a + 40, 1, kInvalid, true},
        {"a's foot tag, long", a + 40, 64, kInvalid, true},
        {"the free 16's link", b, 4, kInvalid, false},
        {"the free 16's foot tag at 12", b + 8, 4, kInvalid, false},
        {"the free rest's second link", rest + 8, 4, kInvalid, false},
        {"the free rest's body at 12", rest + 12, 8, kFree, false},
        {"s in the secondary extent", s, 2400, kNone, true},
        {"the front fence", a - 12, 4, kNotFound, false},
        {"the stats", segment_->primary + primary_extent::kStats, 24, kNotFound, false},
        {"the secondary extent's header", secondary, 4, kNotFound, false},
        {"the secondary's rear fence", secondary + BlockSize(secondary) - 20, 4, kNotFound, false},
        {"a chunk of another segment", elsewhere, 8, kNotFound, false},
    };
    uint32_t direct = ~0u;
    lumtest::LogCapture quiet; // the trace of a's chunk
    _LumMutationClassify(segment_, a + 8, 0, &direct);
    EXPECT_EQ(direct, MUTATION_NONE) << "an empty write in the data";
    _LumMutationClassify(segment_, region_->base + 8 * kMiB, 4, &direct);
    EXPECT_EQ(direct, MUTATION_NOT_FOUND) << "beyond the used image";
    for (auto [what, target, length, verdict, live] : rows) {
        SCOPED_TRACE(what);
        auto [reports, traces] = Rewrite(target, length);
        EXPECT_EQ(reports, *verdict ? std::vector{Report(target, length, verdict)}
                                    : std::vector<std::string>{});
        EXPECT_EQ(traces, live ? 1u : 0u);
    }
    LumMemLogCpyUnsigned(segment_, a - 4, 49); // reported, and stored all the same
    EXPECT_EQ(ImageLoad32(a - 4), 49u);
    LumMemLogCpyUnsigned(segment_, a - 4, 48);
    region_mutation_check = 0;
    EXPECT_EQ(Rewrite(a - 4, 4), std::make_pair(std::vector<std::string>{}, size_t{0}))
        << "the property off: no check, no trace";
    EXPECT_EQ(LumRegionVerifyDeep(region_), 0);
}

// A target behind a damaged chain is in no chunk the walk can reach.
TEST_F(MutationCheckTest, ADamagedChainEndsTheWalkInsideTheImage) {
    AllocLogged(segment_, 2400);
    uint8_t *link = segment_->primary + extent_header::kNext;
    uint8_t *secondary = region_->base + ImageLoad32(link);
    uint8_t *in_secondary = secondary + extent_header::kSecondarySize + 20;
    const std::pair<const char *, uint32_t> damage[] = {
        {"a circle back to the primary extent", ImageOffsetOf(region_, segment_->primary)},
        {"off a page", ImageOffsetOf(region_, secondary) + 8},
        {"past the image", 0xFFFFF000u},
    };
    for (auto [what, next] : damage) {
        SCOPED_TRACE(what);
        ImageStore32(link, next);
        uint32_t verdict = ~0u;
        _LumMutationClassify(segment_, in_secondary, 4, &verdict);
        EXPECT_EQ(verdict, MUTATION_NOT_FOUND);
    }
    ImageStore32(link, ImageOffsetOf(region_, secondary));
}
