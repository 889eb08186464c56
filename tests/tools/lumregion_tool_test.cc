// The lumregion command run on real file sets that the library makes: a
// closed region, a crashed one with its logs alone, one with a torn log
// tail, and damaged ones. Checks exit statuses, key lines and JSON, and
// that no subcommand changes a byte or a modification time in the
// region's directory.
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

struct ToolRun {
    int status;
    std::string out;
    json Json() const { return json::parse(out); }
};

// Runs the tool; its stderr must hold no sanitizer report, whose exit
// status could pass for a finding.
ToolRun Tool(const std::string &arguments) {
    lumtest::TempDir scratch;
    std::string errors = scratch.path() + "stderr";
    std::string command = std::string(LUMREGION_TOOL) + " " + arguments + " 2>" + errors;
    FILE *pipe = popen(command.c_str(), "r");
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

bool Contains(const ToolRun &run, const std::string &text) {
    return run.out.find(text) != std::string::npos;
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

constexpr auto kCopyAll = fs::copy_options::recursive | fs::copy_options::overwrite_existing;
constexpr uint8_t kFill = 0x5a;
constexpr uint32_t kItems = 3, kItemSize = 100;

class ToolTest : public testing::Test {
  protected:
    // Creates region "r" with kItems items, commits, then either closes it
    // (a .tab alone) or, with `crash`, copies its files as a dying process
    // leaves them (logs only, unless `checkpoint`) and then closes it.
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
            ASSERT_EQ(LumMemAlloc(segment, kItemSize, &item), 0);
            memset(item, kFill + i, kItemSize);
            LumMemLog(segment, item);
        }
        if (checkpoint) {
            ASSERT_EQ(LumRegionCheckpoint(region), 0);
            LumMemLogCpyInt(segment, base, 0); // a change for the acknowledging commit
        }
        LumRegionCommit(region);
        LumSegmentClose(segment);
        if (crash)
            fs::copy(work_.path(), dir_.path(), kCopyAll);
        ASSERT_EQ(LumRegionClose(region), 0);
        if (!crash)
            fs::copy(work_.path(), dir_.path(), kCopyAll);
    }
    void Append(const std::string &file, const std::vector<uint8_t> &bytes) {
        FILE *out = fopen((dir_.path() + file).c_str(), "ab");
        fwrite(bytes.data(), 1, bytes.size(), out);
        fclose(out);
    }
    ToolRun On(const std::string &subcommand, const std::string &more = "") {
        return Tool(subcommand + " " + dir_.path() + " r " + more);
    }

    lumtest::TempDir work_, dir_, out_;
};

TEST_F(ToolTest, UsageErrorsAndHelp) {
    EXPECT_EQ(Tool("").status, 2);
    EXPECT_EQ(Tool("info").status, 2);
    EXPECT_EQ(Tool("frobnicate x").status, 2);
    for (const char *subcommand : {"info", "dump-log", "check", "stat", "copy"})
        EXPECT_EQ(Tool(std::string(subcommand) + " --help").status, 0) << subcommand;
    EXPECT_EQ(Tool("info /nonexistent/dir r").status, 2);
    EXPECT_EQ(Tool("dump-log /nonexistent/r_0.log").status, 2);
}

TEST_F(ToolTest, InfoShowsThePlanForATornLogAndChangesNothing) {
    MakeSet(true);
    uint64_t commit_end = fs::file_size(dir_.path() + "r_0.log");
    Append("r_0.log", {1, 0, 0, 0, 0, 0}); // a torn head behind the last commit
    Snapshot before = Take(dir_.path());
    ToolRun run = On("info", "--json");
    ASSERT_EQ(run.status, 0) << run.out;
    json facts = run.Json();
    EXPECT_EQ(facts["source"], "logs alone");
    ASSERT_EQ(facts["files"].size(), 5u);
    json log = facts["files"][3];
    EXPECT_EQ(log["file"], "r_0.log");
    EXPECT_TRUE(log["valid"]);
    EXPECT_FALSE(log["clean"]);
    EXPECT_EQ(log["commit_end"], commit_end);
    EXPECT_FALSE(facts["files"][0]["present"]); // no .tab, and none made
    EXPECT_EQ(facts["replay"][0]["to"], commit_end);
    EXPECT_EQ(facts["cuts"][0],
              json({{"file", "r_0.log"}, {"from", commit_end + 6}, {"to", commit_end}}));
    ToolRun text = On("info");
    EXPECT_TRUE(Contains(text, "source: logs alone")) << text.out;
    EXPECT_TRUE(Contains(text, "torn or malformed")) << text.out;
    EXPECT_EQ(Take(dir_.path()), before);
}

