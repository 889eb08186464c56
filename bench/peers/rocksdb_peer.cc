// RocksDB in the comparison, through the store it shares with LevelDB.
#include <rocksdb/cache.h>
#include <rocksdb/db.h>
#include <rocksdb/filter_policy.h>
#include <rocksdb/table.h>
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
    struct Tuning {
        void Apply(Options &options) {
            rocksdb::BlockBasedTableOptions table;
            table.block_cache = rocksdb::NewLRUCache(peers::kCacheBytes);
            table.filter_policy.reset(rocksdb::NewBloomFilterPolicy(10));
            options.table_factory.reset(rocksdb::NewBlockBasedTableFactory(table));
        }
    };
};

} // namespace

int main(int argc, char **argv) {
    return peers::RunPeer<peers::LsmStore<RocksDbApi>>(argc, argv);
}
