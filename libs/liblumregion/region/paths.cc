// Names and paths of a region's files.
#include <cstring>
#include <fcntl.h>

#include "durable/durable.h"
#include "platform/platform.h"
#include "region/region.h"

namespace {

// A name that is joined to a directory must stay a file inside it.
bool NameStaysInDirectory(const char *name) {
    return name[0] != '\0' && strcmp(name, ".") != 0 && strcmp(name, "..") != 0 &&
           strchr(name, kPathSeparator) == nullptr;
}

} // namespace

bool RegionNameAndDirectoryFit(const char *name, const char *directory) {
    if (!NameStaysInDirectory(name))
        return false;
    size_t name_length = strlen(name);
    size_t directory_length = directory ? strlen(directory) : 0;
    return name_length <= LUM_REGION_NAME_MAX &&
           directory_length + name_length + strlen(kLongestSuffix) < kPathBufferSize;
}

void RegionFilePath(char *path, const char *directory, const char *name, const char *suffix) {
    LumConstructPath(path, kPathBufferSize, directory, name, suffix, static_cast<char *>(nullptr));
}

int32_t _LumRegionFileCreate(const char *name, const char *directory, const char *suffix, int *fd) {
    char path[kPathBufferSize];
    RegionFilePath(path, directory, name, suffix);
    *fd = lum_platform.open(path, O_WRONLY | O_CREAT | O_TRUNC, 0600);
    return *fd > 0 ? 0 : LUM_RC_FILE_CREATE;
}