TEST_F(ToolTest, CheckRecoversATornSetInMemoryAsOpenWould) {
    MakeSet(true);
    Append("r_0.log", {7, 7, 7});
    Snapshot before = Take(dir_.path());
    ToolRun run = On("check", "--json --deep");
    ASSERT_EQ(run.status, 0) << run.out;
    json facts = run.Json();
    EXPECT_EQ(facts["verify"]["code"], 0);
    EXPECT_EQ(facts["verify_deep"]["code"], 0);
    EXPECT_EQ(facts["segments"], 1);
    EXPECT_TRUE(Contains(On("check"), "verify: ok"));
    EXPECT_EQ(Take(dir_.path()), before);

    // A real open cuts the tail and finds the same region.
    LumRegion *region;
    void *base;
    ASSERT_EQ(LumRegionOpen("r", 4 << 20, 4 << 20, 0, 0, dir_.path().c_str(), &region, &base), 0);
    EXPECT_EQ(LumRegionGetUsedBytes(region), facts["used_bytes"]);
    EXPECT_NE(Take(dir_.path()), before);
    LumRegionClose(region);
}

TEST_F(ToolTest, DumpLogListsRecordsAndNamesTheFirstBadOne) {
    MakeSet(true);
    ToolRun good = Tool("dump-log --data " + dir_.path() + "r_0.log");
    ASSERT_EQ(good.status, 0) << good.out;
    for (const char *line : {"magic LSB", "LOG_SIZE", "LOG_DATA", "LOG_COMMIT", "5a5a5a5a",
                             "ends at a record boundary"})
        EXPECT_TRUE(Contains(good, line)) << line << "\n" << good.out;
    json facts = Tool("dump-log --json " + dir_.path() + "r_0.log").Json();
    EXPECT_EQ(facts["records"][0]["type"], "LOG_SIZE");
    EXPECT_EQ(facts["records"].back()["type"], "LOG_COMMIT");

    struct Case {
        std::vector<uint8_t> tail;
        const char *reason;
    } cases[] = {
        {{9, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}, "unknown type 9"},
        {{3, 0, 0, 0, 4, 0, 0, 0, 0, 0, 0, 0}, "on a record that has none"},
        {{0, 0, 0, 0, 64, 0, 0, 0, 0, 0, 0, 0, 1, 2}, "reaches past the end of the file"},
        {{0, 0, 0, 0, 4, 0, 0, 0, 0, 0, 0, 1, 1, 2, 3, 4}, "beyond the image size"},
        {{3, 0, 0}, "torn head"},
    };
    std::vector<uint8_t> log = lumtest::ReadFile(dir_.path() + "r_0.log");
    for (const Case &c : cases) {
        std::vector<uint8_t> bytes = log;
        bytes.insert(bytes.end(), c.tail.begin(), c.tail.end());
        std::string path = out_.Write("bad.log", std::string(bytes.begin(), bytes.end()));
        ToolRun bad = Tool("dump-log " + path);
        EXPECT_EQ(bad.status, 1) << c.reason;
        EXPECT_TRUE(
            Contains(bad, "bad record at " + std::to_string(log.size()) + ": " + c.reason) ||
            Contains(bad, c.reason))
            << c.reason << "\n"
            << bad.out;
    }
    EXPECT_EQ(Tool("dump-log " + out_.Write("empty.log", "")).status, 1);
}

