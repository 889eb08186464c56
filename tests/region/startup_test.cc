// Starting and stopping the library. It starts once per process, so every
// test does its work in a forked child and reports through its exit code
// (0 for success, the failing check's line otherwise).
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <gtest/gtest.h>
#include <string>

#include "frame.h"
#include "test_support.h"

using lumtest::ExitCode;
using lumtest::RunInChild;

namespace {

#define CHILD_CHECK(condition)                                                                     \
    do {                                                                                           \
        if (!(condition)) {                                                                        \
            fprintf(stderr, "%s:%d: %s\n", __FILE__, __LINE__, #condition);                        \
            return __LINE__ % 250 + 1;                                                             \
        }                                                                                          \
    } while (0)

LumPropMgr *InitialisedProperties() {
    LumPropMgr *properties = nullptr;
    LumPropMgrCreate(&properties);
    LumRegionPropMgrInitialise(properties);
    return properties;
}

bool CheckpointThreadRuns() {
    auto names = lumtest::ThreadNames();
    return std::find(names.begin(), names.end(), "REGIONCHKPT") != names.end();
}

int32_t CreateVolatile(LumRegion **region) {
    void *base;
    return LumRegionCreate("r", LUM_REGION_VOLATILE, 1 << 20, 1 << 20, 0, 0, nullptr, region,
                           &base);
}

void ExpectChildPasses(const std::function<int()> &body) {
    EXPECT_EQ(ExitCode(RunInChild(body)), 0);
}

} // namespace

TEST(Startup, StartsTheNamedThreadAndStopsIt) {
    ExpectChildPasses([] {
        CHILD_CHECK(!CheckpointThreadRuns());
        CHILD_CHECK(LumRegionStartup(InitialisedProperties(), "/data") == 0);
        CHILD_CHECK(region_started == 1);
        CHILD_CHECK(region_page_size == static_cast<uint32_t>(getpagesize()));
        CHILD_CHECK(CheckpointThreadRuns());
        CHILD_CHECK(LumRegionShutdown() == 0);
        CHILD_CHECK(!CheckpointThreadRuns());
        return 0;
    });
}

TEST(Startup, HomeGetsOneTrailingSeparatorUnlessItHasOne) {
    const std::pair<const char *, const char *> cases[] = {
        {"/data", "/data/"}, {"/data/", "/data/"}, {"/data//", "/data//"}, {"", "/"}};
    for (const auto &[given, wanted] : cases) {
        const char *home = given, *expected = wanted;
        ExpectChildPasses([home, expected] {
            CHILD_CHECK(LumRegionStartup(InitialisedProperties(), home) == 0);
            CHILD_CHECK(strcmp(region_home, expected) == 0);
            return 0;
        });
    }
}

TEST(Startup, SecondStartChangesNothing) {
    ExpectChildPasses([] {
        CHILD_CHECK(LumRegionStartup(InitialisedProperties(), "/first") == 0);
        LumMutex *mutex = region_registry_mutex;
        LumPropMgr *other = InitialisedProperties();
        LumValue on{};
        on.type = LUM_VALUE_BOOLEAN;
        on.value.boolean = 1;
        LumPropMgrSetValue(other, "Region.ProtectAll", &on);
        CHILD_CHECK(LumRegionStartup(other, "/second") == 0);
        CHILD_CHECK(LumRegionStartup(nullptr, nullptr) == 0);
        CHILD_CHECK(strcmp(region_home, "/first/") == 0);
        CHILD_CHECK(region_protect_all == 0);
        CHILD_CHECK(region_registry_mutex == mutex);
        return 0;
    });
}

TEST(Startup, StartAfterShutdownLeavesTheLibraryStopped) {
    ExpectChildPasses([] {
        CHILD_CHECK(LumRegionStartup(InitialisedProperties(), "/data") == 0);
        CHILD_CHECK(LumRegionShutdown() == 0);
        CHILD_CHECK(LumRegionStartup(InitialisedProperties(), "/data") == 0);
        CHILD_CHECK(!CheckpointThreadRuns());
        LumRegion *region = nullptr;
        CHILD_CHECK(CreateVolatile(&region) == LUM_RC_FAILURE);
        CHILD_CHECK(LumRegionShutdown() == 0);
        return 0;
    });
}

TEST(Startup, RegionsNeedAStartedLibrary) {
    ExpectChildPasses([] {
        LumRegion *region = nullptr;
        CHILD_CHECK(CreateVolatile(&region) == LUM_RC_FAILURE);
        CHILD_CHECK(LumRegionShutdown() == 0);
        CHILD_CHECK(LumRegionStartup(InitialisedProperties(), nullptr) == LUM_RC_FAILURE);
        CHILD_CHECK(LumRegionStartup(InitialisedProperties(), std::string(264, 'h').c_str()) ==
                    LUM_RC_FAILURE);
        CHILD_CHECK(region_started == 0);
        CHILD_CHECK(LumRegionStartup(InitialisedProperties(), "/data") == 0);
        CHILD_CHECK(CreateVolatile(&region) == 0);
        CHILD_CHECK(LumRegionClose(region) == 0);
        return 0;
    });
}

TEST(Startup, WriteBarrierIsProbedOnceAtStart) {
    ExpectChildPasses([] {
        lum_platform.flush_write_buffers = [] { return ENOSYS; };
        CHILD_CHECK(LumRegionStartup(InitialisedProperties(), "/data") == 0);
        CHILD_CHECK(region_write_barrier == 0); // every mark then sets its bit
        return 0;
    });
    ExpectChildPasses([] {
        lum_platform.flush_write_buffers = [] { return 0; };
        CHILD_CHECK(LumRegionStartup(InitialisedProperties(), "/data") == 0);
        CHILD_CHECK(region_write_barrier == 1);
        return 0;
    });
}

TEST(Startup, MissingPropertiesGiveTheDefaults) {
    ExpectChildPasses([] {
        LumPropMgr *empty = nullptr;
        LumPropMgrCreate(&empty);
        CHILD_CHECK(LumRegionStartup(empty, "/data") == 0);
        CHILD_CHECK(region_protect_all == 0);
        CHILD_CHECK(region_mutation_check == 0);
        CHILD_CHECK(region_verify_on_recovery == 1);
        return 0;
    });
}

TEST(Startup, OptionsAssignTheOppositeOfTheDefault) {
    ExpectChildPasses([] {
        LumPropMgr *properties = InitialisedProperties();
        LumArgMgr *arguments = nullptr;
        CHILD_CHECK(LumArgMgrCreate(properties, &arguments) == 0);
        CHILD_CHECK(LumRegionArgMgrInitialise(arguments) == 0);
        char program[] = "host", verify[] = "-regionnoverifyonrecovery",
             protect[] = "-regionprotectall", check[] = "-regionmutationcheck", own[] = "-own";
        char *argv[] = {program, verify, own, protect, check, nullptr};
        int argc = 5;
        CHILD_CHECK(LumArgMgrParse(arguments, &argc, argv) == 0);
        CHILD_CHECK(argc == 2 && strcmp(argv[1], "-own") == 0);
        CHILD_CHECK(LumRegionStartup(properties, "/data") == 0);
        CHILD_CHECK(region_verify_on_recovery == 0);
        CHILD_CHECK(region_protect_all == 1);
        CHILD_CHECK(region_mutation_check == 1);
        return 0;
    });
}

TEST(Startup, PropertiesAreDefinedInTheStoreGroupWithTheirDefaults) {
    ExpectChildPasses([] {
        LumPropMgr *properties = InitialisedProperties();
        const std::pair<const char *, int32_t> rows[] = {
            {"Region.ProtectAll", 0}, {"Region.MutationCheck", 0}, {"Region.VerifyOnRecovery", 1}};
        for (auto [name, value] : rows) {
            LumValue read{};
            CHILD_CHECK(LumPropMgrGetValue(properties, name, &read) == 0);
            CHILD_CHECK(read.type == LUM_VALUE_BOOLEAN && read.value.boolean == value);
        }
        CHILD_CHECK(LumRegionPropMgrInitialise(properties) != 0); // defined twice
        return 0;
    });
}

TEST(Startup, ResultCodesHaveTheirTexts) {
    ExpectChildPasses([] {
        CHILD_CHECK(LumRegionStartup(InitialisedProperties(), "/data") == 0);
        CHILD_CHECK(strcmp(LumRCToString(-491), "Invalid chunk") == 0);
        CHILD_CHECK(strcmp(LumRCToString(-401), "Failed to reserve swap space for region") == 0);
        CHILD_CHECK(strcmp(LumRCToString(-490), "Extent statistics mismatch") == 0);
        CHILD_CHECK(strcmp(LumRCToString(-492), "Unknown error -492") == 0);
        return 0;
    });
}

// Each allocation of the start may fail: the start then returns the
// runtime's 12 (or goes on, where the catalogue fails), leaves the library
// not started, and a second attempt succeeds.
TEST(Startup, EveryAllocationFailureLeavesARetryableLibrary) {
    for (uint32_t nth = 1; nth <= 12; ++nth) {
        int status = RunInChild([nth] {
            LumPropMgr *properties = InitialisedProperties();
            lum_malloc_fail_at(nth);
            int32_t rc = LumRegionStartup(properties, "/data");
            lum_malloc_fail_at(0);
            CHILD_CHECK(rc == 0 || rc == LUM_RC_NO_MEMORY);
            CHILD_CHECK(region_started == (rc == 0 ? 1 : 0));
            if (rc != 0) {
                CHILD_CHECK(LumRegionStartup(properties, "/data") == 0);
            }
            CHILD_CHECK(CheckpointThreadRuns());
            return 0;
        });
        EXPECT_EQ(ExitCode(status), 0) << "allocation " << nth;
    }
}

TEST(LoadHook, AnnouncesItselfWhenTheVariableIsSetEvenEmpty) {
    std::string command = "LUMDE_SHLIB_LOAD_DEBUG= /proc/" + std::to_string(getpid()) +
                          "/exe --gtest_list_tests 2>&1 >/dev/null";
    FILE *child = popen(command.c_str(), "r");
    ASSERT_NE(child, nullptr);
    std::string output;
    char line[256];
    while (fgets(line, sizeof line, child))
        output += line;
    pclose(child);
    EXPECT_NE(output.find("liblumregion: " LUMREGION_VERSION " **LOADED**\n"), std::string::npos)
        << output;
    EXPECT_NE(output.find("liblumregion: " LUMREGION_VERSION " **UNLOADED**\n"), std::string::npos)
        << output;
}

TEST(LoadHook, RegistersTheVersionAndTheDebugFacilities) {
    EXPECT_STREQ(LumVersionInfoLookup("liblumregion"), "liblumregion: " LUMREGION_VERSION);
    ASSERT_EQ(LumDebugFacilitySet("region", 1), 0);
    EXPECT_EQ(region_debug, 1);
    ASSERT_EQ(LumDebugFacilitySet("region_mutation", 1), 0);
    EXPECT_EQ(region_mutation_debug, 1);
    LumDebugFacilitySet("region", 0);
    LumDebugFacilitySet("region_mutation", 0);
    EXPECT_EQ(region_debug, 0);
}

TEST(CheckpointThread, ReportsItsLoopWhenTheRegionFacilityIsOn) {
    ExpectChildPasses([] {
        LumDebugFacilitySet("region", 1);
        lumtest::LogCapture log;
        CHILD_CHECK(LumRegionStartup(InitialisedProperties(), "/data") == 0);
        CHILD_CHECK(LumRegionShutdown() == 0); // joins the thread
        std::vector<std::string> texts;
        for (const auto &record : log.Records()) {
            CHILD_CHECK(record.severity == 1 && record.set == 2);
            texts.push_back(record.text);
        }
        std::vector<std::string> expected = {"CHKPT: started", "CHKPT: sleeping ...",
                                             "CHKPT: awake", "CHKPT: told to stop during sleep",
                                             "CHKPT: stopped"};
        CHILD_CHECK(texts == expected);
        return 0;
    });
}

TEST(CheckpointThread, IsSilentWhenTheRegionFacilityIsOff) {
    ExpectChildPasses([] {
        lumtest::LogCapture log;
        CHILD_CHECK(LumRegionStartup(InitialisedProperties(), "/data") == 0);
        CHILD_CHECK(LumRegionShutdown() == 0);
        CHILD_CHECK(log.Records().empty());
        return 0;
    });
}
