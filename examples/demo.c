/*
 * lumdemo - a small host of liblumregion.
 *
 * Starts the library from its properties and command line, then
 *   1. creates a volatile region, grows its image until the soft limit
 *      stops it, raises the limit and grows on;
 *   2. creates a persistent region in a data directory, changes its image
 *      through logged writes and commits, runs two checkpoint passes that
 *      the next commits acknowledge, prints the files with their headers,
 *      and closes the region, which leaves only its snapshot.
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
 * operations beneath them. The checkpoint thread visits regions once a
 * minute; the demo runs its pass at once. */
extern int32_t _LumImageSetSize(LumRegion *region, uint32_t size);
extern void _LumImageMarkDirty(LumRegion *region, void *address, uint32_t length);
extern void _LumCheckpointPass(void);

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

/* Lists the files of a directory with their sizes and the generation and
 * time in their headers. */
static void print_files(const char *directory) {
    DIR *dir = opendir(directory);
    struct dirent *entry;
    if (dir == NULL)
        return;
    while ((entry = readdir(dir)) != NULL) {
        char path[512];
        unsigned char header[32] = {0};
        struct stat info;
        FILE *file;
        if (entry->d_name[0] == '.')
            continue;
        snprintf(path, sizeof path, "%s%s", directory, entry->d_name);
        if (stat(path, &info) != 0)
            continue;
        printf("    %-16s %8lld bytes", entry->d_name, (long long)info.st_size);
        file = fopen(path, "rb");
        if (file != NULL && fread(header, 1, sizeof header, file) == sizeof header &&
            memcmp(header, "LSB", 4) == 0) {
            uint32_t generation, stamp;
            memcpy(&generation, header + 8, 4);
            memcpy(&stamp, header + 12, 4);
            printf("  generation %u, written at %u", generation, stamp);
        }
        if (file != NULL)
            fclose(file);
        printf("\n");
    }
    closedir(dir);
}

/* Writes `text` into the image at `offset` and announces the change, which
 * logs the bytes and marks their page. */
static void logged_write(LumRegion *region, void *base, uint32_t offset, const char *text) {
    char *target = (char *)base + offset;
    strcpy(target, text);
    _LumImageMarkDirty(region, target, (uint32_t)strlen(text) + 1);
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
    rc = _LumImageSetSize(region, 4 * 4096);
    if (rc != 0)
        return fail("growing the image", rc);

    logged_write(region, base, 4096, "first entry");
    LumRegionCommit(region);
    printf("committed the first change: the log of generation 0 holds it\n");
    print_files(directory);

    _LumCheckpointPass();
    logged_write(region, base, 2 * 4096, "second entry");
    LumRegionCommit(region);
    printf("checkpointed into _0.chk; the next commit acknowledged it\n");
    print_files(directory);

    _LumCheckpointPass();
    logged_write(region, base, 3 * 4096, "third entry");
    LumRegionCommit(region);
    printf("the second checkpoint switched to generation 1 and wrote _1.chk; the next commit\n"
           "started _1.log and acknowledged it\n");
    print_files(directory);

    rc = LumRegionClose(region);
    printf("closed the region: %d; what stays is the snapshot of generation 1 + 1:\n", rc);
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
