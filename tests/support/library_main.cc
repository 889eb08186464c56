// The region suites share one started library, as a host would.
#include <gtest/gtest.h>

#include "lumregion.h"
#include "test_support.h"

int main(int argc, char **argv) {
    testing::InitGoogleTest(&argc, argv);
    LumPropMgr *properties = nullptr;
    lumtest::TempDir home;
    if (LumPropMgrCreate(&properties) != 0 || LumRegionPropMgrInitialise(properties) != 0 ||
        LumRegionStartup(properties, home.path().c_str()) != 0) {
        fprintf(stderr, "the library did not start\n");
        return 1;
    }
    int result = RUN_ALL_TESTS();
    LumRegionShutdown();
    LumPropMgrDestroy(properties);
    return result;
}
