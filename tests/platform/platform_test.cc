// The promises the image relies on: only committed memory is there, and
// decommitted memory is really gone.
#include <algorithm>
#include <cstring>
#include <gtest/gtest.h>

#include "platform/platform.h"
#include "test_support.h"

using lumtest::FaultsInChild;

TEST(PlatformVm, OnlyCommittedMemoryIsThereAndACommitAfterADecommitReadsZero) {
    constexpr size_t kLength = 4 * 1024 * 1024;
    size_t page = lum_platform.page_size();
    auto *base = static_cast<uint8_t *>(lum_platform.reserve(kLength));
    ASSERT_NE(base, nullptr);
    EXPECT_TRUE(FaultsInChild([&] { (void)*static_cast<volatile uint8_t *>(base); }));
    ASSERT_EQ(lum_platform.commit(base, kLength / 2), 0);
    EXPECT_EQ(base[0] | base[kLength / 2 - 1], 0);
    EXPECT_TRUE(FaultsInChild([&] { base[kLength / 2] = 1; }));
    memset(base, 'x', kLength / 2);
    ASSERT_EQ(lum_platform.decommit(base + page, page), 0);
    EXPECT_TRUE(FaultsInChild([&] { (void)*static_cast<volatile uint8_t *>(base + page); }));
    EXPECT_EQ(base[page - 1], 'x') << "neighbours keep their contents";
    EXPECT_EQ(base[2 * page], 'x');

    ASSERT_EQ(lum_platform.commit(base + page, page), 0);
    EXPECT_EQ(std::count(base + page, base + 2 * page, 0), static_cast<ptrdiff_t>(page));
    EXPECT_EQ(lum_platform.release(base, kLength), 0);
}
