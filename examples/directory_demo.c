/*
 * lumdirectorydemo - a host that keeps a small directory across runs.
 *
 * The directory is a persistent hash table with two keys, by id and by
 * name, and a journal, a persistent list of what each run did. Both live in
 * the table's segment, and the journal is found through a root entry of the
 * table (id 0), whose `link` holds the journal's image offset: a host needs
 * no pointer that outlives its process.
 *
 * The first run creates the region "directory", books three people and
 * closes it. Every later run opens it, finds people by id and by name,
 * prints the journal, pays someone and adds a line to the journal. The data
 * directory is "lumdirectory-data/" in the current directory, or argv[1]
 * (ending in '/').
 */
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>

#include "lum_rs.h"
#include "lumregion.h"

#define MIB (1024u * 1024u)

/* An entry as it lies in the image: plain words and characters. */
typedef struct Person {
    int32_t id;
    char name[24];
    int32_t balance; /* the root entry (id 0): the journal's image offset */
} Person;

typedef struct Line {
    char text[48];
} Line;

static uint32_t hash_id(LumRegHash *table, const void *key_or_item, void *argument) {
    (void)table, (void)argument;
    return (uint32_t)((const Person *)key_or_item)->id * 2654435761u;
}

static int32_t compare_id(LumRegHash *table, const void *key, const void *item, void *argument) {
    (void)table, (void)argument;
    return ((const Person *)key)->id != ((const Person *)item)->id;
}

static uint32_t hash_name(LumRegHash *table, const void *key_or_item, void *argument) {
    (void)table, (void)argument;
    uint32_t hash = 2166136261u;
    for (const char *c = ((const Person *)key_or_item)->name; *c; ++c)
        hash = (hash ^ (uint8_t)*c) * 16777619u;
    return hash;
}

static int32_t compare_name(LumRegHash *table, const void *key, const void *item, void *argument) {
    (void)table, (void)argument;
    return strcmp(((const Person *)key)->name, ((const Person *)item)->name) != 0;
}

static const LumRegHashKey keys[2] = {{hash_id, NULL, compare_id, NULL},
                                      {hash_name, NULL, compare_name, NULL}};

static int fail(const char *what) {
    fprintf(stderr, "lumdirectorydemo: %s failed\n", what);
    return 1;
}

/* A new entry, written as a whole through the logged copy, then inserted. */
static Person *book(LumRegHash *table, int32_t id, const char *name, int32_t balance) {
    Person *person = LumRegHashAlloc(table, sizeof *person);
    if (person == NULL)
        return NULL;
    Person value = {id, "", balance};
    snprintf(value.name, sizeof value.name, "%s", name);
    LumMemLogCpy(LumRegHashSegment(table), person, &value, sizeof value);
    LumRegHashInsert(table, person);
    return person;
}

static void note(LumRegHash *table, void *base, LumRegList *journal, const char *text) {
    LumSegment *segment = LumRegHashSegment(table);
    Line *line = LumRegListAlloc(segment, base, sizeof *line);
    if (line == NULL)
        return;
    Line value;
    memset(&value, 0, sizeof value);
    snprintf(value.text, sizeof value.text, "%s", text);
    LumMemLogCpy(segment, line, &value, sizeof value);
    LumRegListInsertBefore(segment, base, journal, line, LumRegListTail(base, journal));
}

static int first_run(const char *directory) {
    LumRegion *region;
    void *base;
    const LumRegHashConfig config = {64 * 1024, 64 * 1024, 50, 0};
    if (LumRegionCreate("directory", LUM_REGION_PERSISTENT, 64 * MIB, 64 * MIB, 4096, 0, directory,
                        &region, &base) != 0)
        return fail("LumRegionCreate");
    LumRegHash *table = LumRegHashCreate(region, &config, 64, keys, 2);
    if (table == NULL)
        return fail("LumRegHashCreate");
    LumRegList *journal = LumRegListCreate(LumRegHashSegment(table), base);
    if (journal == NULL ||
        book(table, 0, "(journal)", (int32_t)((char *)journal - (char *)base)) == NULL)
        return fail("the journal");
    book(table, 1, "Ada", 100);
    book(table, 2, "Brian", 250);
    book(table, 3, "Chen", 75);
    note(table, base, journal, "run 1: booked Ada, Brian and Chen");
    LumRegionCommit(region);
    printf("first run: %u entries booked\n", LumRegHashNumItems(table) - 1);
    LumRegHashClose(table);
    return LumRegionClose(region) == 0 ? 0 : fail("LumRegionClose");
}

static int later_run(const char *directory) {
    LumRegion *region;
    void *base;
    if (LumRegionOpen("directory", 64 * MIB, 64 * MIB, 4096, 0, directory, &region, &base) != 0)
        return fail("LumRegionOpen");
    LumRegHash *table = LumRegHashOpen(region, 0, keys, 2);
    if (table == NULL)
        return fail("LumRegHashOpen");
    Person key = {0, "", 0};
    Person *root = LumRegHashFind(table, &key, 0);
    if (root == NULL)
        return fail("finding the journal");
    LumRegList *journal = (LumRegList *)((char *)base + root->balance);
    key.id = 2;
    Person *by_id = LumRegHashFind(table, &key, 0);
    snprintf(key.name, sizeof key.name, "Chen");
    Person *by_name = LumRegHashFind(table, &key, 1);
    if (by_id == NULL || by_name == NULL)
        return fail("finding Brian and Chen");
    printf("id 2 is %s, with %d; Chen has id %d and %d\n", by_id->name, by_id->balance, by_name->id,
           by_name->balance);
    printf("journal:\n");
    for (Line *line = LumRegListFirst(base, journal); line != NULL;
         line = LumRegListNext(base, line))
        printf("  %s\n", line->text);
    LumMemLogCpyInt(LumRegHashSegment(table), &by_name->balance, by_name->balance + 10);
    char text[48];
    snprintf(text, sizeof text, "run %u: paid Chen 10", LumRegListNumItems(journal) + 1);
    note(table, base, journal, text);
    LumRegionCommit(region);
    LumRegHashClose(table);
    return LumRegionClose(region) == 0 ? 0 : fail("LumRegionClose");
}

int main(int argc, char **argv) {
    const char *directory = argc > 1 ? argv[1] : "lumdirectory-data/";
    mkdir(directory, 0700);
    if (LumRegionStartup(NULL, directory) != 0)
        return fail("LumRegionStartup");
    char path[300];
    snprintf(path, sizeof path, "%sdirectory.tab", directory);
    struct stat info;
    int status = stat(path, &info) == 0 ? later_run(directory) : first_run(directory);
    LumRegionShutdown();
    return status;
}
