#include "source/BucketNames.h"

#include <algorithm>
#include <utility>

#include "source/BucketName.h"
#include "source/FoldedKey.h"

namespace zq {
namespace orvane {

using kel::WString;

BucketNames::BucketNames(WString fullName, const Digest* digest)
    : full_(std::move(fullName)), digest_(keyOf(digest != nullptr ? *digest : Digest(full_))) {
    size_t end = 0;
    BucketName::lastPiece(full_, shortBegin_, end);
    shortLength_ = end - shortBegin_;
    const FoldedKey key(full_);
    foldedIsFull_ = std::equal(key.text(), key.text() + key.length(), full_.c_str());
    if (!foldedIsFull_) {
        folded_ = key.toString();
    }
    foldedHash_ = key.hash();
}

Digest BucketNames::parentDigest() const {
    std::call_once(parentHashed_,
                   [this] { parent_ = keyOf(Digest(BucketName::parentName(full_))); });
    return digestOf(parent_);
}

BucketNames::BucketNames() : digest_(keyOf(Digest())), foldedHash_(FoldedKey::hashOf(nullptr, 0)) {}

const std::shared_ptr<const BucketNames>& BucketNames::empty() {
    static const std::shared_ptr<const BucketNames> names(new BucketNames());
    return names;
}

}  // namespace orvane
}  // namespace zq
