// Texts of result codes: the registry that LumRCRegister fills, and the
// interned "Unknown error <code>" texts of codes nobody registered.
//
// Every text handed out stays valid for the life of the process: registered
// texts come from the caller's table (which must outlive its use) or from a
// catalogue (which is never freed), and interned texts are never removed.
// The registry itself is never destroyed, so threads that outlive main may
// still ask for texts.
#include <mutex>
#include <span>
#include <string>
#include <unordered_map>

#include "rs_internal.h"

namespace {

struct Registry {
    lum_rs::Lock lock;
    std::unordered_map<int32_t, const char *> registered;
    // Elements of an unordered_map do not move when it grows.
    std::unordered_map<int32_t, std::string> unknown;
};

Registry &registry() {
    static Registry &instance = *new Registry;
    return instance;
}

const char *unknown_text(Registry &codes, int32_t code) {
    auto found = codes.unknown.find(code);
    if (found == codes.unknown.end())
        found = codes.unknown.emplace(code, "Unknown error " + std::to_string(code)).first;
    return found->second.c_str();
}

} // namespace

extern "C" {

LUM_RS_API int32_t LumRCRegister(const LumCatalog *catalog, uint32_t count,
                                 const LumRCEntry *table) {
    if (count && !table)
        return EINVAL;
    return lum_rs::guarded([&] {
        Registry &codes = registry();
        std::lock_guard guard(codes.lock);
        for (const LumRCEntry &row : std::span(table, count)) {
            const char *translated = lum_rs::catalog_find(catalog, row.set, row.id);
            if (const char *text = translated ? translated : row.text)
                codes.registered[row.code] = text;
        }
        return 0;
    });
}

LUM_RS_API const char *LumRCToString(int32_t code) {
    try {
        Registry &codes = registry();
        std::lock_guard guard(codes.lock);
        const auto found = codes.registered.find(code);
        return found != codes.registered.end() ? found->second : unknown_text(codes, code);
    } catch (...) {
        // Out of memory for a new interned text; the caller still needs one.
        return "Unknown error";
    }
}

} // extern "C"
