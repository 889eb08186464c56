// A fixture for volatile regions of a started library: closes what a test leaves open.
#pragma once

#include <gtest/gtest.h>
#include <vector>

#include "alloc/layout.h"
#include "durable/durable.h"
#include "region/region.h"
#include "test_support.h"

constexpr uint32_t kMiB = 1024 * 1024;

inline LumSegment *NewSegment(LumRegion *region, uint32_t primary, uint32_t secondary = 0,
                              uint32_t growth = 0, uint32_t maximum = 0) {
    LumSegment *segment = nullptr;
    EXPECT_EQ(LumSegmentCreate(region, primary, secondary, growth, maximum, &segment), 0);
    return segment;
}

// An allocation of `size` bytes in `segment`, ended with LumMemLog.
inline uint8_t *AllocLogged(LumSegment *segment, uint32_t size) {
    void *pointer = nullptr;
    EXPECT_EQ(LumMemAlloc(segment, size, &pointer), 0);
    LumMemLog(segment, pointer);
    return static_cast<uint8_t *>(pointer);
}

class RegionTest : public ::testing::Test {
  protected:
    void TearDown() override {
        for (LumRegion *region : open_)
            LumRegionClose(region);
    }

    LumRegion *Create(uint32_t hard_limit, uint32_t soft_limit, int32_t protect = 0,
                      const char *name = "test") {
        LumRegion *region = nullptr;
        void *base = nullptr;
        EXPECT_EQ(LumRegionCreate(name, LUM_REGION_VOLATILE, hard_limit, soft_limit, 0, protect,
                                  nullptr, &region, &base),
                  0);
        if (region)
            open_.push_back(region);
        return region;
    }

    void Close(LumRegion *region) {
        std::erase(open_, region);
        EXPECT_EQ(LumRegionClose(region), 0);
    }

    static uint32_t Page() { return region_page_size; }

  private:
    std::vector<LumRegion *> open_;
};
