// Layouts of the image. The image is a file format: it is stored verbatim
// in checkpoint and snapshot files, so every offset here is a file offset
// too. All words are 32-bit little-endian; every reference inside the image
// is a RegionOffset, a byte offset from the image's base (0: none).
#pragma once

#include <bit>
#include <cstdint>
#include <cstring>

#include "region.h"

static_assert(std::endian::native == std::endian::little, "image words are little-endian");

using RegionOffset = uint32_t;

inline uint32_t ImageLoad32(const uint8_t *at) {
    uint32_t word;
    memcpy(&word, at, sizeof word);
    return word;
}

inline void ImageStore32(uint8_t *at, uint32_t word) {
    memcpy(at, &word, sizeof word);
}

inline RegionOffset ImageOffsetOf(const LumRegion *region, const uint8_t *at) {
    return static_cast<RegionOffset>(at - region->base);
}

// BinArray: 128 sentinels of free rings. Sentinel i begins at 4 + 12 i;
// its first word stands where an item has its tag and is never used.
namespace bin_array {
inline constexpr uint32_t kBins = 128;
inline constexpr uint32_t kSize = 1540;
inline constexpr uint32_t kLinkUp = 4;   // from the sentinel or item
inline constexpr uint32_t kLinkDown = 8; // from the sentinel or item
constexpr uint32_t SentinelOffset(uint32_t bin) {
    return 4 + 12 * bin;
}
static_assert(SentinelOffset(kBins - 1) + kLinkDown + 4 == kSize);
} // namespace bin_array

// RegionHeader: the first bytes of every image.
namespace region_header {
inline constexpr uint32_t kReserved = 0;    // 32 bytes: the file header in a stored image
inline constexpr uint32_t kSegmentMap = 32; // 128 RegionOffsets of primary extents
inline constexpr uint32_t kSegmentSlots = 128;
inline constexpr uint32_t kSegmentCount = 544;  // non-zero entries of the map
inline constexpr uint32_t kExtentBins = 548;    // BinArray of the free extents
inline constexpr uint32_t kPageSizeWord = 2084; // last word of extent_bins: page size | 2
inline constexpr uint32_t kSize = 2088;
static_assert(kSegmentMap + 4 * kSegmentSlots == kSegmentCount);
static_assert(kExtentBins + bin_array::kSize == kSize);
static_assert(kPageSizeWord + 4 == kSize);
} // namespace region_header

// PrimaryExtent: the head of a segment; only the word that the region-level
// statistics read is named here.
namespace primary_extent {
inline constexpr uint32_t kUsedBytes = 56; // live chunk bytes of the segment
} // namespace primary_extent
