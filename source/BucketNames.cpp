#include "source/BucketNames.h"

#include <utility>

#include "source/BucketName.h"
#include "source/FoldedKey.h"

namespace zq {
namespace orvane {

using kel::WString;

BucketNames::BucketNames(WString fullName, const Digest* digest)
    : full_(std::move(fullName)),
      shortName_(BucketName::shortName(full_)),
      digest_(digest != nullptr ? *digest : Digest(full_)) {
    const FoldedKey key(full_);
    folded_ = key.toString();
    foldedHash_ = key.hash();
}

BucketNames::BucketNames() : foldedHash_(FoldedKey::hashOf(nullptr, 0)) {}

const std::shared_ptr<const BucketNames>& BucketNames::empty() {
    static const std::shared_ptr<const BucketNames> names(new BucketNames());
    return names;
}

}  // namespace orvane
}  // namespace zq
