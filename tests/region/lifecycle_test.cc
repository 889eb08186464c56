// Creating, inspecting, closing and dropping regions.
#include <cstring>
#include <fstream>
#include <string_view>
#include <tuple>

#include "persistent_fixture.h"

namespace {

int32_t CreateNamed(const char *name, int32_t type, const char *directory, LumRegion **region) {
    void *base;
    return LumRegionCreate(name, type, kMiB, kMiB, 0, 0, directory, region, &base);
}

bool RegistryIsEmpty() {
    return std::ranges::count(region_registry, nullptr) == kRegistrySlots;
}

} // namespace

// Each extent bin's sentinel links to itself; the used bytes are summed over
// the segment map, skipping a damaged entry beyond the image.
TEST_F(RegionTest, NewRegionHasAnEmptyHeaderAndReportsItself) {
    std::string name(LUM_REGION_NAME_MAX, 'n');
    LumRegion *region;
    void *base;
    ASSERT_EQ(LumRegionCreate(name.c_str(), LUM_REGION_SCRATCH, 3 * kMiB, 2 * kMiB, 0, 0,
                              "./relative/", &region, &base),
              0);
    std::vector<uint8_t> header(region->used, 0);
    for (uint32_t bin = 0; bin < bin_array::kBins; ++bin) {
        uint32_t sentinel = region_header::kExtentBins + bin_array::SentinelOffset(bin);
        ImageStore32(&header[sentinel + bin_array::kLinkUp], sentinel);
        ImageStore32(&header[sentinel + bin_array::kLinkDown], sentinel);
    }
    ImageStore32(&header[region_header::kPageSizeWord], Page() | 2);
    EXPECT_TRUE(std::equal(header.begin(), header.end(), region->base));
    EXPECT_STREQ(region->directory, "");
    EXPECT_EQ(region->chk_fd[0] & region->chk_fd[1] & region->log_fd[0] & region->log_fd[1], -1);
    EXPECT_EQ(LumRegionSetCheckpointing(region, 0), LUM_RC_FAILURE);
    EXPECT_EQ(LumRegionGetUsedBytes(region), 0u);

    ASSERT_EQ(_LumImageSetSize(region, 3 * Page()), 0);
    uint8_t *map = region->base + region_header::kSegmentMap;
    ImageStore32(map, Page());
    ImageStore32(map + 4 * 127, 2 * Page());
    ImageStore32(map + 4 * 5, 0xFFFFF000); // damaged: beyond the image
    ImageStore32(region->base + Page() + primary_extent::kUsedBytes, 100);
    ImageStore32(region->base + 2 * Page() + primary_extent::kUsedBytes, 23);
    ImageStore32(region->base + region_header::kSegmentCount, 3);
    EXPECT_EQ(LumRegionGetUsedBytes(region), 123u);
    EXPECT_EQ(LumRegionDrop(region), LUM_RC_SEGMENTS_REMAIN);
    EXPECT_FALSE(RegistryIsEmpty()) << "still open and registered";
    LumRegionInfo info,
        expected{{}, LUM_REGION_SCRATCH, 3 * kMiB, 2 * kMiB, 0, 1, base, 3 * Page(), 3};
    memcpy(expected.name, name.c_str(), name.size() + 1);
    memset(&info, 0xEE, sizeof info);
    LumRegionGetInfo(region, &info);
    EXPECT_EQ(memcmp(&info, &expected, sizeof info), 0);
    EXPECT_EQ(LumRegionClose(region), 0);
}

