// Version strings of the loaded libraries, and debug facilities: named
// switch words that LUM_DEBUG or LumDebugFacilitySet turn on and off.
//
// Both registries are never destroyed, so that libraries unloading after
// main returned can still unregister. Switch words are read by their owners
// without a lock, so they are written with atomic stores.
#include <cstdlib>
#include <list>
#include <mutex>
#include <string>
#include <vector>

#include "rs_internal.h"

namespace {

struct Facility {
    std::string name;
    int32_t *word;
};

struct Registries {
    lum_rs::Lock lock;
    // A list, so that strings handed out by lookups do not move.
    std::list<std::string> versions;
    std::vector<Facility> facilities;
};

Registries &registries() {
    static Registries &instance = *new Registries;
    return instance;
}

// The library name of a version string: the part before the colon.
std::string_view library_of(std::string_view version) {
    return version.substr(0, version.find(':'));
}

// True when LUM_DEBUG, a comma-separated list of names, names `facility`.
bool listed_in_environment(std::string_view facility) {
    const char *listed = std::getenv("LUM_DEBUG");
    std::string_view names = listed ? listed : "";
    while (!names.empty()) {
        const size_t comma = names.find(',');
        if (lum_rs::trim_blanks(names.substr(0, comma)) == facility)
            return true;
        names.remove_prefix(comma == std::string_view::npos ? names.size() : comma + 1);
    }
    return false;
}

void set_switch(int32_t *word, int32_t value) {
    __atomic_store_n(word, value, __ATOMIC_RELAXED);
}

} // namespace

extern "C" {

LUM_RS_API int32_t LumVersionInfoRegister(const char *version) {
    if (!version || !*version)
        return EINVAL;
    return lum_rs::guarded([&] {
        Registries &all = registries();
        std::lock_guard guard(all.lock);
        all.versions.emplace_back(version);
        return 0;
    });
}

LUM_RS_API int32_t LumVersionInfoUnregister(const char *version) {
    if (!version)
        return EINVAL;
    Registries &all = registries();
    std::lock_guard guard(all.lock);
    for (auto entry = all.versions.begin(); entry != all.versions.end(); ++entry) {
        if (*entry == version) {
            all.versions.erase(entry);
            return 0;
        }
    }
    return ENOENT;
}

// The latest registration wins when a library registered several versions.
// The string stays valid until it is unregistered.
LUM_RS_API const char *LumVersionInfoLookup(const char *name) {
    if (!name)
        return nullptr;
    Registries &all = registries();
    std::lock_guard guard(all.lock);
    for (auto entry = all.versions.rbegin(); entry != all.versions.rend(); ++entry) {
        if (library_of(*entry) == name)
            return entry->c_str();
    }
    return nullptr;
}

LUM_RS_API int32_t LumDebugFacilityRegister(const char *name, int32_t *word) {
    if (!name || !*name || !word)
        return EINVAL;
    return lum_rs::guarded([&] {
        Registries &all = registries();
        std::lock_guard guard(all.lock);
        all.facilities.push_back(Facility{name, word});
        if (listed_in_environment(name))
            set_switch(word, 1);
        return 0;
    });
}

LUM_RS_API int32_t LumDebugFacilitySet(const char *name, int32_t on) {
    if (!name)
        return EINVAL;
    Registries &all = registries();
    std::lock_guard guard(all.lock);
    int32_t rc = ENOENT;
    for (const Facility &facility : all.facilities) {
        if (facility.name == name) {
            set_switch(facility.word, on ? 1 : 0);
            rc = 0;
        }
    }
    return rc;
}

} // extern "C"
