#ifndef ZQ_ORVANE_DIGESTKEY_H
#define ZQ_ORVANE_DIGESTKEY_H

#include <array>
#include <cstddef>
#include <cstring>

#include "zq/orvane/Digest.h"

namespace zq {
namespace orvane {

// A digest as plain bytes: a key for the store's index and the caches, with
// no count of its own to make or copy.
using DigestKey = std::array<unsigned char, Digest::kSize>;

inline DigestKey keyOf(const Digest& digest) {
    DigestKey key;
    std::memcpy(key.data(), digest.bytes(), key.size());
    return key;
}

inline Digest digestOf(const DigestKey& key) {
    const unsigned char* cursor = key.data();
    return Digest(cursor, key.data() + key.size());
}

struct DigestKeyHash {
    size_t operator()(const DigestKey& key) const {
        // The bytes are already uniformly distributed.
        size_t h;
        std::memcpy(&h, key.data(), sizeof h);
        return h;
    }
};

}  // namespace orvane
}  // namespace zq

#endif  // ZQ_ORVANE_DIGESTKEY_H
