// The property manager: named, typed values with a description, a group and
// flags (kept for the host, not interpreted here), set from values, from
// text and from files of "name=value" lines.
//
// A manager is one record of lum_malloc holding a map under its own lock;
// a string handed out by LumPropMgrGetValue points into the map, so it stays
// valid until that property changes or the manager is destroyed.
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <strings.h>

#include "rs_internal.h"

namespace {

struct Property {
    std::string description;
    std::string group;
    uint32_t flags;
    lum_rs::StoredValue value;
};

} // namespace

struct LumPropMgr {
    mutable lum_rs::Lock lock;
    std::map<std::string, Property, std::less<>> properties;

    Property *find(std::string_view name) {
        const auto found = properties.find(name);
        return found == properties.end() ? nullptr : &found->second;
    }
    const Property *find(std::string_view name) const {
        return const_cast<LumPropMgr *>(this)->find(name);
    }
};

namespace lum_rs {

bool StoredValue::valid(const LumValue *value) {
    if (!value)
        return false;
    if (value->type == LUM_VALUE_STRING)
        return value->value.string.text || value->value.string.length == 0;
    return value->type == LUM_VALUE_BOOLEAN || value->type == LUM_VALUE_INTEGER;
}

void StoredValue::assign(const LumValue &value) {
    if (value.type == LUM_VALUE_STRING && value.value.string.length)
        text.assign(value.value.string.text, value.value.string.length);
    else
        text.clear();
    number = value.type == LUM_VALUE_BOOLEAN   ? value.value.boolean
             : value.type == LUM_VALUE_INTEGER ? value.value.integer
                                               : 0;
    type = value.type;
}

LumValue StoredValue::view() const {
    LumValue value{};
    value.type = type;
    if (type == LUM_VALUE_STRING) {
        value.value.string.text = text.c_str();
        value.value.string.length = static_cast<uint32_t>(text.size());
    } else if (type == LUM_VALUE_INTEGER) {
        value.value.integer = number;
    } else {
        value.value.boolean = number;
    }
    return value;
}

} // namespace lum_rs

namespace {

// Reads a decimal integer that fits 32 bits, signed, and nothing behind it.
bool parse_integer(const char *text, int32_t &value) {
    char *end = nullptr;
    errno = 0;
    const long long parsed = std::strtoll(text, &end, 10);
    if (end == text || *end != '\0' || errno != 0 || parsed < INT32_MIN || parsed > INT32_MAX)
        return false;
    value = static_cast<int32_t>(parsed);
    return true;
}

// Reads a boolean written as 1/0, true/false, yes/no or on/off, in any case.
bool parse_boolean(const char *text, int32_t &value) {
    // Indexed by the value the words stand for.
    static const char *const kWords[2][4] = {{"0", "false", "no", "off"},
                                             {"1", "true", "yes", "on"}};
    for (int32_t meaning : {0, 1}) {
        for (const char *word : kWords[meaning]) {
            if (strcasecmp(text, word) == 0) {
                value = meaning;
                return true;
            }
        }
    }
    return false;
}

// Applies one line of a property file: 0 for a property set or a line with
// nothing but blanks and a comment, else the failure.
int32_t load_line(LumPropMgr *manager, std::string_view line) {
    line = lum_rs::trim_blanks(line.substr(0, line.find('#')));
    if (line.empty())
        return 0;
    const size_t equals = line.find('=');
    if (equals == std::string_view::npos)
        return EINVAL;
    const std::string name(lum_rs::trim_blanks(line.substr(0, equals)));
    const std::string text(lum_rs::trim_blanks(line.substr(equals + 1)));
    return name.empty() ? EINVAL : LumPropMgrSetText(manager, name.c_str(), text.c_str());
}

} // namespace

