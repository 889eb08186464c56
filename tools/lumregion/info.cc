// lumregion info: the five files of a region as recovery judges them, the
// source it would choose, the logs it would replay and what it would cut.
// The verdicts and the plan come from recovery itself (_LumRecoveryJudge,
// _LumRecoveryPlan), run read-only: no file is created or changed.
#include <cstdio>
#include <filesystem>
#include <iostream>

#include "durable/recovery.h"
#include "tools/lumregion/tool.h"

namespace {

// The suffixes of the five files, in the order of RecoveryFileSet::All().
constexpr const char *kSuffixes[] = {".tab", "_0.chk", "_1.chk", "_0.log", "_1.log"};

Json FileFacts(const std::string &name, const char *suffix, const RecoveryFile &file, bool log) {
    Json facts = {{"file", name + suffix},       {"present", file.fd >= 0},
                  {"size", file.size},           {"generation", file.generation},
                  {"timestamp", file.timestamp}, {"valid", file.valid}};
    if (log) {
        facts["clean"] = file.clean;
        facts["commit_end"] = file.commit_end;
        facts["checkpoint"] = file.checkpoint_position == kNoCheckpoint
                                  ? Json(nullptr)
                                  : Json(file.checkpoint_position);
        facts["follows_gap"] = file.follows_gap;
    }
    if (file.unreadable)
        facts["unreadable"] = true;
    return facts;
}

std::string SourceText(const RecoveryPlan &plan, const std::string &name) {
    switch (plan.source) {
    case RecoverySource::kTab:
        return name + ".tab";
    case RecoverySource::kChk:
        return name + "_" + std::to_string(plan.chk_parity) + ".chk";
    case RecoverySource::kLogs:
        return "logs alone";
    default:
        return "none";
    }
}

// The replay, the cut behind the last commit, and the files emptied when
// the region takes them over (those that hold anything now).
void AddPlanFacts(const RecoveryPlan &plan, const RecoveryFileSet &files, const std::string &name,
                  Json *facts) {
    std::string log_names[2] = {name + "_0.log", name + "_1.log"};
    std::string chk_names[2] = {name + "_0.chk", name + "_1.chk"};
    (*facts)["source"] = SourceText(plan, name);
    (*facts)["expected_generations"] = {plan.first, plan.first + 1};
    Json replay = Json::array();
    for (int32_t parity : plan.replay) {
        if (parity < 0)
            continue;
        const RecoveryFile &log = files.log[parity];
        uint64_t end = parity == plan.cut_parity ? plan.cut_length : log.size;
        replay.push_back(
            {{"file", log_names[parity]}, {"generation", log.generation}, {"to", end}});
    }
    (*facts)["replay"] = replay;
    Json cuts = Json::array();
    if (plan.cut_parity >= 0)
        cuts.push_back({{"file", log_names[plan.cut_parity]},
                        {"from", files.log[plan.cut_parity].size},
                        {"to", plan.cut_length}});
    for (int32_t parity = 0; parity < 2; ++parity) {
        if (plan.empty_chk[parity] && files.chk[parity].size > 0)
            cuts.push_back(
                {{"file", chk_names[parity]}, {"from", files.chk[parity].size}, {"to", 0}});
        if (plan.empty_log[parity] && files.log[parity].size > 0)
            cuts.push_back(
                {{"file", log_names[parity]}, {"from", files.log[parity].size}, {"to", 0}});
    }
    (*facts)["cuts"] = cuts;
}

} // namespace

Outcome RunInfo(const ToolOptions &options) {
    std::string directory = RegionDirectory(options.directory);
    if (!std::filesystem::is_directory(directory))
        return ErrorOutcome("no directory " + directory);
    RecoveryFileSet files;
    std::vector<uint8_t> buffer(kLogBlock);
    int32_t rc =
        _LumRecoveryJudge(directory.c_str(), options.name.c_str(), &files, buffer.data(), true);
    Json facts = {{"directory", directory}, {"name", options.name}, {"files", Json::array()}};
    bool unreadable = false;
    size_t index = 0;
    for (RecoveryFile *file : files.All()) {
        facts["files"].push_back(FileFacts(options.name, kSuffixes[index], *file, index >= 3));
        ++index;
        unreadable = unreadable || file->unreadable;
        _LumFileClose(file);
    }
    if (rc != 0 || unreadable) {
        facts["error"] = "a file could not be read";
        return {facts, kExitError};
    }
    RecoveryPlan plan;
    if (_LumRecoveryPlan(files, &plan) != 0) {
        facts["source"] = "none";
        facts["finding"] = "no source recovery could use";
        return {facts, kExitFinding};
    }
    AddPlanFacts(plan, files, options.name, &facts);
    return {facts, kExitOk};
}

namespace {

std::string Verdict(const Json &file) {
    if (!file["present"].get<bool>())
        return "missing";
    if (file["size"].get<uint64_t>() == 0)
        return "empty";
    if (!file["valid"].get<bool>())
        return "not valid";
    std::string verdict = "valid";
    if (file.contains("clean")) {
        verdict += file["clean"].get<bool>() ? ", clean" : ", torn or malformed";
        verdict += ", commit_end " + std::to_string(file["commit_end"].get<uint64_t>());
        if (!file["checkpoint"].is_null())
            verdict += ", checkpoint at " + std::to_string(file["checkpoint"].get<uint64_t>());
        if (file["follows_gap"].get<bool>())
            verdict += ", follows a failed log";
    }
    return verdict;
}

} // namespace

void PrintInfo(const Json &facts) {
    if (!facts.contains("files"))
        return;
    std::cout << "region " << facts["name"].get<std::string>() << " in "
              << facts["directory"].get<std::string>() << "\n";
    printf("%-20s %10s %10s  %-19s  %s\n", "file", "size", "generation", "timestamp", "verdict");
    for (const Json &file : facts["files"])
        printf("%-20s %10llu %10u  %-19s  %s\n", file["file"].get<std::string>().c_str(),
               static_cast<unsigned long long>(file["size"].get<uint64_t>()),
               file["generation"].get<uint32_t>(),
               TimestampText(file["timestamp"].get<int32_t>()).c_str(), Verdict(file).c_str());
    if (!facts.contains("source"))
        return;
    std::cout << "source: " << facts["source"].get<std::string>() << "\n";
    if (!facts.contains("replay"))
        return;
    std::cout << "replay:";
    for (const Json &log : facts["replay"])
        std::cout << " " << log["file"].get<std::string>() << " (generation "
                  << log["generation"].get<uint32_t>() << ") to " << log["to"].get<uint64_t>();
    std::cout << (facts["replay"].empty() ? " none\n" : "\n") << "cut:";
    for (const Json &cut : facts["cuts"])
        std::cout << " " << cut["file"].get<std::string>() << " " << cut["from"].get<uint64_t>()
                  << " -> " << cut["to"].get<uint64_t>() << ";";
    std::cout << (facts["cuts"].empty() ? " nothing\n" : "\n");
}
