// lumregion check: recovers a region into memory without writing to its
// files and verifies the image (LumRegionVerify, and with --deep
// LumRegionVerifyDeep). Status 1 when a verification fails.
#include <iostream>

#include "durable/recovery.h"
#include "lumregion.h"
#include "tools/lumregion/tool.h"

namespace {

Json VerifyFacts(int32_t rc) {
    return {{"code", rc}, {"result", rc == 0 ? "ok" : LumRCToString(rc)}};
}

} // namespace

Outcome RunCheck(const ToolOptions &options) {
    Outcome outcome;
    LumRegion *region = RecoverForTool(options, &outcome);
    if (region == nullptr)
        return outcome;
    LumRegionInfo info;
    LumRegionGetInfo(region, &info);
    int32_t rc = LumRegionVerify(region);
    outcome.facts = {{"name", options.name},
                     {"generation", region->generation.load()},
                     {"image_bytes", info.used},
                     {"segments", info.segment_count},
                     {"used_bytes", LumRegionGetUsedBytes(region)},
                     {"verify", VerifyFacts(rc)}};
    if (options.deep) {
        int32_t deep = LumRegionVerifyDeep(region);
        outcome.facts["verify_deep"] = VerifyFacts(deep);
        rc = rc != 0 ? rc : deep;
    }
    outcome.status = rc == 0 ? kExitOk : kExitFinding;
    _LumRegionCloseReadOnly(region);
    return outcome;
}

void PrintCheck(const Json &facts) {
    if (facts.contains("finding"))
        std::cout << "finding: " << facts["finding"].get<std::string>() << "\n";
    if (!facts.contains("verify"))
        return;
    std::cout << "region " << facts["name"].get<std::string>() << ": generation "
              << facts["generation"] << ", image " << facts["image_bytes"] << " bytes, "
              << facts["segments"] << " segments, " << facts["used_bytes"] << " bytes used\n";
    std::cout << "verify: " << facts["verify"]["result"].get<std::string>() << "\n";
    if (facts.contains("verify_deep"))
        std::cout << "verify deep: " << facts["verify_deep"]["result"].get<std::string>() << "\n";
}