extern "C" {

LUM_RS_API int32_t LumPropMgrCreate(LumPropMgr **manager) {
    if (!manager)
        return EINVAL;
    *manager = lum_rs::make_record<LumPropMgr>();
    return *manager ? 0 : ENOMEM;
}

LUM_RS_API void LumPropMgrDestroy(LumPropMgr *manager) {
    lum_rs::free_record(manager);
}

LUM_RS_API int32_t LumPropMgrDefineWithFlags(LumPropMgr *manager, const char *name,
                                             const char *description, const LumValue *value,
                                             uint32_t flags) {
    if (!manager || !name || !*name || !lum_rs::StoredValue::valid(value))
        return EINVAL;
    return lum_rs::guarded([&] {
        std::lock_guard guard(manager->lock);
        Property property{description ? description : "", "", flags, {}};
        property.value.assign(*value);
        return manager->properties.try_emplace(name, std::move(property)).second ? 0 : EEXIST;
    });
}

LUM_RS_API int32_t LumPropMgrSetGroup(LumPropMgr *manager, const char *name, const char *group) {
    if (!manager || !name || !group)
        return EINVAL;
    return lum_rs::guarded([&] {
        std::lock_guard guard(manager->lock);
        Property *property = manager->find(name);
        if (!property)
            return ENOENT;
        property->group = group;
        return 0;
    });
}

LUM_RS_API int32_t LumPropMgrGetValue(const LumPropMgr *manager, const char *name,
                                      LumValue *value) {
    if (!manager || !name || !value)
        return EINVAL;
    std::lock_guard guard(manager->lock);
    const Property *property = manager->find(name);
    if (!property)
        return ENOENT;
    const LumValue current = property->value.view();
    value->type = current.type;
    value->value = current.value;
    return 0;
}

LUM_RS_API int32_t LumPropMgrSetValue(LumPropMgr *manager, const char *name,
                                      const LumValue *value) {
    if (!manager || !name || !lum_rs::StoredValue::valid(value))
        return EINVAL;
    return lum_rs::guarded([&] {
        std::lock_guard guard(manager->lock);
        Property *property = manager->find(name);
        if (!property)
            return ENOENT;
        if (property->value.type != value->type)
            return EINVAL;
        property->value.assign(*value);
        return 0;
    });
}

LUM_RS_API int32_t LumPropMgrSetText(LumPropMgr *manager, const char *name, const char *text) {
    if (!manager || !name || !text)
        return EINVAL;
    LumValue value{};
    {
        std::lock_guard guard(manager->lock);
        const Property *property = manager->find(name);
        if (!property)
            return ENOENT;
        value.type = property->value.type;
    }
    if (value.type == LUM_VALUE_BOOLEAN)
        return parse_boolean(text, value.value.boolean) ? LumPropMgrSetValue(manager, name, &value)
                                                        : EINVAL;
    if (value.type == LUM_VALUE_INTEGER)
        return parse_integer(text, value.value.integer) ? LumPropMgrSetValue(manager, name, &value)
                                                        : EINVAL;
    value.value.string.text = text;
    value.value.string.length = static_cast<uint32_t>(std::strlen(text));
    return LumPropMgrSetValue(manager, name, &value);
}

// Lines that fail are reported in the log at severity 4.
LUM_RS_API int32_t LumPropMgrLoadFile(LumPropMgr *manager, const char *path) {
    if (!manager || !path)
        return EINVAL;
    return lum_rs::guarded([&] {
        int32_t first_failure = 0;
        const int32_t rc = lum_rs::for_each_line(path, [&](std::string_view line, uint32_t number) {
            const int32_t line_rc = load_line(manager, line);
            if (line_rc == 0)
                return;
            LumLog(LUM_LOG_FAILURE, 1, nullptr, 0, 0, "Property file %s, line %u: %s", path, number,
                   line_rc == ENOENT ? "unknown property" : "not a valid setting");
            if (first_failure == 0)
                first_failure = line_rc;
        });
        return rc ? rc : first_failure;
    });
}

} // extern "C"
