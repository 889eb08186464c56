// libpmemobj in the comparison: a pool file on a memory file system, taken
// for persistent memory (PMEM_IS_PMEM_FORCE=1, so that its flushes are
// cache-line flushes and no msync), holding a chained hash table: an array
// of bucket heads and one object per item, each key and value with the
// link to the next object of its bucket. Every change is one transaction.
#include <libpmemobj.h>
#include <unistd.h>

#include "peer_harness.h"

namespace {

using namespace peers;

constexpr char kLayout[] = "lumpeers";

struct Item {
    PMEMoid next;
    uint8_t key[kKeySize];
    uint8_t value[kValueSize];
};
struct Root {
    uint64_t count;
    uint64_t bucket_count;
    PMEMoid buckets; // bucket_count PMEMoids
};

uint64_t HashKey(const Key &key) {
    uint64_t words[2];
    memcpy(words, key.bytes, sizeof words);
    return (words[0] ^ words[1]) * 0x9E3779B97F4A7C15ull >> 32;
}

struct PmemobjStore {
    static constexpr const char *kName = "pmemobj";

    // A pool of 512 bytes per item besides the buckets and 64 MiB: objects
    // in their allocation classes, their headers, and the transactions'
    // logs.
    PmemobjStore(const std::string &directory, uint32_t capacity) {
        std::string path = directory + "/peers.pool";
        uint64_t buckets = std::max(capacity, 1024u);
        pool_ = access(path.c_str(), F_OK) == 0
                    ? pmemobj_open(path.c_str(), kLayout)
                    : pmemobj_create(path.c_str(), kLayout,
                                     uint64_t{capacity} * 512 + buckets * sizeof(PMEMoid) +
                                         (uint64_t{64} << 20),
                                     0644);
        if (pool_ == nullptr)
            Fail("pmemobj: the pool: %s", pmemobj_errormsg());
        PMEMoid root = pmemobj_root(pool_, sizeof(Root));
        root_ = static_cast<Root *>(pmemobj_direct(root));
        if (root_ == nullptr)
            Fail("pmemobj: the root: %s", pmemobj_errormsg());
        if (root_->bucket_count == 0) {
            Begin();
            pmemobj_tx_add_range(root, 0, sizeof(Root));
            root_->buckets = pmemobj_tx_zalloc(buckets * sizeof(PMEMoid), 1);
            root_->bucket_count = buckets;
            End();
        }
        buckets_ = static_cast<PMEMoid *>(pmemobj_direct(root_->buckets));
    }
    ~PmemobjStore() { pmemobj_close(pool_); }

    void Insert(const Key *keys, const Value *values, uint32_t count) {
        Begin();
        for (uint32_t i = 0; i < count; ++i) {
            PMEMoid object = pmemobj_tx_alloc(sizeof(Item), 2);
            auto *item = static_cast<Item *>(pmemobj_direct(object));
            if (item == nullptr)
                Fail("pmemobj: pmemobj_tx_alloc: %s", pmemobj_errormsg());
            PMEMoid *head = &buckets_[HashKey(keys[i]) % root_->bucket_count];
            item->next = *head;
            memcpy(item->key, keys[i].bytes, kKeySize);
            memcpy(item->value, values[i].bytes, kValueSize);
            pmemobj_tx_add_range_direct(head, sizeof *head);
            *head = object;
        }
        SetCount(root_->count + count);
        End();
    }
    const uint8_t *Get(const Key &key) {
        PMEMoid *link = Find(key);
        return OID_IS_NULL(*link) ? nullptr : static_cast<Item *>(pmemobj_direct(*link))->value;
    }
    void Update(const Key *keys, const Patch *patches, uint32_t count) {
        Begin();
        for (uint32_t i = 0; i < count; ++i) {
            auto *value = const_cast<uint8_t *>(Get(keys[i]));
            if (value == nullptr)
                Fail("pmemobj: a key to update is missing");
            pmemobj_tx_add_range_direct(value, kPatchSize);
            memcpy(value, patches[i].bytes, kPatchSize);
        }
        End();
    }
    void Erase(const Key *keys, uint32_t count) {
        Begin();
        for (uint32_t i = 0; i < count; ++i) {
            PMEMoid *link = Find(keys[i]);
            if (OID_IS_NULL(*link))
                Fail("pmemobj: a key to delete is missing");
            PMEMoid object = *link;
            pmemobj_tx_add_range_direct(link, sizeof *link);
            *link = static_cast<Item *>(pmemobj_direct(object))->next;
            pmemobj_tx_free(object);
        }
        SetCount(root_->count - count);
        End();
    }
    uint64_t Count() { return root_->count; }

  private:
    // The link that holds `key`'s object, or the null link at the end of
    // its bucket.
    PMEMoid *Find(const Key &key) {
        PMEMoid *link = &buckets_[HashKey(key) % root_->bucket_count];
        while (!OID_IS_NULL(*link)) {
            auto *item = static_cast<Item *>(pmemobj_direct(*link));
            if (memcmp(item->key, key.bytes, kKeySize) == 0)
                break;
            link = &item->next;
        }
        return link;
    }
    void SetCount(uint64_t count) {
        pmemobj_tx_add_range_direct(&root_->count, sizeof root_->count);
        root_->count = count;
    }
    // A transaction without a jump buffer: a failing call aborts it and
    // returns, and End finds it aborted.
    void Begin() {
        if (pmemobj_tx_begin(pool_, nullptr, TX_PARAM_NONE) != 0)
            Fail("pmemobj: pmemobj_tx_begin: %s", pmemobj_errormsg());
    }
    void End() {
        if (pmemobj_tx_stage() != TX_STAGE_WORK)
            Fail("pmemobj: the transaction failed: %s", pmemobj_errormsg());
        pmemobj_tx_commit();
        if (pmemobj_tx_end() != 0)
            Fail("pmemobj: the commit failed: %s", pmemobj_errormsg());
    }

    PMEMobjpool *pool_ = nullptr;
    Root *root_ = nullptr;
    PMEMoid *buckets_ = nullptr;
};

} // namespace

// The pool must be taken for persistent memory from the library's start:
// the program runs itself again with PMEM_IS_PMEM_FORCE=1 when it is unset.
int main(int argc, char **argv) {
    if (getenv("PMEM_IS_PMEM_FORCE") == nullptr) {
        setenv("PMEM_IS_PMEM_FORCE", "1", 1);
        execv("/proc/self/exe", argv);
        Fail("pmemobj: cannot run itself again: %s", strerror(errno));
    }
    return peers::RunPeer<PmemobjStore>(argc, argv);
}
