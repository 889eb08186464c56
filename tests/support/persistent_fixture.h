// A fixture for persistent regions in a private directory, and readers of
// log records.
#pragma once

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include "durable/write_path.h"
#include "region_fixture.h"
#include "verify/verify.h"

struct ParsedRecord {
    uint32_t offset, type, length, value; // offset: in the file
    std::vector<uint8_t> payload = {};
};

// The records of a log's bytes, up to one that does not fit.
inline std::vector<ParsedRecord> ParseLog(const std::vector<uint8_t> &bytes) {
    std::vector<ParsedRecord> records;
    uint32_t at = file_header::kSize;
    while (at + log_record::kHeadSize <= bytes.size()) {
        const uint8_t *head = &bytes[at];
        ParsedRecord record{at, ImageLoad32(head), ImageLoad32(head + 4), ImageLoad32(head + 8)};
        uint32_t size = log_record::Size(record.type, record.length);
        if (at + size > bytes.size())
            break;
        record.payload.assign(bytes.begin() + at + 12, bytes.begin() + at + 12 + record.length);
        records.push_back(record);
        at += size;
    }
    return records;
}

// The records in a region's log buffer from byte `from` on.
inline std::vector<ParsedRecord> BufferRecords(const LumRegion *region, uint32_t from = 0) {
    const LogBuffer *buffer = region->log_buffer;
    std::vector<uint8_t> bytes(file_header::kSize, 0);
    bytes.insert(bytes.end(), buffer->data + std::min(from, buffer->used),
                 buffer->data + buffer->used);
    return ParseLog(bytes);
}

class PersistentTest : public RegionTest {
  protected:
    LumRegion *CreatePersistent(const char *name = "p", uint32_t hard_limit = 4 * kMiB,
                                uint32_t soft_limit = 4 * kMiB, uint32_t largest_record = 0,
                                int32_t protect = 0) {
        LumRegion *region = nullptr;
        void *base;
        EXPECT_EQ(LumRegionCreate(name, LUM_REGION_PERSISTENT, hard_limit, soft_limit,
                                  largest_record, protect, dir_.path().c_str(), &region, &base),
                  0);
        return region;
    }

    std::string Path(const std::string &file) const { return dir_.path() + file; }
    std::vector<uint8_t> Read(const std::string &file) const {
        return lumtest::ReadFile(Path(file));
    }
    bool Exists(const std::string &file) const { return std::filesystem::exists(Path(file)); }

    // A commit's record and flush, without a checkpoint.
    static void Commit(LumRegion *region) {
        _LumLogBufferAppend(region, LOG_COMMIT, 0, 0);
        _LumLogBufferFlush(region);
    }

    // Stores `byte` over `length` bytes at `offset` and marks them dirty.
    static void Change(LumRegion *region, uint32_t offset, uint32_t length, uint8_t byte) {
        memset(region->base + offset, byte, length);
        _LumImageMarkDirty(region, region->base + offset, length);
    }

    lumtest::TempDir dir_;
};
