// lumregion dump-log: the header and the records of one log file, one
// record a line, up to the first record that a region could not have
// written; that record and the reason end the dump with status 1. The
// reasons are those for which recovery's scan ends a log.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <iostream>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "durable/formats.h"
#include "tools/lumregion/tool.h"

namespace {

constexpr const char *kTypeNames[] = {"LOG_DATA", "LOG_SIZE", "LOG_CHECKPOINT", "LOG_COMMIT"};

// Reads exactly `count` bytes at `offset`; false on a short read or error.
bool ReadAt(int fd, void *bytes, size_t count, uint64_t offset) {
    return pread(fd, bytes, count, static_cast<off_t>(offset)) == static_cast<ssize_t>(count);
}

std::string Hex(const std::vector<uint8_t> &bytes) {
    static const char kDigits[] = "0123456789abcdef";
    std::string text;
    for (uint8_t byte : bytes) {
        text += kDigits[byte >> 4];
        text += kDigits[byte & 15];
    }
    return text;
}

Json HeaderFacts(const uint8_t *header) {
    char magic[4], version[4];
    memcpy(magic, header + file_header::kMagic, 4);
    memcpy(version, header + file_header::kVersion, 4);
    magic[3] = version[3] = '\0';
    return {{"magic", magic},
            {"version", version},
            {"generation", ImageLoad32(header + file_header::kGeneration)},
            {"timestamp", static_cast<int32_t>(ImageLoad32(header + file_header::kTimestamp))},
            {"page_size", ImageLoad32(header + file_header::kPageSize)},
            {"follows_gap", (header[file_header::kFlags] & file_header::kFollowsGap) != 0}};
}

// Why a region could not have written the record whose head is `head` at
// `offset` of a file of `size` bytes, after a LOG_SIZE of `image_size`; an
// empty text for a good record.
std::string Fault(uint32_t type, uint32_t length, uint32_t value, uint64_t offset, uint64_t size,
                  uint32_t image_size) {
    if (type > LOG_COMMIT)
        return "unknown type " + std::to_string(type);
    if (type != LOG_DATA && length != 0)
        return "length " + std::to_string(length) + " on a record that has none";
    if (type != LOG_DATA)
        return "";
    if (length == 0)
        return "data record of length 0";
    if (length > log_record::kMaxPayload)
        return "payload of " + std::to_string(length) + " bytes, above the largest record";
    if (offset + log_record::Size(type, length) > size)
        return "length " + std::to_string(length) + " reaches past the end of the file";
    if (uint64_t{value} + length > image_size)
        return "data beyond the image size " + std::to_string(image_size) + " of the last LOG_SIZE";
    return "";
}

struct Dump {
    int fd;
    uint64_t size;
    bool data;
    Json facts;
    // Prints each record as it is read, unless the facts go out as JSON.
    bool print;
};

void AddRecord(Dump *dump, Json record) {
    if (dump->print) {
        printf("%10llu  %-14s  %8u  %10u",
               static_cast<unsigned long long>(record["offset"].get<uint64_t>()),
               record["type"].get<std::string>().c_str(), record["length"].get<uint32_t>(),
               record["value"].get<uint32_t>());
        if (record.contains("data"))
            printf("  %s", record["data"].get<std::string>().c_str());
        printf("\n");
    } else {
        dump->facts["records"].push_back(std::move(record));
    }
}

// Walks the records from offset 32; status 1 at the first bad one.
int WalkRecords(Dump *dump) {
    uint64_t offset = file_header::kSize;
    errno = 0;
    uint64_t commit_end = file_header::kSize;
    uint32_t image_size = 0, count = 0;
    std::string fault;
    while (offset < dump->size) {
        uint8_t head[log_record::kHeadSize];
        if (offset + log_record::kHeadSize > dump->size) {
            fault = "torn head: " + std::to_string(dump->size - offset) + " bytes at the end";
            break;
        }
        if (!ReadAt(dump->fd, head, sizeof head, offset))
            break;
        uint32_t type = ImageLoad32(head + log_record::kType);
        uint32_t length = ImageLoad32(head + log_record::kLength);
        uint32_t value = ImageLoad32(head + log_record::kValue);
        fault = Fault(type, length, value, offset, dump->size, image_size);
        if (!fault.empty())
            break;
        Json record = {
            {"offset", offset}, {"type", kTypeNames[type]}, {"length", length}, {"value", value}};
        if (dump->data && type == LOG_DATA) {
            std::vector<uint8_t> payload(length);
            if (!ReadAt(dump->fd, payload.data(), length, offset + log_record::kHeadSize))
                break;
            record["data"] = Hex(payload);
        }
        AddRecord(dump, std::move(record));
        ++count;
        if (type == LOG_SIZE)
            image_size = value;
        offset += log_record::Size(type, length);
        if (type == LOG_COMMIT)
            commit_end = offset;
    }
    dump->facts["record_count"] = count;
    dump->facts["commit_end"] = commit_end;
    dump->facts["end"] = offset;
    if (fault.empty() && offset < dump->size) { // a read failed
        dump->facts["error"] = std::string("read failed at ") + std::to_string(offset) + ": " +
                               strerror(errno != 0 ? errno : EIO);
        return kExitError;
    }
    if (fault.empty())
        return kExitOk;
    dump->facts["bad_record"] = {{"offset", offset}, {"reason", fault}};
    return kExitFinding;
}

} // namespace

