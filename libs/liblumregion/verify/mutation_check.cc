// Mutation checking: with Region.MutationCheck on, every logged write and
// every free is classified against the chunks of its segment, and a bad
// target is reported; the write goes on regardless.
//
// The classification needs the chunk allocator; until it is there, the
// check has nothing to classify against and reports nothing.
#include "region/region.h"
#include "verify/verify.h"

void _LumMutationCheck(LumSegment *, void *, uint32_t) {}
