// The five files of a region as recovery sees them: probing, reading
// headers, the verdicts on chk and tab files, the order of two files, the
// three tests that pick the restore source, and cutting a file.
//
// A chk or tab file is ordered against another by generation and
// timestamp together: a file is newer only when it is above the other by
// both. Every header a region writes takes its timestamp from one
// per-region counter (RegionNextTimestamp), so the files of one history
// agree; files that disagree (equal, or ordered opposite ways, as after a
// clock set back across histories) are newer neither way, and recovery
// refuses to guess.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "durable/recovery.h"
#include "platform/platform.h"

namespace {

void ReportFileProblem(int32_t severity, uint32_t id, const char *path, int error) {
    const char *format =
        id == 6 ? "Unable to open or create file %s: %s" : "Problem with file %s: %s";
    LumLog(severity, 1, region_catalog, kSetError, id, format, path, strerror(error));
}

bool WholePages(uint64_t size) {
    return size % region_page_size == 0;
}

} // namespace

int32_t _LumFileProbe(const char *directory, const char *name, const char *suffix,
                      RecoveryFile *file, int flags) {
    char path[kPathBufferSize];
    RegionFilePath(path, directory, name, suffix);
    struct stat info;
    if (lum_platform.stat(path, &info) != 0) {
        if (errno != ENOENT) {
            ReportFileProblem(LUM_LOG_ERROR, 5, path, errno);
            file->unreadable = true;
        }
        file->size = 0;
    } else {
        file->size = static_cast<uint64_t>(info.st_size);
    }
    file->fd = lum_platform.open(path, flags, 0600);
    if (file->fd >= 0)
        return 0;
    if ((flags & O_CREAT) != 0) {
        ReportFileProblem(LUM_LOG_FAILURE, 6, path, errno);
        return -1;
    }
    if (errno != ENOENT) {
        ReportFileProblem(LUM_LOG_FAILURE, 5, path, errno);
        file->unreadable = true;
    }
    return 0;
}

void _LumFileClose(RecoveryFile *file) {
    if (file->fd != -1 && lum_platform.close(file->fd) != 0)
        perror(nullptr);
    file->fd = -1;
}

int32_t _LumFileReadHeader(RecoveryFile *file) {
    file->generation = 0;
    file->timestamp = 0;
    uint8_t header[file_header::kSize];
    if (file->size < file_header::kSize || file->fd == -1)
        return -1;
    if (_LumFileHeaderRead(file->fd, header) != 0) {
        file->unreadable = true;
        return -1;
    }
    if (memcmp(header + file_header::kMagic, file_header::kMagicText, 4) != 0) {
        LumLog(LUM_LOG_DEBUG, RegionDebug(), region_catalog, kSetReport, 19, "Corrupt file");
        return -1;
    }
    file->generation = ImageLoad32(header + file_header::kGeneration);
    file->timestamp = static_cast<int32_t>(ImageLoad32(header + file_header::kTimestamp));
    file->follows_gap = (header[file_header::kFlags] & file_header::kFollowsGap) != 0;
    return 0;
}

void _LumChkCheck(RecoveryFile *chk, const RecoveryFile &log) {
    chk->valid = _LumFileReadHeader(chk) == 0 && WholePages(chk->size) &&
                 log.checkpoint_position != kNoCheckpoint && chk->generation == log.generation;
}

void _LumTabCheck(RecoveryFile *tab) {
    tab->valid = _LumFileReadHeader(tab) == 0 && WholePages(tab->size);
}

bool _LumFileNewer(const RecoveryFile &a, const RecoveryFile &b) {
    return !b.valid || (a.generation > b.generation && a.timestamp > b.timestamp);
}

bool _LumUseTab(const RecoveryFileSet &set) {
    return set.tab.valid && _LumFileNewer(set.tab, set.chk[0]) &&
           _LumFileNewer(set.tab, set.chk[1]);
}

int32_t _LumUseChk(const RecoveryFileSet &set) {
    for (int32_t i = 0; i < 2; ++i) {
        if (set.chk[i].valid && _LumFileNewer(set.chk[i], set.chk[1 - i]) &&
            _LumFileNewer(set.chk[i], set.tab))
            return i;
    }
    return -1;
}

bool _LumUseLogs(const RecoveryFileSet &set) {
    const RecoveryFile &first = set.log[0];
    return !set.tab.valid && !set.chk[0].valid && !set.chk[1].valid &&
           first.size > file_header::kSize && first.generation == 0 && first.timestamp != 0 &&
           !first.follows_gap; // records of the region's start were lost
}

bool _LumFileCut(RecoveryFile *file, uint64_t length, uint32_t id, const char *format) {
    if (lum_platform.ftruncate(file->fd, static_cast<off_t>(length)) == 0)
        return true;
    LumLog(LUM_LOG_ERROR, 1, region_catalog, kSetError, id, format, strerror(errno));
    return false;
}
