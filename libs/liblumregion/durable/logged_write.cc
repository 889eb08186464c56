// Mutation logging: the whole write path of persistent memory. Every
// operation stores into the image in one order:
//   1. lift the page protection of the target (_LumPageUnprotect),
//   2. store,
//   3. put the protection back (_LumPageProtect),
//   4. announce the change (_LumImageMarkDirty): the bytes as they now
//      stand go to the log buffer, then the pages are marked dirty.
// The typed operations compare first and do nothing for a value that is
// already there, so the log holds real changes only; the block operations
// always write. With Region.MutationCheck on, the target is checked before
// the store and the store happens whatever the check reports.
#include <cstring>

#include "durable/write_path.h"
#include "verify/verify.h"

namespace {

bool MutationCheckOn() {
    return region_mutation_check == 1;
}

template <typename T> inline T Load(const void *at) {
    T value;
    memcpy(&value, at, sizeof value);
    return value;
}

// A typed write: compare, check, write. Targets need no alignment.
template <typename T> inline void LogTyped(LumSegment *segment, void *target, T value) {
    if (segment == nullptr || Load<T>(target) == value)
        return;
    if (MutationCheckOn())
        _LumMutationCheck(segment, target, sizeof value);
    LoggedStore(segment->region, target, sizeof value,
                [&] { memcpy(target, &value, sizeof value); });
}

} // namespace

void LumMemLogCpyInt(LumSegment *segment, void *target, int32_t value) {
    LogTyped(segment, target, value);
}
void LumMemLogCpyLong(LumSegment *segment, void *target, int32_t value) {
    LogTyped(segment, target, value);
}
void LumMemLogCpyUnsigned(LumSegment *segment, void *target, uint32_t value) {
    LogTyped(segment, target, value);
}
void LumMemLogCpyBoolean(LumSegment *segment, void *target, int32_t value) {
    LogTyped(segment, target, value);
}
void LumMemLogCpyUTC(LumSegment *segment, void *target, int32_t value) {
    LogTyped(segment, target, value);
}
void LumMemLogCpyfint_t(LumSegment *segment, void *target, int32_t value) {
    LogTyped(segment, target, value);
}
void LumMemLogCpyShort(LumSegment *segment, void *target, int16_t value) {
    LogTyped(segment, target, value);
}
void LumMemLogCpyUShort(LumSegment *segment, void *target, uint16_t value) {
    LogTyped(segment, target, value);
}
void LumMemLogCpyInt64(LumSegment *segment, void *target, int64_t value) {
    LogTyped(segment, target, value);
}
void LumMemLogCpyUnsigned64(LumSegment *segment, void *target, uint64_t value) {
    LogTyped(segment, target, value);
}

// Stores only when the two compare greater or less: equal values (also
// -0.0 against +0.0) and unordered ones (a NaN on either side) are left.
void LumMemLogCpyReal(LumSegment *segment, void *target, double value) {
    if (segment == nullptr)
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
static uint8_t *ChunkOf(void *pointer, uint32_t *size) {
    uint8_t *chunk = static_cast<uint8_t *>(pointer) - 4;
    *size = BlockSize(chunk);
    return chunk;
}

void LumMemLog(LumSegment *segment, void *pointer) {
    if (segment == nullptr || pointer == nullptr)
        return;
    uint32_t size;
    uint8_t *chunk = ChunkOf(pointer, &size);
    _LumOpenChunkProtect(segment->region, chunk, size);
    _LumImageMarkDirty(segment->region, chunk, size);
}

void LumMemNoLog(LumSegment *segment, void *pointer) {
    if (segment == nullptr || pointer == nullptr)
        return;
    uint32_t size;
    uint8_t *chunk = ChunkOf(pointer, &size);
    _LumOpenChunkProtect(segment->region, chunk, size);
}

void *_LumMemCopy(LumSegment *segment, void *target, const void *source, uint32_t length) {
    LoggedStore(segment->region, target, length, [&] { memcpy(target, source, length); });
    return target;
}

void _LumMemWriteWord(LumSegment *segment, void *target, uint32_t value) {
    if (Load<uint32_t>(target) == value)
        return;
    LoggedStore(segment->region, target, sizeof value,
                [&] { memcpy(target, &value, sizeof value); });
}
