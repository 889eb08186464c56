// Page protection of the image. A region created with `protect`, or every
// region when Region.ProtectAll is on, keeps its pages read-only; each
// writer lifts the protection of the pages it touches, stores, and puts it
// back. The calls act on whole pages and do not nest: a protect makes its
// pages read-only even if an outer writer still means to write there.
#include <cstdint>

#include "platform/platform.h"
#include "region/region.h"

void _LumPageAccessSet(void *address, uint32_t length, int32_t writable) {
    uintptr_t start = PageStart(reinterpret_cast<uintptr_t>(address));
    uintptr_t offset = reinterpret_cast<uintptr_t>(address) - start;
    size_t span = PageRoundUp(offset + length);
    lum_platform.protect(reinterpret_cast<void *>(start), span, writable);
}
