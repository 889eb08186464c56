// The logged write path: records, overlapping copies, targets outside the image.
#include <cstdio>
#include <cstring>
#include <functional>
#include <limits>
#include <tuple>

#include "persistent_fixture.h"

namespace {

struct Write {
    const char *name;
    uint32_t width;
    bool always_logs;
    std::function<void(LumSegment *, uint8_t *)> apply;
};
const uint8_t kSource[16] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16};
const Write kWrites[] = {
    {"LumMemLogCpyInt", 4, false, [](auto s, auto at) { LumMemLogCpyInt(s, at, -5); }},
    {"LumMemLogCpyLong", 4, false, [](auto s, auto at) { LumMemLogCpyLong(s, at, 6); }},
    {"LumMemLogCpyUnsigned", 4, false, [](auto s, auto at) { LumMemLogCpyUnsigned(s, at, 7); }},
    {"LumMemLogCpyBoolean", 4, false, [](auto s, auto at) { LumMemLogCpyBoolean(s, at, 1); }},
    {"LumMemLogCpyUTC", 4, false, [](auto s, auto at) { LumMemLogCpyUTC(s, at, 1700000000); }},
    {"LumMemLogCpyfint_t", 4, false, [](auto s, auto at) { LumMemLogCpyfint_t(s, at, 9); }},
    {"LumMemLogCpyShort", 2, false, [](auto s, auto at) { LumMemLogCpyShort(s, at, -2); }},
    {"LumMemLogCpyUShort", 2, false, [](auto s, auto at) { LumMemLogCpyUShort(s, at, 0xFFFE); }},
    {"LumMemLogCpyInt64", 8, false, [](auto s, auto at) { LumMemLogCpyInt64(s, at, 1ll << 32); }},
    {"LumMemLogCpyUnsigned64", 8, false, [](auto s, auto at) { LumMemLogCpyUnsigned64(s, at, 9); }},
    {"LumMemLogCpyReal", 8, false, [](auto s, auto at) { LumMemLogCpyReal(s, at, 1.5); }},
    {"LumMemLogCpy", 16, true, [](auto s, auto at) { LumMemLogCpy(s, at, kSource, 16); }},
    {"LumMemLogSet", 16, true, [](auto s, auto at) { LumMemLogSet(s, at, 0xAB, 16); }},
};

} // namespace

class MutationTest : public PersistentTest {
  protected:
    void SetUp() override {
        region_ = CreatePersistent();
        ASSERT_EQ(_LumImageSetSize(region_, 4 * Page()), 0);
        segment_ = {region_, nullptr};
        Commit(region_);
        LumMemLogCpyInt(&segment_, region_->base + 3 * Page(), 1); // opens the buffer
        ClearMarks();
        target_ = region_->base + Page() + 8;
    }
    void TearDown() override { EXPECT_EQ(LumRegionClose(region_), 0); }
    void ClearMarks() {
        _LumDirtyMapFill(region_, 0, 0);
        _LumDirtyMapFill(region_, 1, 0);
    }
    // Pages marked in either map among [first, end).
    std::vector<uint32_t> Marked(uint32_t first = 0, uint32_t end = 4) const {
        std::vector<uint32_t> pages;
        for (uint32_t page = first; page < end; ++page)
            if (_LumDirtyMapTest(region_->dirty_map[0], page) |
                _LumDirtyMapTest(region_->dirty_map[1], page))
                pages.push_back(page);
        return pages;
    }

    LumRegion *region_ = nullptr;
    LumSegment segment_{};
    uint8_t *target_ = nullptr;
};

// Every length up to past the short copy's limit, inside a page or across
// its end, from a separate or an overlapping source.
TEST_F(MutationTest, EveryCopyEndsAsMemmoveIsLoggedByteExactAndMarksItsPages) {
    uint8_t separate[136];
    uint8_t *page_end = region_->base + 2 * Page();
    for (uint32_t length = 1; length <= sizeof separate; ++length) {
        for (uint8_t *at : {target_, page_end - length, page_end - length / 2}) {
            for (int shift : {0, 5, -5}) {
                SCOPED_TRACE(testing::Message()
                             << length << " bytes at " << at - region_->base << " from " << shift);
                for (int i = -16; i < static_cast<int>(length) + 16; ++i)
                    separate[(i + 16) % sizeof separate] = at[i] =
                        static_cast<uint8_t>(i * 7 + length);
                const uint8_t *source = shift == 0 ? separate : at + shift;
                std::vector<uint8_t> expected(at - 16, at + length + 16);
                memmove(expected.data() + 16, source, length);
                ClearMarks();
                uint32_t used = region_->log_buffer->used;
                EXPECT_EQ(LumMemLogCpy(&segment_, at, source, length), at);
                EXPECT_EQ(std::vector<uint8_t>(at - 16, at + length + 16), expected);
                auto records = BufferRecords(region_, used);
                ASSERT_EQ(records.size(), 1u);
                EXPECT_EQ(records[0].value, static_cast<uint32_t>(at - region_->base));
                EXPECT_EQ(records[0].payload, std::vector<uint8_t>(at, at + length));
                auto first = static_cast<uint32_t>((at - region_->base) / Page()),
                     last = static_cast<uint32_t>((at + length - 1 - region_->base) / Page());
                EXPECT_EQ(Marked(),
                          (first == last ? std::vector{first} : std::vector{first, last}));
            }
        }
    }
}

