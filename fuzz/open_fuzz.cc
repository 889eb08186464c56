// A whole open: the input is cut into the five files of a region (five
// 16-bit lengths first, the rest shared out in that order), recovery picks
// its source and replays, and an image that opens is verified. The open
// returns a code; it never crashes, hangs or leaves the image.
#include <fstream>

#include "fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const std::string &directory = FuzzStart();
    static const char *const kSuffixes[] = {".tab", "_0.chk", "_1.chk", "_0.log", "_1.log"};
    size_t at = 10;
    for (int file = 0; file < 5; ++file) {
        size_t wanted = size >= 10 ? size_t{data[2 * file]} | size_t{data[2 * file + 1]} << 8 : 0;
        size_t length = at < size ? std::min(wanted, size - at) : 0;
        std::ofstream(directory + "f" + kSuffixes[file], std::ios::binary | std::ios::trunc)
            .write(reinterpret_cast<const char *>(data + at), static_cast<std::streamsize>(length));
        at += length;
    }
    LumRegion *region;
    void *base;
    if (LumRegionOpen("f", 16 * kFuzzMiB, 16 * kFuzzMiB, 0, 0, directory.c_str(), &region, &base) ==
        0) {
        LumRegionVerifyDeep(region);
        LumRegionDrop(region);
    } else if (region != nullptr) {
        LumRegionDrop(region); // opened, but its image did not verify
    }
    return 0;
}
