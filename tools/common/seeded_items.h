// The seeded item workload that lumregion-torture and lumregion-faults apply
// to a region and replay on a model: transactions of allocations, changes
// and frees over a table of item slots, and the search for the committed
// state that a recovered image holds.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <optional>
#include <random>
#include <vector>

#include "alloc/layout.h"

namespace seeded {

// slot -> the item's bytes, empty when the slot is free. An item's first 4
// bytes hold its length, so a recovered image describes itself.
using Items = std::vector<std::vector<uint8_t>>;

enum OpKind { kAllocate, kChange, kFree };
struct Op {
    OpKind kind;
    uint32_t slot;
    uint32_t at;                // kChange: offset inside the item
    std::vector<uint8_t> bytes; // kAllocate: the item; kChange: the new bytes
};

// The sizes a workload draws from.
struct Shape {
    uint32_t most_ops;     // a transaction has 1 to most_ops ops
    uint32_t large_one_in; // one new item in this many is large,
    uint32_t large_spread; // 4096 bytes and up to this many more;
    uint32_t small_spread; // the others 8 bytes and up to this many more
    uint32_t most_changed; // a change writes 1 to this many bytes
};

// The next transaction of the seeded stream `random`, applied to `items`.
inline std::vector<Op> NextTransaction(std::mt19937_64 &random, const Shape &shape, Items &items) {
    std::vector<Op> ops;
    for (uint64_t count = 1 + random() % shape.most_ops; count > 0; --count) {
        auto slot = static_cast<uint32_t>(random() % items.size());
        std::vector<uint8_t> &item = items[slot];
        if (item.empty()) {
            auto length = static_cast<uint32_t>(random() % shape.large_one_in == 0
                                                    ? 4096 + random() % shape.large_spread
                                                    : 8 + random() % shape.small_spread);
            item.resize(length);
            for (uint8_t &byte : item)
                byte = static_cast<uint8_t>(random());
            memcpy(item.data(), &length, 4);
            ops.push_back({kAllocate, slot, 0, item});
        } else if (random() % 4 == 0) {
            item.clear();
            ops.push_back({kFree, slot, 0, {}});
        } else {
            auto at = static_cast<uint32_t>(4 + random() % (item.size() - 4));
            auto length = static_cast<uint32_t>(
                1 + random() % std::min<uint64_t>(shape.most_changed, item.size() - at));
            for (uint32_t i = 0; i < length; ++i)
                item[at + i] = static_cast<uint8_t>(random());
            ops.push_back({kChange, slot, at,
                           std::vector<uint8_t>(item.begin() + at, item.begin() + at + length)});
        }
    }
    return ops;
}

// FNV-1a over the live slots and their items.
inline uint64_t Hash(const Items &items) {
    uint64_t hash = 14695981039346656037ull;
    auto mix = [&](const void *data, size_t length) {
        for (size_t i = 0; i < length; ++i)
            hash = (hash ^ static_cast<const uint8_t *>(data)[i]) * 1099511628211ull;
    };
    for (uint32_t slot = 0; slot < items.size(); ++slot) {
        if (!items[slot].empty()) {
            mix(&slot, 4);
            mix(items[slot].data(), items[slot].size());
        }
    }
    return hash;
}

// The items of an image through its table of `slots` item offsets at
// `root`; nullopt when the table or an item leads outside the image.
inline std::optional<Items> ImageItems(const uint8_t *base, uint32_t used, uint32_t root,
                                       uint32_t slots) {
    Items items(slots);
    if (root == 0 || used < 4 * slots || root > used - 4 * slots)
        return std::nullopt;
    for (uint32_t slot = 0; slot < slots; ++slot) {
        uint32_t offset = ImageLoad32(base + root + 4 * slot);
        if (offset == 0)
            continue;
        if (offset > used - 4)
            return std::nullopt;
        uint32_t length = ImageLoad32(base + offset);
        if (length < 8 || length > used - offset)
            return std::nullopt;
        items[slot].assign(base + offset, base + offset + length);
    }
    return items;
}

// The newest of the states after commits 0 to `last` of the workload of
// `seed` over `slots` slots that `items` equals; -1 for none.
inline int64_t MatchingCommit(uint64_t seed, const Shape &shape, uint32_t slots, int64_t last,
                              const std::optional<Items> &items) {
    if (!items)
        return -1;
    std::mt19937_64 random(seed);
    Items model(slots);
    std::vector<uint64_t> hashes{Hash(model)};
    for (int64_t number = 1; number <= last; ++number) {
        NextTransaction(random, shape, model);
        hashes.push_back(Hash(model));
    }
    auto found = std::find(hashes.rbegin(), hashes.rend(), Hash(*items));
    return found == hashes.rend() ? -1 : hashes.rend() - found - 1;
}

} // namespace seeded
