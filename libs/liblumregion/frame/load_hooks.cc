// The library's load and unload hooks, run by the dynamic loader (or at
// start and exit of a program that links the library statically).
//
// Loading registers the version string and the debug facilities "region"
// and "region_mutation"; unloading takes the version string out again. The
// facilities stay registered: the runtime keeps their words' addresses for
// the life of the process. Neither hook touches regions, threads or mutexes.
#include <cstdio>
#include <cstdlib>

#include "frame/frame.h"

const char region_version[] = "liblumregion: " LUMREGION_VERSION;

int32_t region_debug;
int32_t region_mutation_debug;

namespace {

// With LUMDE_SHLIB_LOAD_DEBUG in the environment, whatever its value, the
// hooks announce themselves on stderr.
void AnnounceHook(const char *event) {
    if (getenv("LUMDE_SHLIB_LOAD_DEBUG") != nullptr)
        fprintf(stderr, "%s %s\n", region_version, event);
}

} // namespace

extern "C" {

__attribute__((constructor)) void _LumLibraryLoad() {
    AnnounceHook("**LOADED**");
    LumVersionInfoRegister(region_version);
    LumDebugFacilityRegister("region", &region_debug);
    LumDebugFacilityRegister("region_mutation", &region_mutation_debug);
}

__attribute__((destructor)) void _LumLibraryUnload() {
    LumVersionInfoUnregister(region_version);
    AnnounceHook("**UNLOADED**");
}

} // extern "C"
