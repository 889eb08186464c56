// Page protection: which regions protect, which pages the two calls touch,
// the allocations that stay writable until the host ends them, and the
// report of a protection change that fails.
#include <cstring>
#include <random>

#include "region_fixture.h"

using lumtest::FaultsInChild;
using lumtest::VmRecorder;

namespace {

// Switches Region.ProtectAll for one scope.
struct ProtectAll {
    explicit ProtectAll(int32_t on) { region_protect_all = on; }
    ~ProtectAll() { region_protect_all = 0; }
};

LumSegment *NewSegment(LumRegion *region) {
    LumSegment *segment = nullptr;
    EXPECT_EQ(
        LumSegmentCreate(region, 16 * region_page_size, 16 * region_page_size, 0, 0, &segment), 0);
    return segment;
}

uint8_t *Allocate(LumSegment *segment, uint32_t size) {
    void *pointer = nullptr;
    EXPECT_EQ(LumMemAlloc(segment, size, &pointer), 0);
    return static_cast<uint8_t *>(pointer);
}

} // namespace

// A region protects when it asks to or when Region.ProtectAll is on; then
// its header is read-only after creation, an unprotect opens a page and a
// protect closes it again. A region that does not protect never calls the
// platform, not even for an allocation and its log and free.
TEST_F(RegionTest, OnlyProtectingRegionsRefuseStoresAndCallThePlatform) {
    const int32_t rows[][2] = {{1, 0}, {0, 1}, {0, 0}}; // protect, Region.ProtectAll
    for (const auto &[protect, all] : rows) {
        SCOPED_TRACE(testing::Message() << "protect " << protect << ", all " << all);
        ProtectAll switched(all);
        LumRegion *region = Create(kMiB, kMiB, protect);
        EXPECT_EQ(region->protect, protect) << "the handle keeps its own switch";
        uint8_t *word = region->base + region_header::kSegmentCount;
        bool protects = protect || all;
        EXPECT_EQ(FaultsInChild([&] { *word = 1; }), protects);
        _LumPageUnprotect(region, word, 4);
        EXPECT_FALSE(FaultsInChild([&] { *word = 1; }));
        _LumPageProtect(region, word, 4);
        EXPECT_EQ(FaultsInChild([&] { *word = 1; }), protects);
        EXPECT_EQ(*word, 0) << "reads work on a protected page";
        VmRecorder vm;
        LumSegment *segment = NewSegment(region);
        uint8_t *chunk = Allocate(segment, 64);
        LumMemLog(segment, chunk);
        EXPECT_EQ(LumMemFree(segment, chunk), 0);
        EXPECT_EQ(LumSegmentDrop(segment), 0);
        EXPECT_EQ(vm.protects.empty(), !protects);
        Close(region);
    }
}

TEST_F(RegionTest, ProtectionCoversEveryPageTheRangeTouches) {
    LumRegion *region = Create(kMiB, kMiB, 1);
    ASSERT_EQ(_LumImageSetSize(region, 4 * Page()), 0);
    VmRecorder vm;
    _LumPageProtect(region, region->base + Page() + Page() / 2, Page());
    _LumPageUnprotect(region, region->base + 3 * Page() - 1, 1);
    ASSERT_EQ(vm.protects.size(), 2u);
    EXPECT_EQ(vm.protects[0].address, region->base + Page());
    EXPECT_EQ(vm.protects[0].length, 2 * Page());
    EXPECT_EQ(vm.protects[0].writable, 0);
    EXPECT_EQ(vm.protects[1].address, region->base + 2 * Page());
    EXPECT_EQ(vm.protects[1].length, Page());
    EXPECT_EQ(vm.protects[1].writable, 1);
}

