// Sync: writing the whole image of a persistent region as a snapshot, the
// .tab file, into a directory. LumRegionClose syncs into the region's own
// directory; LumRegionSyncAll syncs every registered persistent region
// into another one while the regions stay open.
//
// A snapshot is written under ".tabnew", forced to disk, and renamed over
// ".tab": the rename replaces the old file in one step, so that at any
// moment ".tab" is one whole snapshot, the old or the new, and no failure
// harms the existing one. The directory is then forced to disk, so that
// the new name lasts as the data does.
// Its header carries generation + 1, which makes it newer than the chk file
// of the generation that wrote it. This is the only path of the library
// that forces data to stable storage.
//
// A snapshot counts only once fsync and close have succeeded: after a
// writeback error the kernel may have dropped its dirty pages, so a sync
// that cannot confirm them has failed, and the working files, the only
// other copy, must stay (a close keeps them while sync_failed is 1).
//
// What a failing step leaves:
//   path      nothing opened      .tab untouched       sync_failed 1
//   open      .tabnew as it was   .tab untouched       sync_failed 1
//   header    .tabnew deleted     .tab untouched       sync_failed 1
//   image     .tabnew deleted     .tab untouched       sync_failed 1
//   fsync     .tabnew deleted     .tab untouched       sync_failed 1
//   close     .tabnew deleted     .tab untouched       sync_failed 1
//   rename    .tabnew complete    .tab untouched       sync_failed 1
//   directory .tabnew renamed     .tab the new one,    sync_failed 1
//                                 perhaps not lasting
// "path" is a directory with which the region's file names do not fit a
// path buffer; LumRegionSyncAll refuses such a directory before it
// creates anything.
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <strings.h>
#include <sys/stat.h>

#include "durable/durable.h"
#include "platform/platform.h"

namespace {

// The result of a failed step: its errno, saved before logging and
// clean-up can change it, or -19 when the step left none.
int32_t FailureCode(int error) {
    return error != 0 ? error : LUM_RC_FAILURE;
}

void ReportNotWritten(const char *tabnew) {
    LumLog(LUM_LOG_FAILURE, 1, region_catalog, kSetReport, 23,
           "Failed to write all data to \"%s\" - data has NOT been synced", tabnew);
}

// Writes the snapshot to `tabnew`, forced to disk. 0, or the failure's code
// after logging it, with the descriptor closed and a .tabnew file that was
// opened deleted again.
int32_t WriteSnapshot(LumRegion *region, const char *tabnew) {
    errno = 0;
    int fd = lum_platform.open(tabnew, O_WRONLY | O_CREAT | O_TRUNC, 0600);
    if (fd < 0) {
        int error = errno;
        LumLog(LUM_LOG_FAILURE, 1, region_catalog, kSetReport, 21,
               "Failed to open tabfile \"%s\" - data has NOT been synced", tabnew);
        return FailureCode(error);
    }
    int error = 0;
    uint32_t body = region->used - file_header::kSize;
    uint32_t generation = region->generation.load(std::memory_order_relaxed) + 1;
    if (_LumFileHeaderWriteStamped(fd, generation, RegionNextTimestamp(region), 0) != 0) {
        error = FailureCode(errno);
        LumLog(LUM_LOG_FAILURE, 1, region_catalog, kSetReport, 22,
               "Failed to write file header - data has NOT been synced");
    } else if (_LumPwrite(fd, region->base + file_header::kSize, body, file_header::kSize) !=
                   static_cast<ssize_t>(body) ||
               lum_platform.fsync(fd) != 0) {
        error = FailureCode(errno);
        ReportNotWritten(tabnew);
    }
    // A close may report a writeback error that fsync did not see.
    if (lum_platform.close(fd) != 0 && error == 0) {
        error = FailureCode(errno);
        ReportNotWritten(tabnew);
    }
    if (error != 0)
        lum_platform.unlink(tabnew);
    return error;
}

// Writes the snapshot, renames it over the .tab file and forces the
// directory. 0 or the code of the failing step.
int32_t SyncTo(LumRegion *region, const char *directory) {
    if (!RegionNameAndDirectoryFit(region->name, directory))
        return LUM_RC_BAD_PATH; // the path would lose its end: nothing is opened
    char tabnew[kPathBufferSize];
    char tab[kPathBufferSize];
    RegionFilePath(tabnew, directory, region->name, ".tabnew");
    RegionFilePath(tab, directory, region->name, ".tab");
    int32_t rc = WriteSnapshot(region, tabnew);
    if (rc != 0)
        return rc;
    errno = 0;
    if (lum_platform.rename(tabnew, tab) != 0)
        return FailureCode(errno);
    return _LumDirectoryForce(directory);
}

// Frees the temporary strings of LumRegionSyncAll on every path.
struct SyncAllStrings {
    char *joined = nullptr;
    uint16_t *wide = nullptr;
    char *expanded = nullptr;
    char *stripped = nullptr;
    ~SyncAllStrings() {
        lum_free(joined);
        lum_free(wide);
        lum_free(expanded);
        lum_free(stripped);
    }
};

// `path` with one separator behind it, unless it is empty or ends in one.
int32_t WithSeparator(const char *path, SyncAllStrings &strings) {
    size_t length = strlen(path);
    strings.joined = static_cast<char *>(lum_malloc(length + 2));
    if (strings.joined == nullptr)
        return LUM_RC_NO_MEMORY;
    if (int32_t rc = LumWStringStrToWStr(path, &strings.wide); rc != 0)
        return rc;
    size_t wide_length = 0;
    while (strings.wide[wide_length] != 0)
        ++wide_length;
    const char separator[2] = {kPathSeparator, '\0'};
    if (wide_length > 0 && strings.wide[wide_length - 1] != kPathSeparator)
        LumConstructPath(strings.joined, length + 2, path, separator, static_cast<char *>(nullptr));
    else
        memcpy(strings.joined, path, length + 1);
    return 0;
}

// -412 when the file names of a registered persistent region do not fit a
// path in `directory`. The caller holds the registry.
int32_t CheckNamesFit(const char *directory) {
    for (LumRegion *region : region_registry) {
        if (region != nullptr && IsPersistent(region) &&
            !RegionNameAndDirectoryFit(region->name, directory))
            return LUM_RC_BAD_PATH;
    }
    return 0;
}

// -412 when `stripped` names the home directory, or the own directory of a
// registered persistent region: a snapshot there would be newer than that
// region's working files, and its next open would take the snapshot over
// every commit made after it. The caller holds the registry.
int32_t RefuseOwnDirectories(const char *stripped) {
    if (int32_t rc = _LumPathCheckHome(region_home, stripped); rc != 0)
        return rc;
    for (LumRegion *region : region_registry)
        if (region != nullptr && IsPersistent(region))
            if (int32_t rc = _LumPathCheckHome(region->directory, stripped); rc != 0)
                return rc;
    return 0;
}

// Checks the target directory, creating it when it is missing (one level).
int32_t PrepareDirectory(SyncAllStrings &strings) {
    struct stat info;
    if (lum_platform.stat(strings.stripped, &info) == 0)
        return RefuseOwnDirectories(strings.stripped);
    if (errno != ENOENT)
        return errno;
    return lum_platform.mkdir(strings.expanded, 0700) == 0 ? 0 : errno;
}

// Syncs every registered persistent region into `directory`, each whatever
// the others did, and returns the first failure. The caller holds the
// registry.
int32_t SyncRegistered(const char *directory) {
    int32_t first_failure = 0;
    for (LumRegion *region : region_registry) {
        if (region == nullptr || !IsPersistent(region))
            continue;
        int32_t rc = _LumRegionSync(region, directory);
        if (first_failure == 0)
            first_failure = rc;
    }
    return first_failure;
}

} // namespace