// Every refusal comes before anything is made, files, registry entry or out words.
TEST(RegionCreate, BadArgumentsAreRefusedBeforeAnythingIsMade) {
    lumtest::TempDir dir;
    const char *temp = dir.path().c_str();
    std::string long_name(LUM_REGION_NAME_MAX + 1, 'n'), name_to_fit(LUM_REGION_NAME_MAX, 'n');
    std::string long_directory(kPathBufferSize - LUM_REGION_NAME_MAX - 7, 'd');
    // name, type, directory, hard limit, rc
    std::vector<std::tuple<const char *, int32_t, const char *, uint32_t, int32_t>> rows = {
        {nullptr, LUM_REGION_VOLATILE, nullptr, kMiB, LUM_RC_FAILURE},
        {long_name.c_str(), LUM_REGION_VOLATILE, nullptr, kMiB, LUM_RC_FAILURE},
        {"t", 0, temp, kMiB, LUM_RC_FAILURE},
        {"t", 4, temp, kMiB, LUM_RC_FAILURE},
        {"p", LUM_REGION_PERSISTENT, nullptr, kMiB, LUM_RC_FAILURE},
        {"p", LUM_REGION_PERSISTENT, "./data/", kMiB, LUM_RC_FAILURE},
        // directory, name and ".tabnew" must fit a path
        {name_to_fit.c_str(), LUM_REGION_PERSISTENT, long_directory.c_str(), kMiB, LUM_RC_FAILURE},
    };
    for (const char *name : {"", ".", "..", "a/b", "/abs", "../up", "up/.."})
        for (int32_t type : {LUM_REGION_PERSISTENT, LUM_REGION_VOLATILE, LUM_REGION_SCRATCH})
            rows.push_back({name, type, temp, kMiB, LUM_RC_FAILURE});
    for (uint32_t hard_limit : {0u, 0xFFF00001u, 0xFFFFFFFFu})
        for (int32_t type : {LUM_REGION_PERSISTENT, LUM_REGION_VOLATILE})
            rows.push_back({"big", type, temp, hard_limit, LUM_RC_RESERVE});
    for (auto [name, type, directory, hard_limit, rc] : rows) {
        SCOPED_TRACE(testing::Message() << "name " << (name ? name : "(null)") << ", type " << type
                                        << ", hard limit " << hard_limit);
        LumRegion *region = reinterpret_cast<LumRegion *>(1);
        void *base = reinterpret_cast<void *>(1);
        EXPECT_EQ(LumRegionCreate(name, type, hard_limit, kMiB, 0, 0, directory, &region, &base),
                  rc);
        EXPECT_EQ(region, reinterpret_cast<LumRegion *>(1));
        EXPECT_EQ(base, reinterpret_cast<void *>(1));
        EXPECT_TRUE(std::filesystem::is_empty(dir.path()));
        ASSERT_TRUE(RegistryIsEmpty());
    }
    LumRegion *region;
    EXPECT_EQ(
        LumRegionCreate("v", LUM_REGION_VOLATILE, kMiB, kMiB, 0, 0, nullptr, &region, nullptr),
        LUM_RC_FAILURE);
    EXPECT_EQ(CreateNamed("v", LUM_REGION_VOLATILE, nullptr, nullptr), LUM_RC_FAILURE);
    for (int32_t rc : {LumRegionClose(nullptr), LumRegionDrop(nullptr),
                       LumRegionSetSoftLimit(nullptr, kMiB), LumRegionSetCheckpointing(nullptr, 1),
                       LumRegionPropMgrInitialise(nullptr), LumRegionArgMgrInitialise(nullptr)})
        EXPECT_EQ(rc, LUM_RC_FAILURE);
    EXPECT_EQ(LumRegionGetUsedBytes(nullptr), 0u);
    LumRegionGetInfo(nullptr, nullptr);
    lumtest::PlatformGuard guard; // a failed reservation leaves nothing (asan checks for leaks)
    lum_platform.reserve = [](size_t) -> void * { return nullptr; };
    EXPECT_EQ(CreateNamed("v", LUM_REGION_VOLATILE, nullptr, &region), LUM_RC_RESERVE);
    EXPECT_TRUE(RegistryIsEmpty());
}

// A name in use is refused without a change to its files. After the close a
// create starts clean; an old snapshot it cannot remove would be recovered
// over the new logs, so that create fails and keeps it.
TEST_F(PersistentTest, RegionInUseIsRefusedAndAfterItsCloseACreateStartsClean) {
    LumRegion *first = CreatePersistent();
    Change(first, 4000, 8, 0x5a); // behind the region header's fields
    LumRegionCommit(first);
    ASSERT_EQ(LumRegionCheckpoint(first), 0);
    ASSERT_EQ(_LumRegionSync(first, dir_.path().c_str()), 0);
    auto files = [&] {
        std::vector<std::vector<uint8_t>> all;
        for (const char *file : {"p_0.chk", "p_1.chk", "p_0.log", "p_1.log", "p.tab"})
            all.push_back(Read(file));
        return all;
    };
    const auto before = files();
    LumRegion *second = nullptr;
    EXPECT_EQ(CreateNamed("p", LUM_REGION_PERSISTENT, dir_.path().c_str(), &second), LUM_RC_IN_USE);
    EXPECT_EQ(second, nullptr);
    void *base = &second;
    second = first;
    EXPECT_EQ(LumRegionOpen("p", kMiB, kMiB, 0, 0, dir_.path().c_str(), &second, &base),
              LUM_RC_IN_USE);
    EXPECT_TRUE(second == nullptr && base == nullptr);
    EXPECT_EQ(files(), before);

    ASSERT_EQ(LumRegionClose(first), 0);
    {
        lumtest::PlatformGuard guard;
        lum_platform.unlink = [](const char *path) {
            errno = EIO;
            return std::string_view(path).ends_with(".tab") ? -1 : lum_platform_system.unlink(path);
        };
        EXPECT_EQ(CreateNamed("p", LUM_REGION_PERSISTENT, dir_.path().c_str(), &second),
                  LUM_RC_FILE_CREATE);
    }
    EXPECT_EQ(second, nullptr);
    ASSERT_EQ(LumRegionOpen("p", 4 * kMiB, 4 * kMiB, 0, 0, dir_.path().c_str(), &first, &base), 0);
    EXPECT_EQ(first->base[4000], 0x5a);
    ASSERT_EQ(LumRegionClose(first), 0);
    std::ofstream(Path("p.tabnew")) << "left by a sync that died";
    ASSERT_EQ(CreateNamed("p", LUM_REGION_PERSISTENT, dir_.path().c_str(), &second), 0);
    EXPECT_FALSE(Exists("p.tab"));
    EXPECT_FALSE(Exists("p.tabnew"));
    EXPECT_EQ(Read("p_0.chk").size(), 0u);
    EXPECT_EQ(LumRegionDrop(second), 0);
}
