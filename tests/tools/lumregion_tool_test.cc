// The lumregion command on file sets that the library makes: closed,
// crashed (logs alone, or behind a checkpoint), torn and damaged. Each run
// checks the exit status, lines of text and facts of the JSON; no run may
// change a byte or a modification time in the region's directory.
#include <filesystem>
#include <gtest/gtest.h>
#include <map>
#include <nlohmann/json.hpp>
#include <sys/wait.h>

#include "alloc/layout.h"
#include "capture.h"
#include "lumregion.h"
#include "test_support.h"

namespace {

namespace fs = std::filesystem;
using nlohmann::json;

// A run of the tool: its arguments, the status it must exit with, and
// texts its output holds or, for --json, values at JSON pointers.
struct ToolRun {
    std::string arguments;
    int status;
    json expected = json::array();
};

// The tool's output; its stderr must hold no sanitizer report, whose exit
// status could pass for a finding.
std::pair<int, std::string> Tool(const std::string &arguments) {
    lumtest::TempDir scratch;
    std::string errors = scratch.path() + "stderr";
    FILE *pipe = popen((LUMREGION_TOOL " " + arguments + " 2>" + errors).c_str(), "r");
    std::string out;
    char chunk[4096];
    while (size_t read = fread(chunk, 1, sizeof chunk, pipe))
        out.append(chunk, read);
    int status = pclose(pipe);
    std::vector<uint8_t> report = lumtest::ReadFile(errors);
    EXPECT_EQ(std::string(report.begin(), report.end()).find("Sanitizer"), std::string::npos)
        << arguments;
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, out};
}

// Every file of a directory with its bytes and modification time.
using Snapshot = std::map<std::string, std::pair<std::vector<uint8_t>, fs::file_time_type>>;
Snapshot Take(const std::string &directory) {
    Snapshot snapshot;
    for (const auto &entry : fs::directory_iterator(directory))
        snapshot[entry.path().filename()] = {lumtest::ReadFile(entry.path()),
                                             fs::last_write_time(entry.path())};
    return snapshot;
}

constexpr uint32_t kItems = 3;

class ToolTest : public testing::Test {
  protected:
    // Region "r" with kItems items, committed, in dir_: as a close leaves
    // it (a .tab alone) or, with `crash`, as a dying process does (logs
    // only, unless `checkpoint`).
    void MakeSet(bool crash, bool checkpoint = false) {
        LumRegion *region;
        void *base;
        ASSERT_EQ(LumRegionCreate("r", LUM_REGION_PERSISTENT, 4 << 20, 4 << 20, 0, 0,
                                  work_.path().c_str(), &region, &base),
                  0);
        LumSegment *segment;
        ASSERT_EQ(LumSegmentCreate(region, 8192, 0, 0, 0, &segment), 0);
        for (uint32_t i = 0; i < kItems; ++i) {
            void *item;
            ASSERT_EQ(LumMemAlloc(segment, 100, &item), 0);
            memset(item, 0x5a + i, 100);
            LumMemLog(segment, item);
        }
        if (checkpoint) {
            ASSERT_EQ(LumRegionCheckpoint(region), 0);
            LumMemLogCpyInt(segment, base, 0); // a change for the acknowledging commit
        }
        LumRegionCommit(region);
        LumSegmentClose(segment);
        if (crash)
            fs::copy(work_.path(), dir_.path());
        ASSERT_EQ(LumRegionClose(region), 0);
        if (!crash)
            fs::copy(work_.path(), dir_.path());
    }
    // The arguments of a subcommand on region "r" of dir_.
    std::string On(const std::string &subcommand, const std::string &more = "") {
        return subcommand + " " + dir_.path() + " r " + more;
    }
    void ExpectRuns(const std::vector<ToolRun> &runs) {
        Snapshot before = Take(dir_.path());
        for (const ToolRun &run : runs) {
            auto [status, out] = Tool(run.arguments);
            EXPECT_EQ(status, run.status) << run.arguments << "\n" << out;
            json facts = run.expected.is_object() ? json::parse(out, nullptr, false) : json();
            for (const auto &[key, value] : run.expected.items()) {
                if (run.expected.is_array()) {
                    EXPECT_NE(out.find(value.get<std::string>()), std::string::npos)
                        << run.arguments << ": " << value;
                    continue;
                }
                json::json_pointer at(key);
                EXPECT_EQ(facts.contains(at) ? facts.at(at) : json(), value)
                    << run.arguments << ": " << key;
            }
        }
        EXPECT_EQ(Take(dir_.path()), before);
    }

    lumtest::TempDir work_, dir_, out_;
};

TEST_F(ToolTest, UsageErrorsAndHelp) {
    ExpectRuns({{"", 2},
                {"info", 2},
                {"frobnicate x", 2},
                {"check --help", 0},
                {"info /nonexistent/dir r", 2},
                {"dump-log /nonexistent/r_0.log", 2}});
}

