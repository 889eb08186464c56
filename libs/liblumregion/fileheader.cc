// The 32-byte header at the head of every file of a region. A reader
// judges the magic alone; generation and timestamp order the files.
#include <cstring>
#include <ctime>

#include "durable.h"

int32_t _LumFileHeaderWrite(int fd, uint32_t generation) {
    return _LumFileHeaderWriteStamped(fd, generation, static_cast<int32_t>(time(nullptr)));
}

int32_t _LumFileHeaderWriteStamped(int fd, uint32_t generation, int32_t timestamp) {
    uint8_t header[file_header::kSize];
    lum_bzero(header, sizeof header);
    memcpy(header + file_header::kMagic, file_header::kMagicText, 4);
    memcpy(header + file_header::kVersion, file_header::kVersionText, 4);
    ImageStore32(header + file_header::kGeneration, generation);
    ImageStore32(header + file_header::kTimestamp, static_cast<uint32_t>(timestamp));
    ImageStore32(header + file_header::kPageSize, region_page_size);
    return _LumPwrite(fd, header, sizeof header, 0) == file_header::kSize ? 0 : LUM_RC_FAILURE;
}

int32_t _LumFileHeaderRead(int fd, uint8_t *header) {
    return _LumPread(fd, header, file_header::kSize, 0) == file_header::kSize ? 0 : LUM_RC_FAILURE;
}