Outcome RunDumpLog(const ToolOptions &options) {
    int fd = open(options.file.c_str(), O_RDONLY);
    struct stat info;
    if (fd < 0 || fstat(fd, &info) != 0) {
        Outcome outcome = ErrorOutcome(options.file + ": " + strerror(errno));
        if (fd >= 0)
            close(fd);
        return outcome;
    }
    Dump dump{fd, static_cast<uint64_t>(info.st_size), options.data,
              Json{{"file", options.file}, {"size", info.st_size}}, !options.json};
    uint8_t header[file_header::kSize];
    int status;
    if (dump.size < file_header::kSize || !ReadAt(fd, header, sizeof header, 0)) {
        dump.facts["bad_header"] = "shorter than a file header";
        status = kExitFinding;
    } else {
        dump.facts["header"] = HeaderFacts(header);
        if (memcmp(header, file_header::kMagicText, 4) != 0) {
            dump.facts["bad_header"] = "magic is not LSB";
            status = kExitFinding;
        } else {
            if (dump.print)
                PrintDumpLog(dump.facts); // the header ahead of the records
            dump.facts["records"] = Json::array();
            status = WalkRecords(&dump);
        }
    }
    close(fd);
    return {dump.facts, status};
}

void PrintDumpLog(const Json &facts) {
    if (!facts.contains("record_count")) { // before the records, or no records at all
        std::cout << "log " << facts.value("file", "") << ", " << facts.value("size", 0ull)
                  << " bytes\n";
        if (facts.contains("header")) {
            const Json &header = facts["header"];
            std::cout << "header: magic " << header["magic"].get<std::string>() << ", version "
                      << header["version"].get<std::string>() << ", generation "
                      << header["generation"] << ", timestamp " << header["timestamp"] << " ("
                      << TimestampText(header["timestamp"].get<int32_t>()) << "), page size "
                      << header["page_size"]
                      << (header["follows_gap"].get<bool>() ? ", follows a failed log" : "")
                      << "\n";
        }
        if (facts.contains("bad_header"))
            std::cout << "bad header: " << facts["bad_header"].get<std::string>() << "\n";
        else if (!facts.contains("error"))
            printf("%10s  %-14s  %8s  %10s\n", "offset", "type", "length", "value");
        return;
    }
    std::cout << facts["record_count"] << " records; last commit ends at " << facts["commit_end"]
              << "\n";
    if (facts.contains("bad_record"))
        std::cout << "bad record at " << facts["bad_record"]["offset"] << ": "
                  << facts["bad_record"]["reason"].get<std::string>() << "\n";
    else
        std::cout << "the log ends at a record boundary\n";
}
