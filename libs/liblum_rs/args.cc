// The argument manager: command-line options that assign a value to a
// property of the manager's property manager when they are given.
//
// Options match whole arguments exactly. A flag assigns its stored value; a
// value option assigns the argument behind it, read as text of the
// property's type. Parsing removes the options it applied (with their
// values) from argv and leaves every other argument, in order, for the host.
#include <algorithm>
#include <mutex>
#include <vector>

#include "rs_internal.h"

namespace {

struct Option {
    std::string name;
    std::string property;
    std::string description;
    int32_t kind;
    lum_rs::StoredValue value; // a flag's; unused by a value option
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

namespace {

// Assigns an option to its property: a flag's stored value, or `text`, the
// argument behind a value option (null when there is none: EINVAL).
int32_t apply(const LumArgMgr &manager, const Option &option, const char *text) {
    if (option.kind == LUM_OPTION_VALUE)
        return text ? LumPropMgrSetText(manager.properties, option.property.c_str(), text) : EINVAL;
    const LumValue value = option.value.view();
    return LumPropMgrSetValue(manager.properties, option.property.c_str(), &value);
}

} // namespace

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
    const bool flag = kind == LUM_OPTION_FLAG;
    if (!manager || !option || !*option || !property || !*property ||
        (!flag && kind != LUM_OPTION_VALUE) || flags != 0 ||
        (flag && !lum_rs::StoredValue::valid(value)))
        return EINVAL;
    return lum_rs::guarded([&] {
        std::lock_guard guard(manager->lock);
        if (manager->find(option))
            return EEXIST;
        Option defined{option, property, description ? description : "", kind, {}};
        if (flag)
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
            const int32_t rc = apply(*manager, *option, i + 1 < *argc ? argv[i + 1] : nullptr);
            if (rc == 0) {
                i += option->kind == LUM_OPTION_VALUE ? 1 : 0; // its value is used up too
                continue;
            }
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
