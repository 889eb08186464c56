// The logged write path: compare-before-write, the record each operation
// leaves, and the protection calls around the store.
#include <cstring>
#include <limits>
#include <tuple>

#include "persistent_fixture.h"

using lumtest::VmRecorder;

class MutationTest : public PersistentTest {
  protected:
    void SetUp() override {
        region_ = CreatePersistent();
        ASSERT_EQ(_LumImageSetSize(region_, 4 * Page()), 0);
        segment_ = {region_, nullptr};
        Commit(region_); // empties the buffer
        for (int parity = 0; parity < 2; ++parity)
            _LumDirtyMapFill(region_, parity, 0);
        target_ = region_->base + Page() + 8;
    }
    void TearDown() override { EXPECT_EQ(LumRegionClose(region_), 0); }

    // The records in the buffer behind its opening LOG_SIZE.
    std::vector<ParsedRecord> Buffered() const {
        return BufferRecords(region_, log_record::kHeadSize);
    }

    bool PageDirty(uint32_t page) const {
        return _LumDirtyMapTest(region_->dirty_map[0], page) &&
               _LumDirtyMapTest(region_->dirty_map[1], page);
    }

    LumRegion *region_ = nullptr;
    LumSegment segment_{};
    uint8_t *target_ = nullptr;
};

TEST_F(MutationTest, ChangedValuesAreStoredLoggedInTheirOwnWidthAndMarked) {
    LumMemLogCpyInt(&segment_, target_, -5);
    LumMemLogCpyShort(&segment_, target_ + 4, -2);
    LumMemLogCpyUShort(&segment_, target_ + 6, 0xFFFE);
    LumMemLogCpyUnsigned64(&segment_, target_ + 8, 0x0102030405060708ull);
    LumMemLogCpyUnsigned(&segment_, target_ + 16, 7);
    LumMemLogCpyLong(&segment_, target_ + 20, 8);
    LumMemLogCpyBoolean(&segment_, target_ + 24, 1);
    LumMemLogCpyUTC(&segment_, target_ + 28, 1700000000);
    LumMemLogCpyfint_t(&segment_, target_ + 32, 9);
    LumMemLogCpyInt64(&segment_, target_ + 36, 0x0000000100000000ll); // only the high half differs
    auto records = Buffered();
    EXPECT_EQ(LengthsOf(records), (std::vector<uint32_t>{4, 2, 2, 8, 4, 4, 4, 4, 4, 8}));
    EXPECT_EQ(records[0].type, static_cast<uint32_t>(LOG_DATA));
    EXPECT_EQ(records[0].value, Page() + 8);
    EXPECT_EQ(ImageLoad32(records[0].payload.data()), static_cast<uint32_t>(-5));
    EXPECT_EQ(region_->log_buffer->used, 12u + 16 + 16 + 16 + 20 + 5 * 16 + 20)
        << "2 bytes take 16";
    EXPECT_EQ(ImageLoad32(target_), static_cast<uint32_t>(-5));
    uint64_t stored;
    memcpy(&stored, target_ + 8, 8);
    EXPECT_EQ(stored, 0x0102030405060708ull);
    EXPECT_EQ(ImageLoad32(target_ + 36), 0u);
    EXPECT_EQ(ImageLoad32(target_ + 40), 1u);
    EXPECT_TRUE(PageDirty(1));
    EXPECT_FALSE(PageDirty(0));
    LumMemLogCpyUShort(&segment_, target_ + 4, 0xFFFE); // the same 16 bits as -2
    EXPECT_EQ(Buffered().size(), 10u);
}

TEST_F(MutationTest, EveryLengthIsLoggedByteExactAndMarksEveryPageItTouches) {
    // Lengths on both sides of every copy width, of the short copy's limit
    // (128 bytes), and changes that end on or cross a page's last byte.
    uint8_t source[136];
    for (uint32_t i = 0; i < sizeof source; ++i)
        source[i] = static_cast<uint8_t>(0xA0 + i);
    uint8_t *page_end = region_->base + 2 * Page();
    LumMemLogCpyInt(&segment_, target_ + 256, 1); // opens the buffer with its LOG_SIZE
    for (uint32_t length = 1; length <= sizeof source; ++length) {
        for (uint8_t *at : {target_, page_end - length, page_end - length / 2}) {
            SCOPED_TRACE(testing::Message() << "length " << length << " at " << at - region_->base);
            for (int parity = 0; parity < 2; ++parity)
                _LumDirtyMapFill(region_, parity, 0);
            memset(at - 8, 0x11, length + 16);
            uint32_t used = region_->log_buffer->used;
            _LumMemCopy(&segment_, at, source, length);
            auto records = BufferRecords(region_, used);
            ASSERT_EQ(records.size(), 1u);
            EXPECT_EQ(records[0].value, static_cast<uint32_t>(at - region_->base));
            EXPECT_EQ(records[0].payload, std::vector<uint8_t>(source, source + length));
            EXPECT_EQ(at[-1], 0x11) << "bytes around the change stay";
            EXPECT_EQ(at[length], 0x11);
            uint32_t first = static_cast<uint32_t>(at - region_->base) / Page();
            uint32_t last = static_cast<uint32_t>(at + length - 1 - region_->base) / Page();
            for (uint32_t page = 0; page < 4; ++page)
                EXPECT_EQ(PageDirty(page), page >= first && page <= last) << "page " << page;
        }
    }
}