// A seeded run of a host on a protected region: it allocates, fills its
// allocations whenever it likes, and ends them with LumMemLog, LumMemNoLog
// or LumMemFree, while the allocator and the logs of other allocations
// protect pages around it. A store into an open allocation must never
// fault, every allocation keeps what was stored last, and once all are
// ended their pages are read-only. Runs in a child, where a fault shows.
TEST_F(RegionTest, AllocationsStayWritableUntilTheHostEndsThem) {
    LumRegion *region = Create(4 * kMiB, 4 * kMiB, 1);
    LumSegment *segment = NewSegment(region);
    int status = lumtest::RunInChild([&] {
        struct Allocation {
            uint8_t *data;
            uint32_t size;
            uint8_t byte;
        };
        std::vector<Allocation> open, ended;
        std::mt19937 random(20240611);
        auto pick = [&](std::vector<Allocation> &from) {
            size_t at = random() % from.size();
            Allocation taken = from[at];
            from.erase(from.begin() + static_cast<ptrdiff_t>(at));
            return taken;
        };
        for (int step = 0; step < 3000; ++step) {
            uint32_t action = random() % 8;
            bool fresh = open.empty() || action < 2;
            if (fresh) {
                uint8_t *data = Allocate(segment, 1 + random() % 300);
                open.push_back({data, LumMemGetSize(data), 0});
            }
            Allocation &some = fresh ? open.back() : open[random() % open.size()];
            if (fresh || action <= 3) {
                some.byte = static_cast<uint8_t>(random());
                memset(some.data, some.byte, some.size);
            } else if (action <= 5) {
                Allocation done = pick(open);
                (action == 4 ? LumMemLog : LumMemNoLog)(segment, done.data);
                ended.push_back(done);
            } else if (action == 6 || ended.empty()) {
                LumMemFree(segment, pick(open).data);
            } else {
                LumMemFree(segment, pick(ended).data);
            }
        }
        if (region->open_chunks.overflowed)
            return 1; // the run must stay within the tracked allocations
        for (const Allocation &allocation : open)
            LumMemLog(segment, allocation.data);
        ended.insert(ended.end(), open.begin(), open.end());
        for (const Allocation &allocation : ended) {
            for (uint32_t i = 0; i < allocation.size; ++i) {
                if (allocation.data[i] != allocation.byte)
                    return 2;
            }
        }
        if (LumRegionVerify(region) != 0)
            return 3;
        return FaultsInChild([&] { ended[0].data[0] ^= 1; }) ? 0 : 4;
    });
    EXPECT_EQ(lumtest::ExitCode(status), 0);
}

// More open allocations than a region keeps track of: rather than close
// one under its host, the region stops protecting its pages.
TEST_F(RegionTest, TooManyOpenAllocationsEndProtectionForTheRegion) {
    LumRegion *region = Create(kMiB, kMiB, 1);
    LumSegment *segment = NewSegment(region);
    std::vector<uint8_t *> chunks(kOpenChunkSlots + 1);
    for (uint8_t *&chunk : chunks)
        chunk = Allocate(segment, 64);
    for (uint8_t *chunk : chunks)
        LumMemLog(segment, chunk);
    EXPECT_FALSE(FaultsInChild([&] {
        for (uint8_t *chunk : chunks)
            memset(chunk, 1, 64);
    }));
}

// A protection change that the system refuses is reported once per region,
// with the region's name and the system's reason, and the region goes on.
TEST_F(RegionTest, AFailedProtectionChangeIsReportedOncePerRegion) {
    lumtest::PlatformGuard guard;
    lum_platform.protect = [](void *, size_t, int) { return EACCES; };
    lumtest::LogCapture log;
    const std::string names[] = {"first", "second"};
    for (const std::string &name : names) {
        LumRegion *region = Create(kMiB, kMiB, 1, name.c_str());
        _LumPageUnprotect(region, region->base, 1);
        _LumPageProtect(region, region->base, 1);
    }
    auto reports = log.Find(3, 14);
    ASSERT_EQ(reports.size(), 2u);
    EXPECT_EQ(log.Records().size(), 2u);
    for (size_t i = 0; i < 2; ++i) {
        EXPECT_EQ(reports[i].severity, 5);
        EXPECT_EQ(reports[i].text, "Failed to change the page protection of region " + names[i] +
                                       ": " + strerror(EACCES));
    }
}
