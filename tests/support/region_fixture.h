// A fixture for tests on volatile regions of a started library: it creates
// regions on request and closes what a test leaves open.
#pragma once

#include <gtest/gtest.h>
#include <vector>

#include "alloc/layout.h"
#include "durable/durable.h"
#include "region/region.h"
#include "test_support.h"

constexpr uint32_t kMiB = 1024 * 1024;

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
