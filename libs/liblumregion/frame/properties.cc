// The library's properties and command-line options. One table drives
// both: each row defines a boolean property in the group "Store" and an
// option that assigns the opposite of the property's default.
#include "frame/frame.h"

namespace {

struct PropertyRow {
    const char *property;
    const char *option;
    const char *description;
    const char *option_description; // null: the option uses `description`
    int32_t default_value;          // also the value when the property cannot be read
    int32_t *global;                // where LumRegionStartup keeps the value
};

// Passed through to the runtime's managers unchanged.
constexpr uint32_t kPropertyFlags = 0x30;

const PropertyRow kProperties[] = {
    {"Region.ProtectAll", "-regionprotectall", "Make all regions write-protected", nullptr, 0,
     &region_protect_all},
    {"Region.MutationCheck", "-regionmutationcheck", "Check for attempted illegal region mutations",
     nullptr, 0, &region_mutation_check},
    {"Region.VerifyOnRecovery", "-regionnoverifyonrecovery", "Verification after region recovery",
     "Do not verify region after recovery", 1, &region_verify_on_recovery},
};

LumValue Boolean(int32_t value) {
    LumValue record{};
    record.type = LUM_VALUE_BOOLEAN;
    record.value.boolean = value;
    return record;
}

} // namespace

int32_t LumRegionPropMgrInitialise(LumPropMgr *properties) {
    if (properties == nullptr)
        return LUM_RC_FAILURE;
    for (const PropertyRow &row : kProperties) {
        LumValue value = Boolean(row.default_value);
        int32_t rc = LumPropMgrDefineWithFlags(properties, row.property, row.description, &value,
                                               kPropertyFlags);
        if (rc != 0)
            return rc;
        LumPropMgrSetGroup(properties, row.property, "Store");
    }
    return 0;
}

int32_t LumRegionArgMgrInitialise(LumArgMgr *arguments) {
    if (arguments == nullptr)
        return LUM_RC_FAILURE;
    for (const PropertyRow &row : kProperties) {
        LumValue assigned = Boolean(row.default_value == 1 ? 0 : 1);
        const char *text = row.option_description ? row.option_description : row.description;
        int32_t rc = LumArgMgrDefineWithFlags(arguments, row.option, row.property, text,
                                              LUM_OPTION_FLAG, &assigned, 0);
        if (rc != 0)
            return rc;
    }
    return 0;
}

void RegionReadProperties(const LumPropMgr *properties) {
    for (const PropertyRow &row : kProperties) {
        LumValue value{};
        bool read =
            properties != nullptr && LumPropMgrGetValue(properties, row.property, &value) == 0;
        *row.global = read ? value.value.boolean : row.default_value;
    }
}
