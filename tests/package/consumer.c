/* A host built against the installed package. */
#include <stdio.h>

#include "lumregion.h"

static int check(int32_t code, const char *what) {
    if (code != 0)
        fprintf(stderr, "consumer: %s gave %d (%s)\n", what, code, LumRCToString(code));
    return code == 0;
}

int main(void) {
    LumRegion *region;
    void *base;
    LumSegment *segment;
    void *chunk;
    int good = check(LumRegionStartup(NULL, "."), "LumRegionStartup") &&
               check(LumRegionCreate("consumer", LUM_REGION_SCRATCH, 1u << 20, 1u << 20, 4096, 0,
                                     "", &region, &base),
                     "LumRegionCreate") &&
               check(LumSegmentCreate(region, 65536, 65536, 50, 0, &segment), "LumSegmentCreate") &&
               check(LumMemAlloc(segment, 64, &chunk), "LumMemAlloc");
    if (good) {
        LumMemNoLog(segment, chunk);
        good = check(LumSegmentDrop(segment), "LumSegmentDrop") &&
               check(LumRegionDrop(region), "LumRegionDrop");
    }
    LumRegionShutdown();
    return good ? 0 : 1;
}