TEST_F(MutationTest, RealStoresOnlyForGreaterOrLess) {
    const double nan = std::numeric_limits<double>::quiet_NaN();
    // The value, the current one, and whether the value is stored.
    const std::tuple<double, double, bool> rows[] = {
        {1.5, 2.5, true},  {1.5, 1.5, false}, {-0.0, 0.0, false}, {nan, 1.0, false},
        {1.0, nan, false}, {nan, nan, false}, {-nan, 0.0, false}, {2.0, -nan, false}};
    for (auto [value, current, stored] : rows) {
        memcpy(target_, &current, 8);
        uint32_t before = region_->log_buffer->used;
        LumMemLogCpyReal(&segment_, target_, value);
        EXPECT_EQ(region_->log_buffer->used != before, stored) << value << " over " << current;
        const double &expected = stored ? value : current;
        EXPECT_EQ(memcmp(target_, &expected, 8), 0) << value << " over " << current;
    }
}

TEST_F(MutationTest, BlockAndChunkLogsAlwaysLogWhileNoLogAndZeroLengthsAppendNothing) {
    uint8_t same[16];
    memcpy(same, target_, sizeof same);
    EXPECT_EQ(LumMemLogCpy(&segment_, target_, same, sizeof same), target_);
    EXPECT_EQ(LumMemLogSet(&segment_, target_ + 16, 0xAB, 3), target_ + 16);
    EXPECT_EQ(target_[18], 0xAB);
    // A chunk of 64 bytes: head tag at the chunk, the pointer 4 bytes on.
    uint8_t *chunk = target_ + 64;
    ImageStore32(chunk, 64);
    ImageStore32(chunk + 60, 64);
    LumMemLog(&segment_, chunk + 4);
    auto records = Buffered();
    EXPECT_EQ(LengthsOf(records), (std::vector<uint32_t>{16, 3, 64}));
    EXPECT_EQ(records[2].value, static_cast<uint32_t>(chunk - region_->base)) << "from its head";
    uint32_t used = region_->log_buffer->used;
    LumMemNoLog(&segment_, chunk + 4);
    EXPECT_EQ(LumMemLogCpy(&segment_, target_, same, 0), target_);
    EXPECT_EQ(LumMemLogSet(&segment_, target_, 1, 0), target_);
    EXPECT_EQ(region_->log_buffer->used, used);
    EXPECT_EQ(LumMemLogCpy(nullptr, target_, same, 4), nullptr);
}

TEST_F(MutationTest, UnchangedValueTouchesNothingAndAChangeOpensAndClosesItsPage) {
    region_protect_all = 1;
    VmRecorder vm;
    LumMemLogCpyInt(&segment_, target_, 0);
    LumMemLogCpyInt64(&segment_, target_, 0);
    LumMemLogCpyReal(&segment_, target_, 0.0);
    _LumMemWriteWord(&segment_, target_, 0);
    EXPECT_EQ(region_->log_buffer->used, 0u);
    EXPECT_FALSE(PageDirty(1));
    EXPECT_TRUE(vm.protects.empty());
    LumMemLogCpyInt(&segment_, target_, 3);
    region_protect_all = 0;
    ASSERT_EQ(vm.protects.size(), 2u);
    EXPECT_EQ(vm.protects[0].writable, 1);
    EXPECT_EQ(vm.protects[1].writable, 0);
    EXPECT_EQ(vm.protects[0].address, region_->base + Page());
    EXPECT_TRUE(lumtest::FaultsInChild([&] { *target_ = 1; })) << "read-only again";
    _LumPageUnprotect(region_, target_, 4); // for the fixture's own writes
}

class VolatileMutation : public RegionTest {};

TEST_F(VolatileMutation, ProtectionCallsAreMadeAndNothingIsLogged) {
    LumRegion *region = Create(kMiB, kMiB, /*protect=*/1);
    LumSegment segment{region, nullptr};
    VmRecorder vm;
    LumMemLogCpyInt(&segment, region->base + 100, 42);
    EXPECT_EQ(ImageLoad32(region->base + 100), 42u);
    EXPECT_EQ(vm.protects.size(), 2u);
    EXPECT_EQ(LumRegionCommit(region), 0);
    Close(region);
}
