// Verification of an image and the mutation check of the write path.
#pragma once

#include <cstdint>

#include "alloc/layout.h"

// verify.cc -------------------------------------------------------------------

// Checks the segment whose PrimaryExtent is at `primary`: its map entry,
// every extent of its chain and their chunks, and with `check_stats` 1 the
// kept statistics. 0 or the code of the first failing test.
int32_t _LumSegmentVerify(LumRegion *region, uint8_t *primary, int32_t check_stats);

// mutation_check.cc ----------------------------------------------------------

// Classifies the target of a logged write against the chunks of its segment
// and reports a bad one; called only with Region.MutationCheck on.
LUM_SLOW_PATH void _LumMutationCheck(LumSegment *segment, void *target, uint32_t length);
