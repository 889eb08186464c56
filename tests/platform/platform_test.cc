// The virtual-memory calls behind the seam keep the promises the image
// relies on: reserved memory faults, committed memory reads as zero, and
// decommitted memory is really gone, also for write(2).
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "platform/platform.h"
#include "test_support.h"

namespace {

constexpr size_t kLength = 4 * 1024 * 1024;

struct Reservation {
    Reservation() : base(static_cast<uint8_t *>(lum_platform.reserve(kLength))) {}
    ~Reservation() { lum_platform.release(base, kLength); }
    uint8_t *base;
};

} // namespace

TEST(PlatformVm, ReservedMemoryFaultsUntilCommitted) {
    Reservation r;
    ASSERT_NE(r.base, nullptr);
    EXPECT_TRUE(lumtest::FaultsInChild([&] { (void)*static_cast<volatile uint8_t *>(r.base); }));
    ASSERT_EQ(lum_platform.commit(r.base, kLength / 2), 0);
    EXPECT_EQ(r.base[0], 0);
    EXPECT_EQ(r.base[kLength / 2 - 1], 0);
    EXPECT_TRUE(lumtest::FaultsInChild([&] { r.base[kLength / 2] = 1; }));
}

TEST(PlatformVm, DecommitDropsContentsAndRecommitReadsZero) {
    Reservation r;
    size_t page = lum_platform.page_size();
    ASSERT_EQ(lum_platform.commit(r.base, kLength), 0);
    memset(r.base, 0x5A, kLength);
    ASSERT_EQ(lum_platform.decommit(r.base + page, page), 0);
    EXPECT_TRUE(
        lumtest::FaultsInChild([&] { (void)*static_cast<volatile uint8_t *>(r.base + page); }));
    EXPECT_EQ(r.base[0], 0x5A) << "neighbours keep their contents";
    EXPECT_EQ(r.base[2 * page], 0x5A);
    ASSERT_EQ(lum_platform.commit(r.base + page, page), 0);
    for (size_t i = 0; i < page; ++i)
        ASSERT_EQ(r.base[page + i], 0);
}

TEST(PlatformVm, WriteFromDecommittedMemoryFailsWithEfaultAndTheDescriptorStaysGood) {
    Reservation r;
    size_t page = lum_platform.page_size();
    ASSERT_EQ(lum_platform.commit(r.base, 2 * page), 0);
    memset(r.base, 'x', 2 * page);
    ASSERT_EQ(lum_platform.decommit(r.base + page, page), 0);
    lumtest::TempDir dir;
    int fd = lum_platform.open((dir.path() + "f").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    ASSERT_GE(fd, 0);
    errno = 0;
    EXPECT_EQ(lum_platform.write(fd, r.base + page, page), -1);
    EXPECT_EQ(errno, EFAULT);
    EXPECT_EQ(lum_platform.write(fd, r.base, page), static_cast<ssize_t>(page));
    lum_platform.close(fd);
}

TEST(PlatformVm, ProtectMakesPagesReadOnlyAndBack) {
    Reservation r;
    size_t page = lum_platform.page_size();
    ASSERT_EQ(lum_platform.commit(r.base, 2 * page), 0);
    ASSERT_EQ(lum_platform.protect(r.base, page, 0), 0);
    EXPECT_TRUE(lumtest::FaultsInChild([&] { r.base[0] = 1; }));
    EXPECT_FALSE(lumtest::FaultsInChild([&] { r.base[page] = 1; }));
    ASSERT_EQ(lum_platform.protect(r.base, page, 1), 0);
    EXPECT_FALSE(lumtest::FaultsInChild([&] { r.base[0] = 1; }));
}
