// RocksDB in the comparison, through the store it shares with LevelDB.
#include <rocksdb/db.h>
#include <rocksdb/write_batch.h>

#include "lsm_store.h"

namespace {

struct RocksDbApi {
    static constexpr const char *kName = "rocksdb";
    using DB = rocksdb::DB;
    using Options = rocksdb::Options;
    using ReadOptions = rocksdb::ReadOptions;
    using WriteOptions = rocksdb::WriteOptions;
    using WriteBatch = rocksdb::WriteBatch;
    using Iterator = rocksdb::Iterator;
    using Slice = rocksdb::Slice;
    using Status = rocksdb::Status;
};

} // namespace

int main(int argc, char **argv) {
    return peers::RunPeer<peers::LsmStore<RocksDbApi>>(argc, argv);
}
