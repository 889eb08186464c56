// The image: limits and their rounding, committing and decommitting, the soft limit.
#include <algorithm>
#include <cstring>
#include <tuple>

#include "region_fixture.h"

using lumtest::LogCapture;
using lumtest::VmRecorder;

TEST_F(RegionTest, CreateRoundsTheLimitsAndCommitsOneMiB) {
    // hard limit asked, soft limit asked, hard limit, soft limit (near 4 GiB, the last page)
    const uint32_t rows[][4] = {{kMiB, kMiB, kMiB, kMiB},
                                {kMiB + 1, kMiB, 2 * kMiB, kMiB},
                                {kMiB, 1, kMiB, Page()},
                                {kMiB, 0xFFFFFFFF, kMiB, ~(Page() - 1)},
                                {0xFFF00000, kMiB, 0xFFF00000, kMiB}};
    for (const auto &row : rows) {
        SCOPED_TRACE(testing::Message() << "limits " << row[0] << ", " << row[1]);
        LumRegion *region = Create(row[0], row[1]);
        EXPECT_EQ(std::make_pair(region->hard_limit, region->soft_limit),
                  std::pair(row[2], row[3]));
        EXPECT_EQ(region->used, (2088 + Page() - 1) & ~(Page() - 1));
        EXPECT_EQ(region->committed, kMiB);
    }
}

// The committed range follows in whole MiB through one platform call, only when
// it must move. A failed commit changes nothing; a failed decommit is reported.
TEST_F(RegionTest, SetSizeMovesTheCommittedRangeInWholeMiB) {
    // what, hard and soft limit in MiB, size from (0: the new region's), size,
    // rc, used, committed, fail (1: the commit fails, 2: the decommit)
    using Row = std::tuple<const char *, uint32_t, uint32_t, uint32_t, uint32_t, int32_t, uint32_t,
                           uint32_t, int>;
    const uint32_t page = Page(), mib = kMiB;
    const Row rows[] = {
        {"up to the first MiB", 4, 4, 0, mib, 0, mib, mib, 0},
        {"a page past it", 4, 4, 0, mib + page, 0, mib + page, 2 * mib, 0},
        {"rounded to a page", 4, 4, 0, 3 * page + 1, 0, 4 * page, mib, 0},
        {"the soft limit", 4, 2, 0, 2 * mib, 0, 2 * mib, 2 * mib, 0},
        {"a byte past it", 4, 2, 2 * mib, 2 * mib + 1, LUM_RC_SOFT_LIMIT, 2 * mib, 2 * mib, 0},
        {"near 4 GiB, not wrapped", 4, 4, 0, 0xFFFFFFFF, LUM_RC_SOFT_LIMIT, page, mib, 0},
        {"the hard limit, under the soft", 2, 8, 0, 2 * mib, 0, 2 * mib, 2 * mib, 0},
        {"past the hard limit", 2, 8, 2 * mib, 2 * mib + 1, LUM_RC_EXTEND, 2 * mib, 2 * mib, 0},
        {"shrinking", 8, 8, 3 * mib, mib + page, 0, mib + page, 2 * mib, 0},
        {"zero", 4, 4, 2 * mib, 0, 0, 0, 0, 0},
        {"a failed commit", 4, 4, 3 * mib, 3 * mib + 1, LUM_RC_EXTEND, 3 * mib, 3 * mib, 1},
        {"a failed decommit", 4, 4, 3 * mib, page, 0, page, mib, 2},
    };
    for (auto [what, hard_mib, soft_mib, from, size, rc, used, committed_after, fail] : rows) {
        SCOPED_TRACE(what);
        LumRegion *region = Create(hard_mib * mib, soft_mib * mib);
        ASSERT_EQ(from ? _LumImageSetSize(region, from) : 0, 0);
        uint32_t committed = region->committed;
        VmRecorder vm;
        vm.fail_commit = fail == 1;
        vm.fail_decommit = fail == 2;
        LogCapture log;
        EXPECT_EQ(_LumImageSetSize(region, size), rc);
        EXPECT_EQ(region->used, used);
        EXPECT_EQ(region->committed, committed_after);
        uint32_t low = std::min(committed, committed_after),
                 high = std::max(committed, committed_after);
        EXPECT_EQ(vm.commits.size() + vm.decommits.size(), low != high || fail ? 1u : 0u);
        for (const auto &call : committed_after > committed ? vm.commits : vm.decommits) {
            EXPECT_EQ(call.address, region->base + low);
            EXPECT_EQ(call.length, high - low);
        }
        char reported[96] = "4 2/29 Soft limit exceeded for region : test";
        if (fail == 2)
            snprintf(reported, sizeof reported, "5 3/1 VF error %p %u %u",
                     static_cast<void *>(region->base), committed, committed_after);
        EXPECT_EQ(log.Lines(), rc == LUM_RC_SOFT_LIMIT || fail == 2
                                   ? std::vector<std::string>{reported}
                                   : std::vector<std::string>{});
        Close(region);
    }
}

// An unrounded soft limit stops sizes at its last whole page.
TEST_F(RegionTest, SetSoftLimitAcceptsBothBoundsAndRefusesBeyond) {
    LumRegion *region = Create(4 * kMiB, 2 * kMiB);
    ASSERT_EQ(LumRegionSetSoftLimit(region, 3 * Page() - 1), 0);
    EXPECT_EQ(_LumImageSetSize(region, 2 * Page()), 0);
    EXPECT_EQ(_LumImageSetSize(region, 2 * Page() + 1), LUM_RC_SOFT_LIMIT);
    EXPECT_EQ(LumRegionSetSoftLimit(region, 4 * kMiB + 1), LUM_RC_SOFT_ABOVE_HARD);
    EXPECT_EQ(LumRegionSetSoftLimit(region, 2 * Page() - 1), LUM_RC_SOFT_BELOW_USED);
    EXPECT_EQ(region->soft_limit, 3 * Page() - 1) << "a refusal changes nothing";
    EXPECT_EQ(LumRegionSetSoftLimit(region, 2 * Page()), 0);
    EXPECT_EQ(LumRegionSetSoftLimit(region, 4 * kMiB), 0);
}
