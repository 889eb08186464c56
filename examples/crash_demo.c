/*
 * lumcrashdemo - a host that dies after a commit and comes back with its data.
 *
 * The first run (no region on disk yet) creates the region "ledger" in the
 * data directory, books three payments, commits each, and is killed with
 * SIGKILL before it can close the region: no snapshot is written, only the
 * logs hold the commits. The second run opens the region from its files,
 * finds the ledger at its image offset (kept in "ledger.root" beside the
 * region: references into an image are offsets, valid at any base address),
 * prints what survived, books one more payment and closes cleanly. The data directory is
 * "lumcrash-data/" in the current directory, or argv[1] (ending in '/').
 */
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>

#include "lum_rs.h"
#include "lumregion.h"

#define MIB (1024u * 1024u)

/* The ledger as it lies in the image: plain words, offsets, no pointers. */
typedef struct Ledger {
    int32_t payments;
    int32_t total;
} Ledger;

static int fail(const char *what, int32_t rc) {
    fprintf(stderr, "lumcrashdemo: %s failed: %d (%s)\n", what, rc, LumRCToString(rc));
    return 1;
}

static void pay(LumRegion *region, LumSegment *segment, Ledger *ledger, int32_t amount) {
    LumMemLogCpyInt(segment, &ledger->payments, ledger->payments + 1);
    LumMemLogCpyInt(segment, &ledger->total, ledger->total + amount);
    LumRegionCommit(region); /* from here the payment survives the process */
    printf("  paid %d: %d payments, total %d\n", amount, ledger->payments, ledger->total);
}

/* The first run: a new ledger, three committed payments, then death. */
static int first_run(const char *directory) {
    LumRegion *region;
    void *base;
    LumSegment *segment;
    Ledger *ledger;
    int32_t rc = LumRegionCreate("ledger", LUM_REGION_PERSISTENT, 16 * MIB, 16 * MIB,
                                 sizeof(Ledger), 0, directory, &region, &base);
    if (rc != 0)
        return fail("LumRegionCreate", rc);
    if ((rc = LumSegmentCreate(region, 16384, 16384, 50, 0, &segment)) != 0)
        return fail("LumSegmentCreate", rc);
    if ((rc = LumMemAlloc(segment, sizeof *ledger, (void **)&ledger)) != 0)
        return fail("LumMemAlloc", rc);
    ledger->payments = 0;
    ledger->total = 0;
    LumMemLog(segment, ledger);
    long offset = (long)((char *)ledger - (char *)base);
    char path[300];
    snprintf(path, sizeof path, "%sledger.root", directory);
    FILE *root = fopen(path, "w");
    if (root == NULL || fprintf(root, "%ld\n", offset) < 0 || fclose(root) != 0)
        return fail("writing ledger.root", -19);
    printf("first run: a new ledger at image offset %ld\n", offset);
    pay(region, segment, ledger, 100);
    pay(region, segment, ledger, 250);
    pay(region, segment, ledger, 75);
    printf("first run: killed before closing\n");
    fflush(stdout);
    raise(SIGKILL);
    return 1;
}

/* The second run: the ledger stands at the same image offset, whatever the
 * base address is now. */
static int second_run(const char *directory) {
    LumRegion *region;
    void *base;
    LumSegment *segment;
    long offset = -1;
    char path[300];
    snprintf(path, sizeof path, "%sledger.root", directory);
    FILE *root = fopen(path, "r");
    if (root == NULL || fscanf(root, "%ld", &offset) != 1)
        return fail("reading ledger.root", -19);
    fclose(root);
    int32_t rc = LumRegionOpen("ledger", 16 * MIB, 16 * MIB, sizeof(Ledger), 0, directory,
                               &region, &base);
    if (rc != 0)
        return fail("LumRegionOpen", rc);
    if ((rc = LumSegmentOpen(region, 0, &segment)) != 0)
        return fail("LumSegmentOpen", rc);
    Ledger *ledger = (Ledger *)((char *)base + offset);
    printf("second run: recovered %d payments, total %d\n", ledger->payments, ledger->total);
    pay(region, segment, ledger, 10);
    LumSegmentClose(segment);
    if ((rc = LumRegionClose(region)) != 0)
        return fail("LumRegionClose", rc);
    printf("second run: closed; the snapshot %sledger.tab holds the ledger\n", directory);
    return 0;
}

int main(int argc, char **argv) {
    const char *directory = argc > 1 ? argv[1] : "lumcrash-data/";
    mkdir(directory, 0700);
    int32_t rc = LumRegionStartup(NULL, directory);
    if (rc != 0)
        return fail("LumRegionStartup", rc);
    char probe[300];
    snprintf(probe, sizeof probe, "%sledger.root", directory);
    struct stat info;
    int status = stat(probe, &info) == 0 ? second_run(directory) : first_run(directory);
    LumRegionShutdown();
    return status;
}
