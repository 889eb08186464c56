// Verification of an image and the mutation check of the write path.
#pragma once

#include <cstdint>

#include "alloc/layout.h"

// mutation_check.cc ----------------------------------------------------------

// Classifies the target of a logged write against the chunks of its segment
// and reports a bad one; called only with Region.MutationCheck on.
LUM_SLOW_PATH void _LumMutationCheck(LumSegment *segment, void *target, uint32_t length);
