// lumregion copy: recovers a region into memory without writing to its
// files and writes the image as a snapshot, OUTDIR/NAME.tab, through the
// library's own snapshot writer: a backup that LumRegionOpen opens like
// any other. An image that fails verification is not copied (status 1).
#include <filesystem>
#include <iostream>

#include "durable/durable.h"
#include "durable/recovery.h"
#include "lumregion.h"
#include "tools/lumregion/tool.h"

namespace {

// The snapshot must never land among the region's own files, where it
// would replace the region's .tab file.
bool SameDirectory(const std::string &a, const std::string &b) {
    std::error_code error;
    return std::filesystem::equivalent(a, b, error) || a == b;
}

} // namespace

Outcome RunCopy(const ToolOptions &options) {
    std::string out = RegionDirectory(options.out_directory);
    if (SameDirectory(RegionDirectory(options.directory), out))
        return ErrorOutcome("OUTDIR must not be the region's own directory");
    std::error_code error;
    std::filesystem::create_directories(out, error);
    if (error)
        return ErrorOutcome("cannot create " + out + ": " + error.message());
    Outcome outcome;
    LumRegion *region = RecoverForTool(options, &outcome);
    if (region == nullptr)
        return outcome;
    int32_t rc = LumRegionVerify(region);
    outcome.facts = {{"name", options.name}, {"verify", rc}};
    if (rc != 0) {
        outcome.facts["finding"] = std::string("the recovered image fails verification: ") +
                                   LumRCToString(rc) + "; nothing copied";
        outcome.status = kExitFinding;
    } else if (int32_t sync = _LumRegionSync(region, out.c_str()); sync != 0) {
        outcome.facts["error"] = "writing the snapshot failed (" + std::to_string(sync) + ")";
        outcome.status = kExitError;
    } else {
        outcome.facts["snapshot"] = out + options.name + ".tab";
        outcome.facts["bytes"] = region->used.load();
        outcome.facts["generation"] = region->generation.load() + 1;
    }
    _LumRegionCloseReadOnly(region);
    return outcome;
}

void PrintCopy(const Json &facts) {
    if (facts.contains("finding"))
        std::cout << "finding: " << facts["finding"].get<std::string>() << "\n";
    if (facts.contains("snapshot"))
        std::cout << "wrote " << facts["snapshot"].get<std::string>() << ": " << facts["bytes"]
                  << " bytes, generation " << facts["generation"] << "\n";
}
