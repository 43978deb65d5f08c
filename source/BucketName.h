#ifndef ZQ_ORVANE_BUCKETNAME_H
#define ZQ_ORVANE_BUCKETNAME_H

#include "zq/kel/StringBase.h"

namespace zq {
namespace orvane {

// The naming rules of the tree. A full name is split at "/" with empty pieces
// dropped, so "//a//b/" names the same place as "/a/b".
class BucketName {
  public:
    static constexpr wchar_t kSeparator = L'/';

    // The last piece; empty for "/".
    static kel::WString shortName(const kel::WString& fullName);
    // "/" and the pieces but the last; "/" for the root and its children.
    static kel::WString parentName(const kel::WString& fullName);
    // The full name of the child `childName` of `fullName`.
    static kel::WString childName(const kel::WString& fullName, const kel::WString& childName);
};

}  // namespace orvane
}  // namespace zq

#endif  // ZQ_ORVANE_BUCKETNAME_H
