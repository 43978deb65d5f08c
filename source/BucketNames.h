#ifndef ZQ_ORVANE_BUCKETNAMES_H
#define ZQ_ORVANE_BUCKETNAMES_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>

#include "source/DigestKey.h"
#include "zq/kel/StringBase.h"
#include "zq/orvane/Digest.h"

namespace zq {
namespace orvane {

// A bucket's full name and what is derived from it, made once per name and
// shared by every copy of the bucket, so that a copy allocates nothing for
// its names and a cache finds the folded key ready. Never changed once made.
class BucketNames {
  public:
    // The names of `fullName`; `digest`, when given, is its digest.
    BucketNames(kel::WString fullName, const Digest* digest);

    // The names of a new bucket: all empty, the digest of the empty name.
    static const std::shared_ptr<const BucketNames>& empty();

    const kel::WString& full() const { return full_; }
    // Made on request: only getShortName and the dumps want it as text.
    kel::WString shortName() const { return full_.substr(shortBegin_, shortLength_); }
    size_t shortLength() const { return shortLength_; }
    Digest digest() const { return digestOf(digest_); }
    const DigestKey& digestKey() const { return digest_; }
    // The digest of the parent's name, hashed on first request (most
    // buckets read are never asked for it) and then kept for every copy.
    Digest parentDigest() const;
    // As the cases key it (each character through kel::foldLower), and its hash.
    // Most names are folded already, and then share the full name's text.
    const kel::WString& folded() const { return foldedIsFull_ ? full_ : folded_; }
    uint64_t foldedHash() const { return foldedHash_; }

  private:
    BucketNames();

    kel::WString full_;
    size_t shortBegin_ = 0;
    size_t shortLength_ = 0;
    DigestKey digest_;  // bytes, not a Digest: no atomic count to carry
    mutable std::once_flag parentHashed_;
    mutable DigestKey parent_ = {};
    kel::WString folded_;  // empty when foldedIsFull_
    bool foldedIsFull_ = false;
    uint64_t foldedHash_;
};

}  // namespace orvane
}  // namespace zq

#endif  // ZQ_ORVANE_BUCKETNAMES_H
