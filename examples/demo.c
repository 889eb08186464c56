/*
 * lumdemo - a small host of liblumregion.
 *
 * Starts the library from its properties and command line, creates a
 * volatile region, grows its image until the soft limit stops it, raises
 * the limit, grows on, and closes the region and the library. Run it with
 * -regionprotectall to keep the image's pages read-only.
 */
#include <stdio.h>
#include <stdlib.h>

#include "lum_rs.h"
#include "lumregion.h"

/* The image grows with segments and chunks; this demo moves its size with
 * the operation that they use. */
extern int32_t _LumImageSetSize(LumRegion *region, uint32_t size);

#define MIB (1024u * 1024u)

static void print_info(LumRegion *region) {
    LumRegionInfo info;
    LumRegionGetInfo(region, &info);
    printf("  region '%s' type %d at %p: used %u of soft %u / hard %u bytes, %u segments, "
           "protect %d\n",
           info.name, info.type, info.base, info.used, info.soft_limit, info.hard_limit,
           info.segment_count, info.protect);
}

static int fail(const char *what, int32_t rc) {
    fprintf(stderr, "lumdemo: %s failed: %d (%s)\n", what, rc, LumRCToString(rc));
    return 1;
}

static void print_log_record(void *context, int32_t severity, uint32_t set, uint32_t id,
                             const char *text) {
    (void)context;
    printf("  [log severity %d, message %u.%u] %s\n", severity, set, id, text);
}

/* Grows the image by one MiB at a time until the soft limit refuses. */
static uint32_t grow_until_refused(LumRegion *region, uint32_t size) {
    int32_t rc;
    while ((rc = _LumImageSetSize(region, size + MIB)) == 0)
        size += MIB;
    printf("  growing to %u bytes: %d (%s)\n", size + MIB, rc, LumRCToString(rc));
    return size;
}

int main(int argc, char **argv) {
    LumPropMgr *properties;
    LumArgMgr *arguments;
    if (LumPropMgrCreate(&properties) != 0 || LumArgMgrCreate(properties, &arguments) != 0)
        return fail("creating the managers", 12);
    if (LumRegionPropMgrInitialise(properties) != 0 || LumRegionArgMgrInitialise(arguments) != 0)
        return fail("defining the properties", -19);
    LumArgMgrParse(arguments, &argc, argv);

    int32_t rc = LumRegionStartup(properties, ".");
    if (rc != 0)
        return fail("LumRegionStartup", rc);
    LumLogSetSink(print_log_record, NULL);
    printf("%s started\n", LumVersionInfoLookup("liblumregion"));

    LumRegion *region;
    void *base;
    rc =
        LumRegionCreate("demo", LUM_REGION_VOLATILE, 64 * MIB, 4 * MIB, 0, 0, NULL, &region, &base);
    if (rc != 0)
        return fail("LumRegionCreate", rc);
    printf("created a volatile region:\n");
    print_info(region);

    uint32_t size = grow_until_refused(region, 0);
    print_info(region);

    rc = LumRegionSetSoftLimit(region, 16 * MIB);
    printf("raising the soft limit to 16 MiB: %d\n", rc);
    size = grow_until_refused(region, size);
    print_info(region);

    rc = LumRegionSetSoftLimit(region, 128 * MIB);
    printf("raising the soft limit beyond the hard limit: %d (%s)\n", rc, LumRCToString(rc));

    rc = LumRegionClose(region);
    printf("closed the region: %d\n", rc);
    LumRegionShutdown();
    LumLogSetSink(NULL, NULL);
    LumArgMgrDestroy(arguments);
    LumPropMgrDestroy(properties);
    printf("shut down\n");
    return 0;
}
