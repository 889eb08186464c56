// Mutation logging: the whole write path of persistent memory. Every
// operation stores into the image in one order:
//   1. lift the page protection of the target (_LumPageUnprotect),
//   2. store,
//   3. put the protection back (_LumPageProtect),
//   4. announce the change (_LumImageMarkDirty): the bytes as they now
//      stand go to the log buffer, then the pages are marked dirty.
// A host's target must lie within the image's used bytes. One that does not
// is refused whole, before anything is read or written there: no store, no
// record, no mark, and one report, since its bytes belong to something else
// in the process and a record of them would replay over unrelated pages.
// The typed operations compare first and do nothing for a value that is
// already there, so the log holds real changes only; the block operations
// always write. With Region.MutationCheck on, the target is checked before
// the store and the store happens whatever the check reports.
#include <cstring>

#include "durable/write_path.h"
#include "verify/verify.h"

namespace {

constexpr uint32_t kOutsideImageId = 15; // in kSetError

bool MutationCheckOn() {
    return region_mutation_check == 1;
}

LUM_SLOW_PATH void ReportOutsideImage(const char *operation, const LumRegion *region,
                                      const void *target, uint32_t length) {
    LumLog(LUM_LOG_FAILURE, 1, region_catalog, kSetError, kOutsideImageId,
           "%s(): target %p for %u bytes lies outside the image of region \"%s\" - nothing "
           "stored",
           operation, target, length, region->name);
}

// Whether the `length` bytes at `target` lie within the image's used bytes;
// reports the refusal of `operation` when they do not. The offset is the
// whole difference of the two addresses, so a target below the base is a
// huge offset, and `used - length` does not wrap: a longer length is tested
// against `used` first, and no image is shorter than a typed value (it holds
// at least its header's page). So a typed write pays one compare.
inline bool TargetInImage(const char *operation, const LumRegion *region, const void *target,
                          uint32_t length) {
    uint64_t used = region->used.load(std::memory_order_relaxed);
    uint64_t offset =
        reinterpret_cast<uintptr_t>(target) - reinterpret_cast<uintptr_t>(region->base);
    if ((length > sizeof(uint64_t) && length > used) || offset > used - length) {
        ReportOutsideImage(operation, region, target, length);
        return false;
    }
    return true;
}

template <typename T> inline T Load(const void *at) {
    T value;
    memcpy(&value, at, sizeof value);
    return value;
}

// A typed write: bound, compare, check, write. Targets need no alignment.
template <typename T>
inline void LogTyped(const char *operation, LumSegment *segment, void *target, T value) {
    if (segment == nullptr || !TargetInImage(operation, segment->region, target, sizeof value) ||
        Load<T>(target) == value)
        return;
    if (MutationCheckOn())
        _LumMutationCheck(segment, target, sizeof value);
    LoggedStore(segment->region, target, sizeof value,
                [&] { memcpy(target, &value, sizeof value); });
}

} // namespace

void LumMemLogCpyInt(LumSegment *segment, void *target, int32_t value) {
    LogTyped(__func__, segment, target, value);
}
void LumMemLogCpyLong(LumSegment *segment, void *target, int32_t value) {
    LogTyped(__func__, segment, target, value);
}
void LumMemLogCpyUnsigned(LumSegment *segment, void *target, uint32_t value) {
    LogTyped(__func__, segment, target, value);
}
void LumMemLogCpyBoolean(LumSegment *segment, void *target, int32_t value) {
    LogTyped(__func__, segment, target, value);
}
void LumMemLogCpyUTC(LumSegment *segment, void *target, int32_t value) {
    LogTyped(__func__, segment, target, value);
}
void LumMemLogCpyfint_t(LumSegment *segment, void *target, int32_t value) {
    LogTyped(__func__, segment, target, value);
}
void LumMemLogCpyShort(LumSegment *segment, void *target, int16_t value) {
    LogTyped(__func__, segment, target, value);
}
void LumMemLogCpyUShort(LumSegment *segment, void *target, uint16_t value) {
    LogTyped(__func__, segment, target, value);
}
void LumMemLogCpyInt64(LumSegment *segment, void *target, int64_t value) {
    LogTyped(__func__, segment, target, value);
}
void LumMemLogCpyUnsigned64(LumSegment *segment, void *target, uint64_t value) {
    LogTyped(__func__, segment, target, value);
}