// A crashed set read as it is, then with a torn record head behind its
// last commit: info plans the cut, check and copy recover in memory as an
// open would.
TEST_F(ToolTest, CrashedAndTornSets) {
    MakeSet(true);
    const std::string log = dir_.path() + "r_0.log";
    const uint64_t commit_end = fs::file_size(log);
    ExpectRuns({{"dump-log --data " + log,
                 0,
                 {"magic LSB", "LOG_SIZE", "LOG_DATA", "LOG_COMMIT", "5a5a5a5a",
                  "ends at a record boundary"}},
                {"dump-log --json " + log, 0, {{"/records/0/type", "LOG_SIZE"}}}});
    std::ofstream(log, std::ios::app) << std::string("\1\0\0\0\0\0", 6);
    ExpectRuns(
        {{On("info", "--json"),
          0,
          {{"/source", "logs alone"},
           {"/files/0/present", false},
           {"/files/3/file", "r_0.log"},
           {"/files/3/valid", true},
           {"/files/3/clean", false},
           {"/files/3/commit_end", commit_end},
           {"/replay/0/to", commit_end},
           {"/cuts/0", {{"file", "r_0.log"}, {"from", commit_end + 6}, {"to", commit_end}}}}},
         {On("info"), 0, {"source: logs alone", "torn or malformed"}},
         {On("check", "--json --deep"),
          0,
          {{"/verify/code", 0}, {"/verify_deep/code", 0}, {"/segments", 1}}},
         {On("check"), 0, {"verify: ok"}},
         {On("copy", dir_.path()), 2}, // never over the region's own .tab
         {On("copy", out_.path()), 0}});

    // A real open cuts the tail and finds the region that check found.
    json facts = json::parse(Tool(On("check", "--json")).second);
    LumRegion *region;
    void *base;
    ASSERT_EQ(LumRegionOpen("r", 4 << 20, 4 << 20, 0, 0, dir_.path().c_str(), &region, &base), 0);
    EXPECT_EQ(LumRegionGetUsedBytes(region), facts["used_bytes"]);
    // The copy is a snapshot of that region: a file header and the image behind it.
    std::vector<uint8_t> copy = lumtest::ReadFile(out_.path() + "r.tab");
    LumRegionInfo info{};
    LumRegionGetInfo(region, &info);
    ASSERT_EQ(copy.size(), info.used);
    EXPECT_TRUE(std::equal(copy.begin() + 32, copy.end(), static_cast<uint8_t *>(base) + 32));
    LumRegionClose(region);
}

// Each bad tail behind good records is named at its offset.
TEST_F(ToolTest, DumpLogNamesTheFirstBadRecord) {
    MakeSet(true);
    const std::pair<std::vector<uint8_t>, const char *> tails[] = {
        {{9, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}, "unknown type 9"},
        {{3, 0, 0, 0, 4, 0, 0, 0, 0, 0, 0, 0}, "on a record that has none"},
        {{0, 0, 0, 0, 64, 0, 0, 0, 0, 0, 0, 0, 1, 2}, "reaches past the end of the file"},
        {{0, 0, 0, 0, 4, 0, 0, 0, 0, 0, 0, 1, 1, 2, 3, 4}, "beyond the image size"},
        {{3, 0, 0}, "torn head"},
    };
    std::vector<uint8_t> log = lumtest::ReadFile(dir_.path() + "r_0.log");
    std::vector<ToolRun> runs = {{"dump-log " + out_.Write("empty.log", ""), 1}};
    for (const auto &[tail, reason] : tails) {
        std::string bytes(log.begin(), log.end());
        bytes.append(tail.begin(), tail.end());
        std::string at = "bad record at " + std::to_string(log.size()) + ": ";
        runs.push_back(
            {"dump-log " + out_.Write(std::to_string(runs.size()), bytes), 1, {at, reason}});
    }
    ExpectRuns(runs);
}

// A closed set, then one whose first chunk's head tag is damaged.
TEST_F(ToolTest, StatCountsChunksAndADamagedImageIsAFinding) {
    MakeSet(false);
    ExpectRuns({{On("stat", "--json"),
                 0,
                 {{"/segments/0/live_chunks", kItems},
                  {"/segments/0/free_chunks", 1},
                  {"/segments/0/damaged", false}}},
                {On("stat"), 0, {"free items per bin:"}}});
    std::vector<uint8_t> tab = lumtest::ReadFile(dir_.path() + "r.tab");
    uint32_t tag_at = FirstExtentOffset() + extent_header::kPrimarySize + 16;
    tab[tag_at] = 0x13;
    tab[tag_at + 1] = tab[tag_at + 2] = 0xff;
    dir_.Write("r.tab", std::string(tab.begin(), tab.end()));
    ExpectRuns({{On("check"), 1},
                {On("stat", "--json"), 1, {{"/segments/0/damaged", true}}},
                {On("copy", out_.path()), 1}});
}

// Behind a checkpoint the chk file is the source; cut short, it is not
// valid; with no log either, there is no source.
TEST_F(ToolTest, DamagedChkIsNotValidAndNoSourceIsAFinding) {
    MakeSet(true, true);
    ExpectRuns({{On("info", "--json"),
                 0,
                 {{"/source", "r_0.chk"}, {"/files/1/valid", true}, {"/replay/0/file", "r_0.log"}}},
                {On("check"), 0}});
    fs::resize_file(dir_.path() + "r_0.chk", fs::file_size(dir_.path() + "r_0.chk") - 1);
    ExpectRuns({{On("info", "--json"), 0, {{"/files/1/valid", false}, {"/source", "logs alone"}}}});
    fs::remove(dir_.path() + "r_0.log");
    fs::remove(dir_.path() + "r_1.log");
    ExpectRuns({{On("info"), 1, {"source: none"}}, {On("check"), 1}});
}

} // namespace
