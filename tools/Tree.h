#ifndef ORVANE_TOOLS_TREE_H
#define ORVANE_TOOLS_TREE_H

#include <functional>
#include <vector>

#include "Session.h"
#include "zq/orvane/Orvane.h"

namespace orvane_tool {

using ValueVisit = std::function<void(const zq::kel::WString& name,
                                      const zq::kel::AutoRef<zq::orvane::IBucketValue>& value)>;

// Every value of the bucket in its order (names compare case-insensitively).
void forEachValue(zq::orvane::IBucket& bucket, const ValueVisit& visit);

// "/a" of "/a/b", "/" of "/a" and of "/".
zq::kel::WString parentPath(const zq::kel::WString& path);

// A child link is the manager's, not the user's: a kDIGEST value named by a
// child's full name that holds the digest of that name.
bool isChildLink(const zq::orvane::IBucket& bucket, const zq::kel::WString& name,
                 const zq::orvane::IBucketValue& value);

// The data values only, child links left out.
void forEachDataValue(zq::orvane::IBucket& bucket, const ValueVisit& visit);

// One "name (type) = value" line for each data value, the format of get
// and dump.
void printValueLines(zq::orvane::IBucket& bucket, const char* indent);

// Full names of the linked children, in code-unit order.
std::vector<zq::kel::WString> childPaths(zq::orvane::IBucket& bucket);

// The bucket and its descendants, parents before children, each child
// subtree in name order; links to missing buckets are passed over.
void walkTree(Session& session, const zq::kel::WString& top,
              const std::function<void(zq::orvane::IBucket& bucket, int depth)>& visit);

}  // namespace orvane_tool

#endif  // ORVANE_TOOLS_TREE_H
