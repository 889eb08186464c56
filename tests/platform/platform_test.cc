// The virtual-memory calls behind the seam keep the promises the image
// relies on: reserved memory faults, committed memory reads as zero, and
// decommitted memory is really gone, also for write(2). Protection is tested
// through the regions that use it.
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
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

    // A write from the gap fails with EFAULT, and the descriptor stays good.
    lumtest::TempDir dir;
    int fd = lum_platform.open((dir.path() + "f").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    ASSERT_GE(fd, 0);
    errno = 0;
    EXPECT_EQ(lum_platform.write(fd, base + page, page), -1);
    EXPECT_EQ(errno, EFAULT);
    EXPECT_EQ(lum_platform.write(fd, base, page), static_cast<ssize_t>(page));
    lum_platform.close(fd);

    ASSERT_EQ(lum_platform.commit(base + page, page), 0);
    EXPECT_EQ(std::count(base + page, base + 2 * page, 0), static_cast<ptrdiff_t>(page));
    EXPECT_EQ(lum_platform.release(base, kLength), 0);
}