int32_t _LumRegionSync(LumRegion *region, const char *directory) {
    LumLog(LUM_LOG_DEBUG, RegionDebug(), region_catalog, kSetReport, 20,
           "Attempting to sync region \"%s\"", region->name);
    int32_t rc = SyncTo(region, directory);
    region->sync_failed = rc != 0;
    return rc;
}

int32_t LumRegionSyncAll(const char *path) {
    if (path == nullptr || region_registry_mutex == nullptr)
        return LUM_RC_FAILURE;
    SyncAllStrings strings;
    if (int32_t rc = WithSeparator(path, strings); rc != 0)
        return rc;
    if (int32_t rc = LumEnvExpandString(strings.joined, &strings.expanded); rc != 0)
        return rc;
    if (int32_t rc = _LumPathStrip(strings.expanded, &strings.stripped); rc != 0)
        return rc;

    // Held from the checks through all the writing: the regions checked are
    // those synced, the checkpoint thread waits at its next registry step,
    // and no handle can leave the table meanwhile.
    LumMutexLock(region_registry_mutex);
    int32_t rc = CheckNamesFit(strings.expanded);
    if (rc == 0)
        rc = PrepareDirectory(strings);
    if (rc == 0)
        rc = SyncRegistered(strings.expanded);
    LumMutexUnlock(region_registry_mutex);
    return rc;
}

int32_t _LumPathStrip(const char *path, char **stripped) {
    uint16_t *wide;
    if (int32_t rc = LumWStringStrToWStr(path, &wide); rc != 0)
        return rc;
    size_t last = 0;
    while (wide[last] != 0)
        ++last;
    // The first character always stays: a lone separator is a path.
    while (last > 1 && wide[last - 1] == kPathSeparator)
        wide[--last] = 0;
    int32_t rc = LumWStringWStrToStr(wide, stripped);
    lum_free(wide);
    return rc;
}

int32_t _LumPathCheckHome(const char *home, const char *path) {
    char *stripped_home;
    if (int32_t rc = _LumPathStrip(home, &stripped_home); rc != 0)
        return rc;
    int32_t rc = strcasecmp(stripped_home, path) == 0 ? LUM_RC_BAD_PATH : 0;
    lum_free(stripped_home);
    return rc;
}
