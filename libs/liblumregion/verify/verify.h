// Verification of an image and the mutation check of the write path.
#pragma once

#include <cstdint>

#include "alloc/layout.h"

// mutation_check.cc ----------------------------------------------------------

// Where a write lands among the chunks of its segment. Each verdict's text
// is message `id` of set 4 of the catalogue.
enum MutationVerdict : uint32_t {
    MUTATION_NONE = 0,      // inside a live chunk's data, to its end at most
    MUTATION_BOUNDS = 1,    // starts in a live chunk's data and runs past it
    MUTATION_FREE = 2,      // in the body of a free chunk
    MUTATION_INVALID = 4,   // on a tag, or on a free chunk's links
    MUTATION_NOT_FOUND = 8, // in no chunk of the segment
};

// Classifies the `length` bytes at `target` against the chunks of
// `segment`, walking its chain bounded by the image; traces the live chunk
// that holds the target at the region_mutation debug switch. Reads only.
LUM_SLOW_PATH void _LumMutationClassify(const LumSegment *segment, const void *target,
                                        uint32_t length, uint32_t *verdict);
// The text of `verdict` into `buffer`; an empty string for no verdict.
void _LumMutationMessage(uint32_t verdict, char *buffer, uint32_t buffer_size);
// Classifies a logged write and reports a bad one; the write goes on
// whatever it finds. Called only with Region.MutationCheck on.
LUM_SLOW_PATH void _LumMutationCheck(LumSegment *segment, void *target, uint32_t length);
// The same for the pointer given to LumMemFree, with its own report. True
// when the pointer lies in a live chunk's data.
LUM_SLOW_PATH bool _LumMutationCheckFree(LumSegment *segment, void *pointer);
