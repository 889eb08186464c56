// The library's properties and command-line options, all in the group
// "Store". One table drives both. A boolean property comes with an option
// that assigns the opposite of its default; an integer property with an
// option that takes the value as its next argument, and it counts only
// when positive: a value of 0 or below keeps the default.
#include "frame/frame.h"

namespace {

struct PropertyRow {
    const char *property;
    const char *option;
    const char *description;
    const char *option_description; // null: the option uses `description`
    int32_t type;                   // LUM_VALUE_BOOLEAN or LUM_VALUE_INTEGER
    int32_t default_value;          // also the value when the property cannot be read
    int32_t *global;                // where LumRegionStartup keeps the value
};

// Passed through to the runtime's managers unchanged.
constexpr uint32_t kPropertyFlags = 0x30;

const PropertyRow kProperties[] = {
    {"Region.ProtectAll", "-regionprotectall", "Make all regions write-protected", nullptr,
     LUM_VALUE_BOOLEAN, 0, &region_protect_all},
    {"Region.MutationCheck", "-regionmutationcheck", "Check for attempted illegal region mutations",
     nullptr, LUM_VALUE_BOOLEAN, 0, &region_mutation_check},
    {"Region.VerifyOnRecovery", "-regionnoverifyonrecovery", "Verification after region recovery",
     "Do not verify region after recovery", LUM_VALUE_BOOLEAN, 1, &region_verify_on_recovery},
    {"Region.SyncCommit", "-regionsynccommit",
     "Force every commit and checkpoint to disk before it counts", nullptr, LUM_VALUE_BOOLEAN, 0,
     &region_sync_commit},
    {"Region.CheckpointInterval", "-regioncheckpointinterval",
     "Milliseconds between checkpoint passes over the regions", nullptr, LUM_VALUE_INTEGER, 60000,
     &region_checkpoint_interval},
};

LumValue Value(int32_t type, int32_t number) {
    LumValue record{};
    record.type = type;
    if (type == LUM_VALUE_INTEGER)
        record.value.integer = number;
    else
        record.value.boolean = number;
    return record;
}

// The row's value in `record`, or its default when the record is not of the
// row's type or an integer is not positive.
int32_t ValueOf(const PropertyRow &row, const LumValue &record) {
    if (record.type != row.type)
        return row.default_value;
    if (row.type == LUM_VALUE_BOOLEAN)
        return record.value.boolean;
    return record.value.integer > 0 ? record.value.integer : row.default_value;
}

} // namespace

int32_t LumRegionPropMgrInitialise(LumPropMgr *properties) {
    if (properties == nullptr)
        return LUM_RC_FAILURE;
    for (const PropertyRow &row : kProperties) {
        LumValue value = Value(row.type, row.default_value);
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
        bool flag = row.type == LUM_VALUE_BOOLEAN;
        LumValue assigned = Value(row.type, row.default_value == 1 ? 0 : 1);
        const char *text = row.option_description ? row.option_description : row.description;
        int32_t rc = LumArgMgrDefineWithFlags(arguments, row.option, row.property, text,
                                              flag ? LUM_OPTION_FLAG : LUM_OPTION_VALUE,
                                              flag ? &assigned : nullptr, 0);
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
        *row.global = read ? ValueOf(row, value) : row.default_value;
    }
}
