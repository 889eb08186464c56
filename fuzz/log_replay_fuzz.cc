// One log file, as recovery reads it: the scan judges it, then the replay
// applies it to a fresh image. Neither may read or write outside its buffer
// or the image, whatever the bytes.
#include <sys/mman.h>
#include <vector>

#include "durable/recovery.h"
#include "fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    FuzzStart();
    int fd = memfd_create("log", 0);
    if (fd < 0 || write(fd, data, size) != static_cast<ssize_t>(size))
        abort();
    static std::vector<uint8_t> buffer(kLogBlock);
    RecoveryFile log;
    log.fd = fd;
    log.size = size;
    _LumLogCheck(&log, buffer.data());
    LumRegion *region;
    if (_LumImageCreate("fuzz", LUM_REGION_PERSISTENT, 16 * kFuzzMiB, 16 * kFuzzMiB, 0, 0,
                        FuzzStart().c_str(), &region) == 0) {
        _LumLogApply(region, fd, buffer.data(), false, kWholeLog);
        _LumImageDestroy(region);
    }
    close(fd);
    return 0;
}
