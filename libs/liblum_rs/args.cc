// The argument manager: command-line options that assign a value to a
// property of the manager's property manager when they are given.
//
// Options match whole arguments exactly. Parsing removes the options it
// applied from argv and leaves every other argument, in order, for the host.
#include <algorithm>
#include <mutex>
#include <vector>

#include "rs_internal.h"

namespace {

struct Option {
    std::string name;
    std::string property;
    std::string description;
    lum_rs::StoredValue value;
};

} // namespace

struct LumArgMgr {
    LumPropMgr *properties = nullptr;
    lum_rs::Lock lock;
    std::vector<Option> options;

    const Option *find(std::string_view name) const {
        const auto found = std::find_if(options.begin(), options.end(),
                                        [&](const Option &option) { return option.name == name; });
        return found == options.end() ? nullptr : &*found;
    }
};

extern "C" {

LUM_RS_API int32_t LumArgMgrCreate(LumPropMgr *properties, LumArgMgr **manager) {
    if (!manager)
        return EINVAL;
    *manager = nullptr;
    if (!properties)
        return EINVAL;
    *manager = lum_rs::make_record<LumArgMgr>();
    if (!*manager)
        return ENOMEM;
    (*manager)->properties = properties;
    return 0;
}

LUM_RS_API void LumArgMgrDestroy(LumArgMgr *manager) {
    lum_rs::free_record(manager);
}

LUM_RS_API int32_t LumArgMgrDefineWithFlags(LumArgMgr *manager, const char *option,
                                            const char *property, const char *description,
                                            int32_t kind, const LumValue *value, uint32_t flags) {
    if (!manager || !option || !*option || !property || !*property || kind != LUM_OPTION_FLAG ||
        flags != 0 || !lum_rs::StoredValue::valid(value))
        return EINVAL;
    return lum_rs::guarded([&] {
        std::lock_guard guard(manager->lock);
        if (manager->find(option))
            return EEXIST;
        Option defined{option, property, description ? description : "", {}};
        defined.value.assign(*value);
        manager->options.push_back(std::move(defined));
        return 0;
    });
}

// argv must hold *argc + 1 entries, as main's does: the last one is set to
// null after the arguments that stay. A defined option whose property cannot
// be assigned stays in argv.
LUM_RS_API int32_t LumArgMgrParse(LumArgMgr *manager, int *argc, char **argv) {
    if (!manager || !argc || !argv)
        return EINVAL;
    if (*argc <= 0)
        return 0;
    std::lock_guard guard(manager->lock);
    int32_t first_failure = 0;
    int kept = 1;
    for (int i = 1; i < *argc; ++i) {
        if (const Option *option = argv[i] ? manager->find(argv[i]) : nullptr) {
            const LumValue value = option->value.view();
            const int32_t rc =
                LumPropMgrSetValue(manager->properties, option->property.c_str(), &value);
            if (rc == 0)
                continue;
            if (first_failure == 0)
                first_failure = rc;
        }
        argv[kept++] = argv[i];
    }
    *argc = kept;
    argv[kept] = nullptr;
    return first_failure;
}

} // extern "C"
