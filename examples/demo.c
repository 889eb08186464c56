/*
 * lumdemo - a small host of liblumregion.
 *
 * Starts the library from its properties and command line, then
 *   1. creates a volatile region, grows its image until the soft limit
 *      stops it, raises the limit and grows on;
 *   2. creates a persistent region in a data directory, changes its image
 *      through logged writes, commits them to the log, and closes the
 *      region, which leaves only its snapshot.
 * Run it with -regionprotectall to keep the images' pages read-only. The
 * data directory is "lumdemo-data/" in the current directory, or argv[1]
 * (ending in '/').
 */
#include <dirent.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>

#include "lum_rs.h"
#include "lumregion.h"

/* The image grows with segments and chunks, and changes through the logged
 * writes of the allocator; until a host has those, this demo uses the
 * operations beneath them. */
extern int32_t _LumImageSetSize(LumRegion *region, uint32_t size);
extern void _LumImageMarkDirty(LumRegion *region, void *address, uint32_t length);
extern void _LumLogBufferAppend(LumRegion *region, uint32_t type, uint32_t value,
                                uint32_t length);
extern void _LumLogBufferFlush(LumRegion *region);
#define LOG_COMMIT 3

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

/* Lists the files of a directory with their sizes. */
static void print_files(const char *directory) {
    DIR *dir = opendir(directory);
    struct dirent *entry;
    if (dir == NULL)
        return;
    while ((entry = readdir(dir)) != NULL) {
        char path[512];
        struct stat info;
        if (entry->d_name[0] == '.')
            continue;
        snprintf(path, sizeof path, "%s%s", directory, entry->d_name);
        if (stat(path, &info) == 0)
            printf("    %-24s %8lld bytes\n", entry->d_name, (long long)info.st_size);
    }
    closedir(dir);
}

static int volatile_region(void) {
    LumRegion *region;
    void *base;
    int32_t rc = LumRegionCreate("demo", LUM_REGION_VOLATILE, 64 * MIB, 4 * MIB, 0, 0, NULL,
                                 &region, &base);
    if (rc != 0)
        return fail("LumRegionCreate", rc);
    printf("created a volatile region:\n");
    print_info(region);

    uint32_t size = grow_until_refused(region, 0);
    print_info(region);
    rc = LumRegionSetSoftLimit(region, 16 * MIB);
    printf("raising the soft limit to 16 MiB: %d\n", rc);
    grow_until_refused(region, size);
    print_info(region);
    rc = LumRegionSetSoftLimit(region, 128 * MIB);
    printf("raising the soft limit beyond the hard limit: %d (%s)\n", rc, LumRCToString(rc));
    printf("closed the region: %d\n", LumRegionClose(region));
    return 0;
}

static int persistent_region(const char *directory) {
    LumRegion *region;
    void *base;
    mkdir(directory, 0700);
    int32_t rc = LumRegionCreate("ledger", LUM_REGION_PERSISTENT, 16 * MIB, 16 * MIB, 0, 0,
                                 directory, &region, &base);
    if (rc != 0)
        return fail("LumRegionCreate", rc);
    printf("created a persistent region in %s:\n", directory);
    print_info(region);

    /* Grow by a page and write a greeting behind the region header: the
     * size change and the bytes are logged, and a commit writes the log. */
    rc = _LumImageSetSize(region, 2 * 4096 + 1);
    if (rc != 0)
        return fail("growing the image", rc);
    char *greeting = (char *)base + 4096;
    strcpy(greeting, "hello from a persistent region");
    _LumImageMarkDirty(region, greeting, (uint32_t)strlen(greeting) + 1);
    _LumLogBufferAppend(region, LOG_COMMIT, 0, 0);
    _LumLogBufferFlush(region);
    printf("committed a logged change; the files are:\n");
    print_files(directory);

    rc = LumRegionClose(region);
    printf("closed the region: %d; what stays is the snapshot:\n", rc);
    print_files(directory);
    return rc == 0 ? 0 : 1;
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

    const char *directory = argc > 1 ? argv[1] : "lumdemo-data/";
    int failed = volatile_region() || persistent_region(directory);

    LumRegionShutdown();
    LumLogSetSink(NULL, NULL);
    LumArgMgrDestroy(arguments);
    LumPropMgrDestroy(properties);
    printf("shut down\n");
    return failed;
}