// Inside the image a write logs its width, a value already there only for the
// block writes; outside the used bytes it is refused whole, with one report.
TEST_F(MutationTest, EachWriteLogsItsWidthInsideTheImageAndIsRefusedOutsideIt) {
    std::vector<Write> writes(std::begin(kWrites), std::end(kWrites));
    writes.push_back({"LumMemLog", 0, true, [](auto s, auto at) { LumMemLog(s, at + 4); }});
    uint8_t *end = region_->base + region_->used;
    ImageStore32(end - 20, 64); // the head tag of a chunk that runs past the used bytes
    const std::tuple<const char *, uint8_t *, bool> targets[] = {
        {"below the base", region_->base - 2, false},
        {"beyond used", end + 64, false},
        {"straddling used", end - 1, false},
        {"a chunk running past used", end - 20, true},
    };
    for (const Write &write : writes) {
        SCOPED_TRACE(write.name);
        memset(target_, 0, 16);
        ClearMarks();
        uint32_t used = region_->log_buffer->used;
        if (write.width != 0) {
            write.apply(&segment_, target_);
            auto records = BufferRecords(region_, used);
            ASSERT_EQ(records.size(), 1u);
            EXPECT_EQ(records[0].value, Page() + 8);
            EXPECT_EQ(records[0].payload, std::vector<uint8_t>(target_, target_ + write.width));
            EXPECT_EQ(Marked(), std::vector<uint32_t>{1});
            used = region_->log_buffer->used;
            write.apply(&segment_, target_);
            EXPECT_EQ(region_->log_buffer->used - used,
                      write.always_logs ? log_record::Size(LOG_DATA, write.width) : 0u);
            used = region_->log_buffer->used;
            ClearMarks();
        }
        for (auto [where, at, chunk_only] : targets) {
            if (chunk_only && write.width != 0)
                continue;
            SCOPED_TRACE(where);
            std::vector<uint8_t> around(end - 32, end + 96);
            lumtest::LogCapture log;
            write.apply(&segment_, at);
            EXPECT_EQ(region_->log_buffer->used, used);
            EXPECT_EQ(Marked(0, region_->dirty_map[0]->page_count), std::vector<uint32_t>{});
            EXPECT_EQ(std::vector<uint8_t>(end - 32, end + 96), around);
            auto records = log.Records();
            ASSERT_EQ(records.size(), 1u);
            EXPECT_EQ(std::tie(records[0].severity, records[0].set, records[0].id),
                      std::make_tuple(4, 3u, 15u));
            char named[96];
            snprintf(named, sizeof named, "%s(): target %p for ", write.name,
                     static_cast<void *>(at));
            EXPECT_EQ(records[0].text.find(named), 0u) << records[0].text;
            EXPECT_NE(records[0].text.find("region \"p\""), std::string::npos) << records[0].text;
        }
    }
    EXPECT_EQ(LumMemLogCpy(&segment_, end, kSource, 16), nullptr);
    EXPECT_EQ(LumMemLogSet(&segment_, end, 1, 16), nullptr);
    EXPECT_EQ(LumMemLogCpy(&segment_, end, kSource, 0), end) << "a length of 0 does nothing";
    EXPECT_EQ(LumMemLogCpy(nullptr, target_, kSource, 4), nullptr);
}

TEST_F(MutationTest, RealIsStoredOnlyWhenItComparesGreaterOrLess) {
    const double nan = std::numeric_limits<double>::quiet_NaN();
    const std::tuple<double, double, bool> cases[] = {
        {1.5, 2.5, true},  {2.5, 1.5, true},  {0.0, -0.0, false},
        {nan, 1.5, false}, {1.5, nan, false},
    };
    for (auto [current, value, stores] : cases) {
        memcpy(target_, &current, sizeof current);
        uint32_t used = region_->log_buffer->used;
        LumMemLogCpyReal(&segment_, target_, value);
        double now;
        memcpy(&now, target_, sizeof now);
        EXPECT_EQ(region_->log_buffer->used != used, stores) << current << " <- " << value;
        EXPECT_EQ(memcmp(&now, stores ? &value : &current, sizeof now), 0) << current;
    }
}

// A wild pointer's change outside the reservation must not mark past the maps.
TEST_F(MutationTest, ChangesOutsideTheReservationMarkNothing) {
    std::vector<uint8_t> outside(2 * region_->hard_limit + 2 * Page());
    uint8_t *wild = nullptr;
    for (uint8_t *at = outside.data() + 64; !wild; at += Page()) {
        auto offset = static_cast<uint32_t>(at - region_->base);
        if (offset >= region_->hard_limit && offset < UINT32_MAX - 4 * Page())
            wild = at;
    }
    // A used chunk of 16 bytes between used neighbours, its pointer 8-aligned.
    uint8_t *chunk = wild + (12 - reinterpret_cast<uintptr_t>(wild) % 8);
    for (uint32_t at : {0u, 12u, 16u, 28u, 32u})
        ImageStore32(chunk - 16 + at, 16);
    LumSegment *segment = NewSegment(region_, Page(), Page());
    ClearMarks();
    _LumImageMarkDirty(region_, chunk + 64, 4);    // in line
    _LumImageMarkDirty(region_, chunk + 64, 3000); // out of line
    LumMemFree(segment, chunk + 4);                // the allocator's batch
    EXPECT_EQ(Marked(region_->used / Page(), region_->dirty_map[0]->page_count),
              std::vector<uint32_t>{});
    LumSegmentClose(segment);
}
