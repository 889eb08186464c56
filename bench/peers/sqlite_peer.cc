// SQLite in the comparison: a WITHOUT ROWID table of key and value in
// write-ahead-log mode with synchronous=OFF, so that a commit reaches the
// log through the operating system unforced; every statement is prepared
// once, and the page cache holds all the data. Lookups share one read
// transaction, kept open between writes as LMDB's reader is: a statement
// outside a transaction would begin and end one of its own, with its
// locks, at each lookup. An update rewrites the value's first bytes in SQL.
#include <sqlite3.h>

#include "peer_harness.h"

namespace {

using namespace peers;

struct SqliteStore {
    static constexpr const char *kName = "sqlite";

    SqliteStore(const std::string &directory, uint32_t) {
        if (sqlite3_open((directory + "/peers.db").c_str(), &db_) != SQLITE_OK)
            Fail("sqlite: open: %s", sqlite3_errmsg(db_));
        Execute("PRAGMA journal_mode=WAL");
        Execute("PRAGMA synchronous=OFF");
        Execute(("PRAGMA cache_size=-" + std::to_string(peers::kCacheBytes / 1024)).c_str());
        Execute("CREATE TABLE IF NOT EXISTS kv(k BLOB PRIMARY KEY, v BLOB NOT NULL) WITHOUT ROWID");
        begin_ = Prepare("BEGIN");
        commit_ = Prepare("COMMIT");
        insert_ = Prepare("INSERT INTO kv(k, v) VALUES(?1, ?2)");
        select_ = Prepare("SELECT v FROM kv WHERE k = ?1");
        update_ = Prepare("UPDATE kv SET v = ?2 || substr(v, ?3) WHERE k = ?1");
        delete_ = Prepare("DELETE FROM kv WHERE k = ?1");
        count_ = Prepare("SELECT count(*) FROM kv");
    }
    ~SqliteStore() {
        EndRead();
        for (sqlite3_stmt *statement :
             {begin_, commit_, insert_, select_, update_, delete_, count_})
            sqlite3_finalize(statement);
        if (sqlite3_close(db_) != SQLITE_OK)
            Fail("sqlite: close: %s", sqlite3_errmsg(db_));
    }

    void Insert(const Key *keys, const Value *values, uint32_t count) {
        BeginWrite();
        for (uint32_t i = 0; i < count; ++i) {
            BindKey(insert_, keys[i]);
            sqlite3_bind_blob(insert_, 2, values[i].bytes, kValueSize, SQLITE_STATIC);
            Run(insert_);
        }
        Run(commit_);
    }
    const uint8_t *Get(const Key &key) {
        BeginRead();
        sqlite3_reset(select_);
        BindKey(select_, key);
        int rc = sqlite3_step(select_);
        if (rc == SQLITE_DONE)
            return nullptr;
        if (rc != SQLITE_ROW || sqlite3_column_bytes(select_, 0) != int{kValueSize})
            Fail("sqlite: select: %s", sqlite3_errmsg(db_));
        return static_cast<const uint8_t *>(sqlite3_column_blob(select_, 0));
    }
    void Update(const Key *keys, const Patch *patches, uint32_t count) {
        BeginWrite();
        for (uint32_t i = 0; i < count; ++i) {
            BindKey(update_, keys[i]);
            sqlite3_bind_blob(update_, 2, patches[i].bytes, kPatchSize, SQLITE_STATIC);
            sqlite3_bind_int(update_, 3, kPatchSize + 1);
            Run(update_);
            Changed("update");
        }
        Run(commit_);
    }
    void Erase(const Key *keys, uint32_t count) {
        BeginWrite();
        for (uint32_t i = 0; i < count; ++i) {
            BindKey(delete_, keys[i]);
            Run(delete_);
            Changed("delete");
        }
        Run(commit_);
    }
    uint64_t Count() {
        BeginRead();
        sqlite3_reset(count_);
        if (sqlite3_step(count_) != SQLITE_ROW)
            Fail("sqlite: count: %s", sqlite3_errmsg(db_));
        uint64_t count = sqlite3_column_int64(count_, 0);
        sqlite3_reset(count_);
        return count;
    }

  private:
    void BeginRead() {
        if (!reading_)
            Run(begin_);
        reading_ = true;
    }
    void EndRead() {
        if (reading_)
            Run(commit_);
        reading_ = false;
    }
    void BeginWrite() {
        EndRead();
        Run(begin_);
    }
    void Execute(const char *sql) {
        if (sqlite3_exec(db_, sql, nullptr, nullptr, nullptr) != SQLITE_OK)
            Fail("sqlite: %s: %s", sql, sqlite3_errmsg(db_));
    }
    sqlite3_stmt *Prepare(const char *sql) {
        sqlite3_stmt *statement;
        if (sqlite3_prepare_v2(db_, sql, -1, &statement, nullptr) != SQLITE_OK)
            Fail("sqlite: prepare %s: %s", sql, sqlite3_errmsg(db_));
        return statement;
    }
    void BindKey(sqlite3_stmt *statement, const Key &key) {
        sqlite3_bind_blob(statement, 1, key.bytes, kKeySize, SQLITE_STATIC);
    }
    // Steps a statement that returns no row, and resets it. The select is
    // reset too, so that no read holds the write-ahead log back.
    void Run(sqlite3_stmt *statement) {
        sqlite3_reset(select_);
        if (sqlite3_step(statement) != SQLITE_DONE)
            Fail("sqlite: %s: %s", sqlite3_sql(statement), sqlite3_errmsg(db_));
        sqlite3_reset(statement);
    }
    void Changed(const char *what) {
        if (sqlite3_changes(db_) != 1)
            Fail("sqlite: %s found no row", what);
    }

    bool reading_ = false; // the read transaction of the lookups is open
    sqlite3 *db_ = nullptr;
    sqlite3_stmt *begin_ = nullptr, *commit_ = nullptr, *insert_ = nullptr, *select_ = nullptr,
                 *update_ = nullptr, *delete_ = nullptr, *count_ = nullptr;
};

} // namespace

int main(int argc, char **argv) {
    return peers::RunPeer<SqliteStore>(argc, argv);
}
