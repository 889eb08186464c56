// LMDB in the comparison: one database in a memory map written in place
// (MDB_WRITEMAP), whose commits do not force the map or its meta page to
// disk (MDB_NOSYNC). Lookups read through one read transaction, kept open
// between writes, as a reading host keeps it.
#include <lmdb.h>

#include "peer_harness.h"

namespace {

using namespace peers;

void Check(int rc, const char *call) {
    if (rc != MDB_SUCCESS)
        Fail("lmdb: %s: %s", call, mdb_strerror(rc));
}

MDB_val Bytes(const void *data, size_t size) {
    return MDB_val{size, const_cast<void *>(data)};
}

struct LmdbStore {
    static constexpr const char *kName = "lmdb";

    // A map of 512 bytes per item and 64 MiB besides: pages of the tree,
    // half-full pages after random inserts, and the free pages of
    // copy-on-write.
    LmdbStore(const std::string &directory, uint32_t capacity) {
        Check(mdb_env_create(&env_), "mdb_env_create");
        Check(mdb_env_set_mapsize(env_, size_t{capacity} * 512 + (size_t{64} << 20)),
              "mdb_env_set_mapsize");
        Check(mdb_env_open(env_, directory.c_str(), MDB_NOSYNC | MDB_WRITEMAP, 0644),
              "mdb_env_open");
        MDB_txn *txn = Begin();
        Check(mdb_dbi_open(txn, nullptr, 0, &dbi_), "mdb_dbi_open");
        Check(mdb_txn_commit(txn), "mdb_txn_commit");
    }
    ~LmdbStore() {
        EndReader();
        mdb_env_close(env_);
    }

    void Insert(const Key *keys, const Value *values, uint32_t count) {
        MDB_txn *txn = Begin();
        for (uint32_t i = 0; i < count; ++i) {
            MDB_val key = Bytes(keys[i].bytes, kKeySize),
                    value = Bytes(values[i].bytes, kValueSize);
            Check(mdb_put(txn, dbi_, &key, &value, 0), "mdb_put");
        }
        Check(mdb_txn_commit(txn), "mdb_txn_commit");
    }
    const uint8_t *Get(const Key &key) {
        if (reader_ == nullptr)
            Check(mdb_txn_begin(env_, nullptr, MDB_RDONLY, &reader_), "mdb_txn_begin");
        MDB_val k = Bytes(key.bytes, kKeySize), value;
        int rc = mdb_get(reader_, dbi_, &k, &value);
        if (rc == MDB_NOTFOUND)
            return nullptr;
        Check(rc, "mdb_get");
        return static_cast<const uint8_t *>(value.mv_data);
    }
    // The value is read and put back whole with its patch.
    void Update(const Key *keys, const Patch *patches, uint32_t count) {
        MDB_txn *txn = Begin();
        for (uint32_t i = 0; i < count; ++i) {
            MDB_val key = Bytes(keys[i].bytes, kKeySize), old;
            Check(mdb_get(txn, dbi_, &key, &old), "mdb_get");
            Value changed;
            memcpy(changed.bytes, old.mv_data, kValueSize);
            memcpy(changed.bytes, patches[i].bytes, kPatchSize);
            MDB_val value = Bytes(changed.bytes, kValueSize);
            Check(mdb_put(txn, dbi_, &key, &value, 0), "mdb_put");
        }
        Check(mdb_txn_commit(txn), "mdb_txn_commit");
    }
    void Erase(const Key *keys, uint32_t count) {
        MDB_txn *txn = Begin();
        for (uint32_t i = 0; i < count; ++i) {
            MDB_val key = Bytes(keys[i].bytes, kKeySize);
            Check(mdb_del(txn, dbi_, &key, nullptr), "mdb_del");
        }
        Check(mdb_txn_commit(txn), "mdb_txn_commit");
    }
    uint64_t Count() {
        EndReader();
        MDB_stat stat;
        Check(mdb_env_stat(env_, &stat), "mdb_env_stat");
        return stat.ms_entries;
    }

  private:
    // A write transaction; the read transaction ends first, so that it
    // holds no old pages against the writer.
    MDB_txn *Begin() {
        EndReader();
        MDB_txn *txn;
        Check(mdb_txn_begin(env_, nullptr, 0, &txn), "mdb_txn_begin");
        return txn;
    }
    void EndReader() {
        if (reader_ != nullptr)
            mdb_txn_abort(reader_);
        reader_ = nullptr;
    }

    MDB_env *env_ = nullptr;
    MDB_dbi dbi_ = 0;
    MDB_txn *reader_ = nullptr;
};

} // namespace

int main(int argc, char **argv) {
    return peers::RunPeer<LmdbStore>(argc, argv);
}
