// LevelDB in the comparison, through the store it shares with RocksDB.
#include <leveldb/cache.h>
#include <leveldb/db.h>
#include <leveldb/filter_policy.h>
#include <leveldb/write_batch.h>

#include "lsm_store.h"

namespace {

struct LevelDbApi {
    static constexpr const char *kName = "leveldb";
    using DB = leveldb::DB;
    using Options = leveldb::Options;
    using ReadOptions = leveldb::ReadOptions;
    using WriteOptions = leveldb::WriteOptions;
    using WriteBatch = leveldb::WriteBatch;
    using Iterator = leveldb::Iterator;
    using Slice = leveldb::Slice;
    using Status = leveldb::Status;
    struct Tuning {
        void Apply(Options &options) {
            options.block_cache = cache.get();
            options.filter_policy = filter.get();
        }
        std::unique_ptr<leveldb::Cache> cache{leveldb::NewLRUCache(peers::kCacheBytes)};
        std::unique_ptr<const leveldb::FilterPolicy> filter{leveldb::NewBloomFilterPolicy(10)};
    };
};

} // namespace

int main(int argc, char **argv) {
    return peers::RunPeer<peers::LsmStore<LevelDbApi>>(argc, argv);
}
