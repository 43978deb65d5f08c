#ifndef ZQ_ORVANE_BUCKETNAME_H
#define ZQ_ORVANE_BUCKETNAME_H

#include "zq/kel/StatusChain.h"
#include "zq/kel/StringBase.h"
#include "zq/orvane/IBucketValue.h"

namespace zq {
namespace orvane {

// The naming rules of the tree. The splitting helpers drop empty pieces, so
// "//a//b/" gives the pieces of "/a/b"; the manager takes well-formed names
// only.
class BucketName {
  public:
    static constexpr wchar_t kSeparator = L'/';

    // The last piece; empty for "/".
    static kel::WString shortName(const kel::WString& fullName);
    // [begin, end) of the last non-empty piece; begin == end when there is none.
    static void lastPiece(const kel::WString& fullName, size_t& begin, size_t& end);
    // "/" and the pieces but the last; "/" for the root and its children.
    static kel::WString parentName(const kel::WString& fullName);
    // The full name of the child `childName` of `fullName`.
    static kel::WString childName(const kel::WString& fullName, const kel::WString& childName);

    // "/" or "/a/b": no empty piece, no trailing "/". Only such a name enters
    // the manager: another spelling of a place would be linked from its
    // parent under a name that is not its own.
    static bool isWellFormed(const kel::WString& fullName);
    // isWellFormed, refusing any other name with status::kBadBucketName and a
    // message that quotes it.
    static bool check(const kel::WString& fullName, kel::StatusChain& status);
    // A value name that only a child link may take: it begins with "/".
    static bool isLinkName(const kel::WString& valueName);
    // Whether `value`, held under the full name `childName`, is the link to
    // that child: the kDIGEST of the name.
    static bool isLinkTo(const kel::WString& childName, const IBucketValue& value);
};

}  // namespace orvane
}  // namespace zq

#endif  // ZQ_ORVANE_BUCKETNAME_H
