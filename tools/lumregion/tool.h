// The lumregion command: looks inside a region's files without changing
// them. Each subcommand gathers its facts into one JSON document, which it
// prints as is (--json) or as text, and returns an exit status.
#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>

struct LumRegion;

using Json = nlohmann::ordered_json;

// Exit statuses of every subcommand.
enum ExitStatus : int {
    kExitOk = 0,
    kExitFinding = 1, // a failed verification, a bad record, no usable source
    kExitError = 2,   // a usage or I/O error
};

// The arguments that the subcommands share.
struct ToolOptions {
    std::string directory; // as given; RegionDirectory() adds the separator
    std::string name;
    std::string file;          // dump-log
    std::string out_directory; // copy
    bool json = false;
    bool data = false;           // dump-log: payloads in hex
    bool deep = false;           // check: the deep verification too
    uint32_t limit = 0xFFF00000; // the address space of a recovered image
};

// A subcommand's outcome: its facts and its exit status.
struct Outcome {
    Json facts;
    int status = kExitOk;
};

// `directory` as the library takes it: absolute, with its trailing separator.
std::string RegionDirectory(const std::string &directory);
// A timestamp of a file header as UTC text, "-" for 0.
std::string TimestampText(int32_t timestamp);
// The failure of a subcommand that could not run: a message and status 2.
Outcome ErrorOutcome(const std::string &message);

// Recovers directory + name read-only. On failure *outcome holds the
// error or finding and the result is null; end a region with
// _LumRegionCloseReadOnly.
LumRegion *RecoverForTool(const ToolOptions &options, Outcome *outcome);

// The subcommands: each gathers its facts; the Print functions render them
// as text.
Outcome RunInfo(const ToolOptions &options);
void PrintInfo(const Json &facts);
Outcome RunDumpLog(const ToolOptions &options);
void PrintDumpLog(const Json &facts);
Outcome RunCheck(const ToolOptions &options);
void PrintCheck(const Json &facts);
Outcome RunStat(const ToolOptions &options);
void PrintStat(const Json &facts);
Outcome RunCopy(const ToolOptions &options);
void PrintCopy(const Json &facts);
