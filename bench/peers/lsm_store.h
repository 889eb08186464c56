// The store of LevelDB and of RocksDB, whose interfaces agree in all that
// the comparison calls: one write batch per transaction, written with the
// log on and sync off, so that it reaches the log through the operating
// system unforced. A host that looks up points gives the store a block
// cache that holds the data and Bloom filters; `Api` names the library's
// types, its name, and its Tuning, which sets them up and owns them.
#pragma once

#include <memory>

#include "peer_harness.h"

namespace peers {

template <typename Api> struct LsmStore {
    static constexpr const char *kName = Api::kName;

    LsmStore(const std::string &directory, uint32_t) {
        typename Api::Options options;
        options.create_if_missing = true;
        tuning_.Apply(options);
        typename Api::DB *db = nullptr;
        Check(Api::DB::Open(options, directory, &db), "open");
        db_.reset(db);
        write_.sync = false;
    }

    void Insert(const Key *keys, const Value *values, uint32_t count) {
        typename Api::WriteBatch batch;
        for (uint32_t i = 0; i < count; ++i)
            batch.Put(Bytes(keys[i].bytes, kKeySize), Bytes(values[i].bytes, kValueSize));
        Check(db_->Write(write_, &batch), "write");
    }
    const uint8_t *Get(const Key &key) {
        auto status = db_->Get(read_, Bytes(key.bytes, kKeySize), &value_);
        if (status.IsNotFound())
            return nullptr;
        Check(status, "get");
        if (value_.size() != kValueSize)
            Fail("%s: a value of %zu bytes", kName, value_.size());
        return reinterpret_cast<const uint8_t *>(value_.data());
    }
    // The value is read and put back whole with its patch.
    void Update(const Key *keys, const Patch *patches, uint32_t count) {
        typename Api::WriteBatch batch;
        for (uint32_t i = 0; i < count; ++i) {
            if (Get(keys[i]) == nullptr)
                Fail("%s: a key to update is missing", kName);
            value_.replace(0, kPatchSize, reinterpret_cast<const char *>(patches[i].bytes),
                           kPatchSize);
            batch.Put(Bytes(keys[i].bytes, kKeySize), value_);
        }
        Check(db_->Write(write_, &batch), "write");
    }
    void Erase(const Key *keys, uint32_t count) {
        typename Api::WriteBatch batch;
        for (uint32_t i = 0; i < count; ++i)
            batch.Delete(Bytes(keys[i].bytes, kKeySize));
        Check(db_->Write(write_, &batch), "write");
    }
    uint64_t Count() {
        std::unique_ptr<typename Api::Iterator> it(db_->NewIterator(read_));
        uint64_t count = 0;
        for (it->SeekToFirst(); it->Valid(); it->Next())
            ++count;
        Check(it->status(), "iterate");
        return count;
    }

  private:
    static typename Api::Slice Bytes(const uint8_t *data, size_t size) {
        return typename Api::Slice(reinterpret_cast<const char *>(data), size);
    }
    static void Check(const typename Api::Status &status, const char *call) {
        if (!status.ok())
            Fail("%s: %s: %s", kName, call, status.ToString().c_str());
    }

    typename Api::Tuning tuning_; // outlives the database
    std::unique_ptr<typename Api::DB> db_;
    typename Api::ReadOptions read_;
    typename Api::WriteOptions write_;
    std::string value_; // the value of the last Get
};

} // namespace peers
