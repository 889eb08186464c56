// lumregion: looks inside the files of a persistent region.
//
//   lumregion info DIR NAME            the five files, their verdicts and
//                                      what recovery would do with them
//   lumregion dump-log FILE [--data]   the records of one log file
//   lumregion check DIR NAME [--deep]  recover into memory and verify
//   lumregion stat DIR NAME            per segment: chunks, free space, bins
//   lumregion copy DIR NAME OUTDIR     a snapshot of the recovered region
//
// No subcommand writes to DIR: files are opened read-only and recovery
// runs in memory. Exit status 0 on success, 1 on a finding, 2 on a usage
// or I/O error; --json prints the same facts as one JSON document.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <functional>
#include <iostream>

#include "lumregion.h"
#include "tools/lumregion/tool.h"

namespace {

// Library reports worth a user's attention go to stderr; progress does not.
void LogFailures(void *, int32_t severity, uint32_t, uint32_t, const char *text) {
    if (severity >= LUM_LOG_FAILURE)
        fprintf(stderr, "lumregion: %s\n", text);
}

struct Subcommand {
    const char *name;
    const char *description;
    std::function<Outcome(const ToolOptions &)> run;
    std::function<void(const Json &)> print;
};

void AddRegionArguments(CLI::App *command, ToolOptions *options) {
    command->add_option("DIR", options->directory, "Directory of the region's files")->required();
    command->add_option("NAME", options->name, "Region name")->required();
}

// Starts the library for the recovery of regions in `home`.
bool StartLibrary(const std::string &home) {
    LumLogSetSink(LogFailures, nullptr);
    return LumRegionStartup(nullptr, home.c_str()) == 0;
}

int Run(const Subcommand &subcommand, const ToolOptions &options) {
    std::string home = options.directory.empty() ? "/" : RegionDirectory(options.directory);
    bool started = StartLibrary(home);
    Outcome outcome = started ? subcommand.run(options) : ErrorOutcome("the library did not start");
    if (started)
        LumRegionShutdown();
    if (options.json)
        std::cout << outcome.facts.dump(2) << "\n";
    else
        subcommand.print(outcome.facts);
    if (!options.json && outcome.facts.contains("error"))
        std::cerr << "lumregion: " << outcome.facts["error"].get<std::string>() << "\n";
    return outcome.status;
}

} // namespace

int main(int argc, char **argv) {
    CLI::App app{"lumregion: looks inside the files of a persistent region without changing them"};
    app.require_subcommand(1);
    ToolOptions options;
    const Subcommand subcommands[] = {
        {"info", "The five files, their verdicts, and what recovery would do", RunInfo, PrintInfo},
        {"dump-log", "The header and records of one log file", RunDumpLog, PrintDumpLog},
        {"check", "Recover into memory, without writing, and verify the image", RunCheck,
         PrintCheck},
        {"stat", "Per segment: extents, chunks, free space, size bins, fragmentation", RunStat,
         PrintStat},
        {"copy", "Write a snapshot of the recovered region to OUTDIR/NAME.tab", RunCopy, PrintCopy},
    };
    const Subcommand *chosen = nullptr;
    for (const Subcommand &subcommand : subcommands) {
        CLI::App *command = app.add_subcommand(subcommand.name, subcommand.description);
        command->add_flag("--json", options.json, "Print one JSON document");
        std::string name = subcommand.name;
        if (name == "dump-log") {
            command->add_option("FILE", options.file, "A log file (NAME_0.log, NAME_1.log)")
                ->required();
            command->add_flag("--data", options.data, "Print each payload in hex");
        } else {
            AddRegionArguments(command, &options);
            command->add_option("--limit", options.limit,
                                "Address space reserved for the recovered image, bytes");
        }
        if (name == "check")
            command->add_flag("--deep", options.deep, "Also run the deep verification");
        if (name == "copy")
            command->add_option("OUTDIR", options.out_directory, "Directory of the snapshot")
                ->required();
        command->callback([&chosen, &subcommand] { chosen = &subcommand; });
    }
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &error) {
        int status = app.exit(error);
        return status == 0 ? kExitOk : kExitError;
    }
    return Run(*chosen, options);
}