TEST_F(ToolTest, StatCountsTheChunksOfEachSegment) {
    MakeSet(false);
    ToolRun run = On("stat", "--json");
    ASSERT_EQ(run.status, 0) << run.out;
    json segment = run.Json()["segments"][0];
    EXPECT_EQ(segment["live_chunks"], kItems);
    EXPECT_GE(segment["free_chunks"], 1);
    EXPECT_EQ(segment["damaged"], false);
    EXPECT_GT(segment["largest_free"], 0);
    EXPECT_TRUE(Contains(On("stat"), "free items per bin:"));
}

TEST_F(ToolTest, DamagedImageIsAFindingOfCheckAndStat) {
    MakeSet(false);
    // The first chunk's head tag: behind the primary extent's header and
    // its front fence, in the first extent of the image.
    std::vector<uint8_t> tab = lumtest::ReadFile(dir_.path() + "r.tab");
    uint32_t tag_at = FirstExtentOffset() + extent_header::kPrimarySize + 16;
    tab[tag_at] = 0x13;
    tab[tag_at + 1] = 0xff;
    tab[tag_at + 2] = 0xff;
    dir_.Write("r.tab", std::string(tab.begin(), tab.end()));
    EXPECT_EQ(On("check").status, 1);
    ToolRun stat = On("stat", "--json");
    EXPECT_EQ(stat.status, 1);
    EXPECT_EQ(stat.Json()["segments"][0]["damaged"], true);
    EXPECT_EQ(On("copy", out_.path()).status, 1);
}

TEST_F(ToolTest, DamagedChkIsNotValidAndNoSourceIsAFinding) {
    MakeSet(true, true);
    ASSERT_TRUE(fs::exists(dir_.path() + "r_0.chk"));
    json facts = On("info", "--json").Json();
    EXPECT_EQ(facts["source"], "r_0.chk");
    EXPECT_EQ(facts["replay"][0]["file"], "r_0.log");
    EXPECT_EQ(On("check").status, 0);
    fs::resize_file(dir_.path() + "r_0.chk", fs::file_size(dir_.path() + "r_0.chk") - 1);
    facts = On("info", "--json").Json();
    EXPECT_FALSE(facts["files"][1]["valid"]);
    EXPECT_EQ(facts["source"], "logs alone");
    fs::remove(dir_.path() + "r_0.log");
    fs::remove(dir_.path() + "r_1.log");
    ToolRun none = On("info");
    EXPECT_EQ(none.status, 1);
    EXPECT_TRUE(Contains(none, "source: none"));
    EXPECT_EQ(On("check").status, 1);
}

TEST_F(ToolTest, CopyWritesASnapshotThatOpens) {
    MakeSet(true);
    Append("r_0.log", {1, 2});
    Snapshot before = Take(dir_.path());
    EXPECT_EQ(On("copy", dir_.path()).status, 2); // never over the region's own .tab
    ToolRun run = On("copy", out_.path());
    ASSERT_EQ(run.status, 0) << run.out;
    EXPECT_EQ(Take(dir_.path()), before);
    LumRegion *region;
    void *base;
    ASSERT_EQ(LumRegionOpen("r", 4 << 20, 4 << 20, 0, 0, out_.path().c_str(), &region, &base), 0);
    LumSegment *segment;
    ASSERT_EQ(LumSegmentOpen(region, 0, &segment), 0);
    LumSegmentScan *scan;
    ASSERT_EQ(LumSegmentScanBegin(segment, &scan), 0);
    void *item;
    for (uint32_t i = 0; i < kItems; ++i) {
        ASSERT_EQ(LumSegmentScanNext(scan, &item), 0);
        EXPECT_EQ(static_cast<uint8_t *>(item)[kItemSize - 1], kFill + i);
    }
    LumSegmentScanEnd(scan);
    LumSegmentClose(segment);
    LumRegionClose(region);
}

} // namespace