// Stores only when the two compare greater or less: equal values (also
// -0.0 against +0.0) and unordered ones (a NaN on either side) are left.
void LumMemLogCpyReal(LumSegment *segment, void *target, double value) {
    if (segment == nullptr || !TargetInImage(__func__, segment->region, target, sizeof value))
        return;
    double current = Load<double>(target);
    if (!(value < current || value > current))
        return;
    if (MutationCheckOn())
        _LumMutationCheck(segment, target, sizeof value);
    LoggedStore(segment->region, target, sizeof value,
                [&] { memcpy(target, &value, sizeof value); });
}

void *LumMemLogCpy(LumSegment *segment, void *target, const void *source, uint32_t length) {
    if (segment == nullptr)
        return nullptr;
    if (length == 0)
        return target;
    if (!TargetInImage(__func__, segment->region, target, length))
        return nullptr;
    if (MutationCheckOn()) {
        _LumMutationCheck(segment, target, length);
        LumLog(LUM_LOG_DEBUG, __atomic_load_n(&region_mutation_debug, __ATOMIC_RELAXED),
               region_catalog, kSetReport, 26,
               "LumMemLogCpy(): About to copy at 0x%p for %u bytes from 0x%p", target, length,
               source);
    }
    return _LumMemCopy(segment, target, source, length);
}

void *LumMemLogSet(LumSegment *segment, void *target, int32_t value, uint32_t length) {
    if (segment == nullptr)
        return nullptr;
    if (length == 0)
        return target;
    if (!TargetInImage(__func__, segment->region, target, length))
        return nullptr;
    if (MutationCheckOn()) {
        _LumMutationCheck(segment, target, length);
        LumLog(LUM_LOG_DEBUG, __atomic_load_n(&region_mutation_debug, __ATOMIC_RELAXED),
               region_catalog, kSetReport, 27,
               "LumMemLogSet(): About to set %d at 0x%p for %u bytes", value, target, length);
    }
    LoggedStore(segment->region, target, length, [&] { memset(target, value, length); });
    return target;
}

// The chunk of a new allocation, tags included, starts 4 bytes before the
// pointer with its head tag; its size is the tag without the flag bits.
// Null, after the report of `operation`, when the head tag or the chunk
// does not lie within the image.
static uint8_t *ChunkOf(const char *operation, LumSegment *segment, void *pointer, uint32_t *size) {
    const LumRegion *region = segment->region;
    uint8_t *chunk = static_cast<uint8_t *>(pointer) - 4;
    if (!TargetInImage(operation, region, chunk, 4))
        return nullptr;
    *size = BlockSize(chunk);
    // The head tag lies in the used bytes, so their rest cannot wrap.
    if (*size > region->used.load(std::memory_order_relaxed) - ImageOffsetOf(region, chunk)) {
        ReportOutsideImage(operation, region, chunk, *size);
        return nullptr;
    }
    return chunk;
}

void LumMemLog(LumSegment *segment, void *pointer) {
    if (segment == nullptr || pointer == nullptr)
        return;
    uint32_t size;
    if (uint8_t *chunk = ChunkOf(__func__, segment, pointer, &size)) {
        _LumOpenChunkProtect(segment->region, chunk, size);
        _LumImageMarkDirty(segment->region, chunk, size);
    }
}

void LumMemNoLog(LumSegment *segment, void *pointer) {
    if (segment == nullptr || pointer == nullptr)
        return;
    uint32_t size;
    if (uint8_t *chunk = ChunkOf(__func__, segment, pointer, &size))
        _LumOpenChunkProtect(segment->region, chunk, size);
}

// memmove: a host may copy between overlapping ranges of the image, and the
// record takes the bytes as they end up.
void *_LumMemCopy(LumSegment *segment, void *target, const void *source, uint32_t length) {
    LoggedStore(segment->region, target, length, [&] { memmove(target, source, length); });
    return target;
}

void _LumMemWriteWord(LumSegment *segment, void *target, uint32_t value) {
    if (Load<uint32_t>(target) == value)
        return;
    LoggedStore(segment->region, target, sizeof value,
                [&] { memcpy(target, &value, sizeof value); });
}
