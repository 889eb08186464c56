/*
 * lumdemo - a small host of liblumregion.
 *
 * Starts the library from its properties and command line, then
 *   1. creates a volatile region and fills it with segments until its soft
 *      limit stops the image, raises the limit and goes on;
 *   2. creates a persistent region in a data directory, allocates records
 *      in a segment, fills them with logged writes and commits, frees some,
 *      runs two checkpoint passes that the next commits acknowledge, prints
 *      the segment's statistics, verifies the image, shows the files with
 *      their headers, and closes the region, which leaves its snapshot.
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

/* The checkpoint thread visits regions once a minute; the demo checkpoints
 * at once with LumRegionCheckpoint. */

#define MIB (1024u * 1024u)

/* A record as it lies in persistent memory: plain words, no pointers. */
typedef struct Entry {
    int32_t id;
    int32_t balance;
    char note[24];
} Entry;

static int fail(const char *what, int32_t rc) {
    fprintf(stderr, "lumdemo: %s failed: %d (%s)\n", what, rc, LumRCToString(rc));
    return 1;
}

static void print_log_record(void *context, int32_t severity, uint32_t set, uint32_t id,
                             const char *text) {
    (void)context;
    printf("  [log severity %d, message %u.%u] %s\n", severity, set, id, text);
}

static void print_info(LumRegion *region) {
    LumRegionInfo info;
    LumRegionGetInfo(region, &info);
    printf("  region '%s' type %d: used %u of soft %u / hard %u bytes, %u segments\n", info.name,
           info.type, info.used, info.soft_limit, info.hard_limit, info.segment_count);
}

static void print_segment(LumSegment *segment) {
    LumSegmentInfo info;
    LumSegmentGetInfo(segment, &info);
    printf("  segment %u: %u extents, %u bytes; %u used in %u chunks, %u free in %u chunks\n",
           info.segment_id, info.extents, info.total_bytes, info.used_bytes, info.used_chunks,
           info.free_bytes, info.free_chunks);
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

/* Creates segments of one MiB until the region refuses; returns how many. */
static int fill_with_segments(LumRegion *region) {
    LumSegment *segment;
    int32_t rc;
    int count = 0;
    while ((rc = LumSegmentCreate(region, MIB, 0, 0, 0, &segment)) == 0) {
        LumSegmentClose(segment);
        ++count;
    }
    printf("  %d segments created, then: %d (%s)\n", count, rc, LumRCToString(rc));
    return count;
}

static int volatile_region(void) {
    LumRegion *region;
    void *base;
    int32_t rc = LumRegionCreate("scratch", LUM_REGION_VOLATILE, 64 * MIB, 4 * MIB, 0, 0, NULL,
                                 &region, &base);
    if (rc != 0)
        return fail("LumRegionCreate", rc);
    printf("created a volatile region:\n");
    print_info(region);
    fill_with_segments(region);
    print_info(region);
    rc = LumRegionSetSoftLimit(region, 16 * MIB);
    printf("raising the soft limit to 16 MiB: %d\n", rc);
    fill_with_segments(region);
    print_info(region);
    rc = LumRegionSetSoftLimit(region, 128 * MIB);
    printf("raising the soft limit beyond the hard limit: %d (%s)\n", rc, LumRCToString(rc));
    rc = LumRegionDrop(region);
    printf("dropping it: %d (%s)\n", rc, LumRCToString(rc));
    printf("closed it: %d\n", LumRegionClose(region));
    return 0;
}

/* Allocates an entry and fills it with plain stores before logging it
 * whole, as the allocation contract asks. */
static Entry *new_entry(LumSegment *segment, int32_t id, const char *note) {
    Entry *entry;
    if (LumMemAlloc(segment, sizeof *entry, (void **)&entry) != 0)
        return NULL;
    entry->id = id;
    entry->balance = 0;
    snprintf(entry->note, sizeof entry->note, "%s", note);
    LumMemLog(segment, entry);
    return entry;
}

static int persistent_region(const char *directory) {
    LumRegion *region;
    LumSegment *segment;
    Entry *entries[8];
    void *base;
    mkdir(directory, 0700);
    int32_t rc = LumRegionCreate("ledger", LUM_REGION_PERSISTENT, 16 * MIB, 16 * MIB, 4096, 0,
                                 directory, &region, &base);
    if (rc != 0)
        return fail("LumRegionCreate", rc);
    rc = LumSegmentCreate(region, 64 * 1024, 16 * 1024, 50, 0, &segment);
    if (rc != 0)
        return fail("LumSegmentCreate", rc);
    printf("created a persistent region in %s with a segment:\n", directory);
    print_info(region);

    for (int i = 0; i < 8; ++i) {
        entries[i] = new_entry(segment, i, "opened");
        if (entries[i] == NULL)
            return fail("LumMemAlloc", -19);
    }
    LumRegionCommit(region);
    printf("allocated 8 entries and committed them:\n");
    print_segment(segment);
    print_files(directory);

    LumRegionCheckpoint(region);
    for (int i = 0; i < 8; ++i)
        LumMemLogCpyInt(segment, &entries[i]->balance, 100 * (i + 1));
    LumRegionCommit(region);
    printf("checkpointed into _0.chk; changed the balances with logged writes and committed,\n"
           "which acknowledged the checkpoint:\n");
    print_files(directory);

    LumRegionCheckpoint(region);
    for (int i = 0; i < 8; i += 2)
        LumMemFree(segment, entries[i]);
    LumMemLogCpy(segment, entries[1]->note, "closed", 7);
    LumRegionCommit(region);
    printf("the second checkpoint switched to generation 1; freed 4 entries and committed:\n");
    print_segment(segment);
    print_files(directory);
    rc = LumRegionVerify(region);
    printf("LumRegionVerify: %d\n", rc);

    LumSegmentClose(segment);
    rc = LumRegionClose(region);
    printf("closed the region: %d; what stays is its snapshot:\n", rc);
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
