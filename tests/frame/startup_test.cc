// Starting and stopping the library, once per process: each test works in a
// forked child whose exit code is 0 or the failing check's line.
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <string>
#include <tuple>

#include "frame/frame.h"
#include "test_support.h"

// The leak checker of the address-sanitizing build; null in other builds.
extern "C" int __lsan_do_recoverable_leak_check() __attribute__((weak));

namespace {

#define CHILD_CHECK(condition)                                                                     \
    do {                                                                                           \
        if (!(condition)) {                                                                        \
            fprintf(stderr, "%s:%d: %s\n", __FILE__, __LINE__, #condition);                        \
            return __LINE__ % 250 + 1;                                                             \
        }                                                                                          \
    } while (0)

LumPropMgr *Properties(bool defined = true) {
    LumPropMgr *properties = nullptr;
    LumPropMgrCreate(&properties);
    if (defined)
        LumRegionPropMgrInitialise(properties);
    return properties;
}

// Every switch set against its default; null (so the row fails) unless the
// parse leaves the host's own arguments, a mere prefix of an option among them.
LumPropMgr *PropertiesFromOptions() {
    LumPropMgr *properties = Properties();
    LumArgMgr *arguments = nullptr;
    char program[] = "host", verify[] = "-regionnoverifyonrecovery", own[] = "-own",
         protect[] = "-regionprotectall", check[] = "-regionmutationcheck",
         prefix[] = "-regionnoverify";
    char *argv[] = {program, verify, own, protect, check, prefix, nullptr};
    int argc = 6;
    bool parsed = LumArgMgrCreate(properties, &arguments) == 0 &&
                  LumRegionArgMgrInitialise(arguments) == 0 &&
                  LumArgMgrParse(arguments, &argc, argv) == 0 && argc == 3 && argv[1] == own &&
                  argv[2] == prefix;
    return parsed ? properties : nullptr;
}

bool CheckpointThreadRuns() {
    for (const auto &task : std::filesystem::directory_iterator("/proc/self/task")) {
        std::ifstream comm(task.path() / "comm");
        if (std::string name; std::getline(comm, name) && name == "REGIONCHKPT")
            return true;
    }
    return false;
}

int32_t CreateVolatile(LumRegion **region) {
    void *base;
    return LumRegionCreate("r", LUM_REGION_VOLATILE, 1 << 20, 1 << 20, 0, 0, nullptr, region,
                           &base);
}

void ExpectChildPasses(const std::function<int()> &body, const std::string &what = "") {
    EXPECT_EQ(lumtest::ExitCode(lumtest::RunInChild(body)), 0) << what;
}

} // namespace

// Later starts change nothing; the thread reports its loop only while the
// region facility is on.
TEST(Startup, FirstStartSetsUpTheLibraryUntilItStops) {
    using Switches = std::array<int32_t, 4>; // barrier, protect all, mutation check, verify
    enum Source { kDefined, kUndefined, kOptions };
    struct Row {
        const char *what, *home;
        Source properties;
        const char *kept_home;
        Switches switches;
        int32_t debug;
    };
    const Row rows[] = {
        {"defaults", "/data", kDefined, "/data/", {1, 0, 0, 1}, 0},
        {"home ending in separators", "/data//", kDefined, "/data//", {1, 0, 0, 1}, 1},
        {"empty home", "", kDefined, "/", {1, 0, 0, 1}, 0},
        {"properties not defined", "/data", kUndefined, "/data/", {1, 0, 0, 1}, 0},
        {"options", "/data", kOptions, "/data/", {1, 1, 1, 0}, 0},
        {"no write barrier", "/data", kDefined, "/data/", {0, 0, 0, 1}, 0},
    };
    const std::vector<std::string> loop = {"1 CHKPT: started", "1 CHKPT: sleeping ...",
                                           "1 CHKPT: awake", "1 CHKPT: told to stop during sleep",
                                           "1 CHKPT: stopped"};
    for (const Row &row : rows) {
        ExpectChildPasses(
            [&] {
                LumDebugFacilitySet("region", row.debug);
                lumtest::LogCapture log;
                lum_platform.flush_write_buffers =
                    row.switches[0] ? +[] { return 0; } : +[] { return ENOSYS; };
                LumPropMgr *properties = row.properties == kOptions
                                             ? PropertiesFromOptions()
                                             : Properties(row.properties == kDefined);
                auto kept = [&] {
                    return strcmp(region_home, row.kept_home) == 0 &&
                           Switches{region_write_barrier, region_protect_all, region_mutation_check,
                                    region_verify_on_recovery} == row.switches;
                };
                CHILD_CHECK(!CheckpointThreadRuns() && LumRegionStartup(properties, row.home) == 0);
                CHILD_CHECK(region_started == 1 && CheckpointThreadRuns() && kept());
                CHILD_CHECK(strcmp(LumRCToString(-491), "Invalid chunk") == 0);
                CHILD_CHECK(strcmp(LumRCToString(-492), "Unknown error -492") == 0); // no row
                LumMutex *mutex = region_registry_mutex;
                lum_platform.flush_write_buffers = // the barrier is probed once
                    row.switches[0] ? +[] { return ENOSYS; } : +[] { return 0; };
                CHILD_CHECK(LumRegionStartup(PropertiesFromOptions(), "/second") == 0);
                CHILD_CHECK(LumRegionStartup(nullptr, nullptr) == 0);
                CHILD_CHECK(kept() && region_registry_mutex == mutex);
                CHILD_CHECK(LumRegionShutdown() == 0 && !CheckpointThreadRuns());
                std::vector<std::string> reported;
                for (const auto &record : log.Records())
                    reported.push_back(std::to_string(record.severity) + " " + record.text);
                CHILD_CHECK(reported == (row.debug ? loop : std::vector<std::string>{}));
                return 0;
            },
            row.what);
    }
}

// Not before a start, nor after a refused one, nor after a stop, for good.
TEST(Startup, RegionsNeedARunningLibrary) {
    ExpectChildPasses([] {
        LumRegion *region = nullptr;
        CHILD_CHECK(CreateVolatile(&region) == LUM_RC_FAILURE);
        CHILD_CHECK(LumRegionShutdown() == 0);
        CHILD_CHECK(LumRegionPropMgrInitialise(Properties()) == EEXIST); // defined twice
        CHILD_CHECK(LumRegionStartup(Properties(), nullptr) == LUM_RC_FAILURE);
        CHILD_CHECK(LumRegionStartup(Properties(), std::string(264, 'h').c_str()) ==
                    LUM_RC_FAILURE);
        CHILD_CHECK(region_started == 0 && CreateVolatile(&region) == LUM_RC_FAILURE);
        CHILD_CHECK(LumRegionStartup(Properties(), "/data") == 0);
        CHILD_CHECK(CreateVolatile(&region) == 0 && LumRegionClose(region) == 0);
        CHILD_CHECK(LumRegionShutdown() == 0);
        CHILD_CHECK(LumRegionStartup(Properties(), "/data") == 0 && !CheckpointThreadRuns());
        CHILD_CHECK(CreateVolatile(&region) == LUM_RC_FAILURE);
        return 0;
    });
}

// Each allocation of the start may fail, again and again, without leaking
// (where the catalogue fails, the start goes on).
TEST(Startup, FailedStartsMayBeRetriedWithoutLeaking) {
    for (uint32_t nth = 1; nth <= 12; ++nth) {
        ExpectChildPasses(
            [nth] {
                LumPropMgr *properties = Properties();
                int32_t rc = 0;
                for (int attempt = 0; attempt < 3 && (attempt == 0 || rc != 0); ++attempt) {
                    lumtest::MallocFailure failure(nth);
                    rc = LumRegionStartup(properties, "/data");
                    CHILD_CHECK(rc == 0 || rc == LUM_RC_NO_MEMORY);
                    CHILD_CHECK(region_started == (rc == 0 ? 1 : 0));
                    CHILD_CHECK(rc == 0 || region_registry_mutex == nullptr);
                }
                CHILD_CHECK(LumRegionStartup(properties, "/data") == 0 && CheckpointThreadRuns());
                CHILD_CHECK(LumRegionShutdown() == 0);
                LumPropMgrDestroy(properties);
                CHILD_CHECK(!__lsan_do_recoverable_leak_check ||
                            __lsan_do_recoverable_leak_check() == 0);
                return 0;
            },
            "allocation " + std::to_string(nth));
    }
}

// A value that is not positive keeps the default; a bad or missing one stays unparsed.
TEST(Properties, CheckpointIntervalComesFromItsIntegerOption) {
    // text (null: the option ends the command line), result, interval
    const std::tuple<const char *, int32_t, int32_t> rows[] = {{"250", 0, 250},
                                                               {"0", 0, 60000},
                                                               {"-5", 0, 60000},
                                                               {"soon", EINVAL, 60000},
                                                               {nullptr, EINVAL, 60000}};
    for (const auto &[given, rc, interval] : rows) {
        SCOPED_TRACE(given ? given : "missing");
        LumPropMgr *properties = Properties();
        LumArgMgr *arguments = nullptr;
        ASSERT_EQ(LumArgMgrCreate(properties, &arguments), 0);
        ASSERT_EQ(LumRegionArgMgrInitialise(arguments), 0);
        std::string text = given ? given : "";
        char program[] = "host", option[] = "-regioncheckpointinterval";
        char *argv[] = {program, option, text.data(), nullptr};
        int argc = given ? 3 : 2, unparsed = rc == 0 ? 1 : argc;
        EXPECT_EQ(LumArgMgrParse(arguments, &argc, argv), rc);
        EXPECT_EQ(argc, unparsed);
        RegionReadProperties(properties);
        EXPECT_EQ(region_checkpoint_interval, interval);
        LumArgMgrDestroy(arguments);
        LumPropMgrDestroy(properties);
    }
}
