// Pieces shared by the modes of lumregion-faults.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

namespace faults {

// How a child process ended.
enum class Ending { kClean, kLeaked, kHung, kCrashed };

// Runs `body` in a forked child under an alarm of `seconds`; the child
// exits 0 when body returns. LeakSanitizer's exit code counts as a leak.
Ending RunInChild(const std::function<void()> &body, unsigned seconds);

// Makes `path` an empty directory.
void MakeEmptyDirectory(const std::string &path);

// The damaged-files mode: every cut of each file (a sample of at most
// `cuts_per_file` when that is above 0) and `cases` seeded changes, each
// opened in a child or, `in_process`, here. Returns the exit status of the
// program.
int RunDamage(const std::string &work, uint64_t cases, uint64_t cuts_per_file, uint64_t seed,
              bool in_process);

} // namespace faults
