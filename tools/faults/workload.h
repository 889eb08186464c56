// The scripted workload of lumregion-faults and the judge of what a region
// holds after it: one region, seeded transactions over a table of items,
// commits, two checkpoints, a sync, a close, an open, a hash table and a
// list. The workload runs in a child process; what it did and what it was
// told goes to a page the parent shares.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "lumregion.h"

namespace faults {

constexpr char kRegionName[] = "f";
constexpr uint32_t kHardLimit = 4u << 20;

// What one run of the workload (or of the judge) leaves for the parent.
struct Outcome {
    int64_t attempted = -1;      // the last commit the workload started, -1 for none
    int64_t acknowledged = -1;   // the last commit whose log write succeeded, -1 for none
    uint32_t root = 0;           // image offset of the item table
    uint32_t failures_shown = 0; // nonzero results, failed log states and failure reports
    uint32_t finished = 0;       // the workload ran to its end
    uint32_t reached = 0;        // the fault injected into the workload was met
    int64_t calls = 0;           // file calls the workload made
    int64_t recovered = -1;      // the judge: the commit the image equals, -1 for none
    int32_t open_result = 0;     // the judge: LumRegionOpen's result
    int32_t verify_result = 0;   // the judge: LumRegionVerify's result
};

// A page of memory shared with every child forked after it.
Outcome *SharedOutcome();

// Starts the library in a child with a sink that counts failure reports
// into `outcome` (and prints them when `show` is set). Data directory:
// `directory` + "home/", which the sync then does not hit.
bool StartLibrary(const std::string &directory, Outcome *outcome, bool show);

// Runs the workload on a fresh region in `directory` (ending in '/').
// Stops at the first failure that leaves it without a handle it needs;
// every other failure it notes and goes on, as a host would. Verifies the
// region it holds at the end and closes it, or with `abandon` checkpoints
// and commits once more and leaves it open, for the caller to exit: then
// all five files of the region hold data.
void RunWorkload(const std::string &directory, Outcome *outcome, bool abandon = false);

// Opens the region in `directory` and records what it holds: the open's
// and the verification's results, and which commit of the workload the
// items equal (among commits 0 to `last`). Returns the region it opened,
// null when the open failed; a child that judges may leave it open.
LumRegion *JudgeRegion(const std::string &directory, uint32_t root, int64_t last,
                       Outcome *outcome);

} // namespace faults
