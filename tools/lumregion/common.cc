// What the subcommands share: directory names as the library takes them,
// timestamps as text, and the read-only recovery of a region.
#include <ctime>
#include <filesystem>

#include "durable/recovery.h"
#include "lumregion.h"
#include "tools/lumregion/tool.h"

std::string RegionDirectory(const std::string &directory) {
    std::string absolute = std::filesystem::absolute(directory).lexically_normal().string();
    if (absolute.empty() || absolute.back() != kPathSeparator)
        absolute += kPathSeparator;
    return absolute;
}

std::string TimestampText(int32_t timestamp) {
    if (timestamp == 0)
        return "-";
    time_t seconds = timestamp;
    struct tm utc;
    char text[32];
    gmtime_r(&seconds, &utc);
    strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &utc);
    return text;
}

Outcome ErrorOutcome(const std::string &message) {
    return {Json{{"error", message}}, kExitError};
}

LumRegion *RecoverForTool(const ToolOptions &options, Outcome *outcome) {
    std::string directory = RegionDirectory(options.directory);
    if (!std::filesystem::is_directory(directory)) {
        *outcome = ErrorOutcome("no directory " + directory);
        return nullptr;
    }
    LumRegion *region;
    int32_t rc =
        _LumRegionRecoverReadOnly(options.name.c_str(), directory.c_str(), options.limit, &region);
    if (rc == 0)
        return region;
    std::string reason = std::string("recovery failed: ") + LumRCToString(rc);
    if (rc == LUM_RC_BAD_FILES)
        *outcome = {Json{{"finding", "no source recovery could use"}, {"code", rc}}, kExitFinding};
    else
        *outcome = ErrorOutcome(reason + " (" + std::to_string(rc) + ")");
    return nullptr;
}
