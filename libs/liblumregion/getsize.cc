// The usable size of an allocation: its chunk less the two tags.
#include "layout.h"

uint32_t LumMemGetSize(void *pointer) {
    if (pointer == nullptr)
        return 0;
    return (ImageLoad32(static_cast<uint8_t *>(pointer) - 4) & ~kTagFlags) - 8;
}
