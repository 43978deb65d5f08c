#ifndef ORVANE_TOOLS_SUBTREE_H
#define ORVANE_TOOLS_SUBTREE_H

#include <string>
#include <vector>

#include "Session.h"
#include "Tool.h"
#include "zq/kel/StringBase.h"

namespace orvane_tool {

// The request of mv or cp: a bucket (with its descendants) to a new name.
struct SubtreeCopy {
    zq::kel::WString from;
    zq::kel::WString to;
    bool recursive;  // cp without -r copies the bucket's values alone
};

// Where `source` goes, checked against the committed buckets before the
// registry is opened: SRC must exist (not found otherwise); DST is the new
// name, or, when it exists, the bucket it gets SRC as a child of, as the
// shell's mv and cp treat a directory; the new name must be free, outside
// SRC and under an existing parent (usage, not found).
SubtreeCopy planSubtreeCopy(const Globals& globals, const std::string& source,
                            const std::string& target, bool recursive);

// Makes the copy in the transaction; returns the full names copied from,
// parents first.
std::vector<zq::kel::WString> copySubtree(Session& session, Transaction& transaction,
                                          const SubtreeCopy& copy);

}  // namespace orvane_tool

#endif  // ORVANE_TOOLS_SUBTREE_H
