#include "Subtree.h"

#include "StoreFiles.h"
#include "Text.h"
#include "Tree.h"

namespace orvane_tool {

using zq::kel::AutoRef;
using zq::kel::StatusChain;
using zq::kel::WString;
using zq::orvane::Digest;
using zq::orvane::IBucket;

namespace {

// Names fold as the library folds them: compared by digest.
bool sameOrInside(const WString& path, const WString& top) {
    const Digest wanted(top);
    for (WString up = path;; up = parentPath(up)) {
        if (Digest(up) == wanted) return true;
        if (up.length() == 1) return false;
    }
}

WString lastName(const WString& path) { return path.substr(path.rfind(L'/') + 1); }

WString childOf(const WString& parent, const WString& name) {
    WString child = parent;
    if (parent.length() > 1) child += L'/';
    child += name;
    return child;
}

}  // namespace

SubtreeCopy planSubtreeCopy(const Globals& globals, const std::string& source,
                            const std::string& target, bool recursive) {
    SubtreeCopy copy{bucketPath(source), bucketPath(target), recursive};
    const OfflineView view(dataDirectory(globals));
    AutoRef<IBucket> from = view.find(copy.from);
    if (!from) throw ToolError(kExitNotFound, "no bucket " + source);
    copy.from = from->getFullName();
    if (view.exists(copy.to)) copy.to = childOf(copy.to, lastName(copy.from));
    const std::string to = toUtf8(copy.to);
    if (recursive && sameOrInside(copy.to, copy.from)) {
        throw ToolError(kExitUsage, "cannot put " + source + " inside itself (" + to + ")");
    }
    if (view.exists(copy.to)) throw ToolError(kExitUsage, to + " exists already");
    if (!view.exists(parentPath(copy.to))) {
        throw ToolError(kExitNotFound,
                        "cannot make " + to + ": " + describeStatus(zq::orvane::status::kNoParent));
    }
    return copy;
}

std::vector<WString> copySubtree(Session& session, Transaction& transaction,
                                 const SubtreeCopy& copy) {
    std::vector<WString> copied;
    const size_t cut = copy.from.length();
    const auto copyOne = [&](IBucket& bucket, int depth) {
        if (depth > 0 && !copy.recursive) return;
        const WString from = bucket.getFullName();
        WString to = copy.to;
        to += from.substr(cut);
        StatusChain status;
        status.clear();
        AutoRef<IBucket> made = session.manager().createBucket(to, false, status);
        checkStatus(status, "making bucket " + toUtf8(to));
        forEachDataValue(
            bucket, [&](const WString& name, const AutoRef<zq::orvane::IBucketValue>& value) {
                made->setValue(name, value, status, true);
                checkStatus(status,
                            "copying value " + quotedText(toUtf8(name)) + " of " + toUtf8(from));
            });
        transaction.put(made, "storing bucket " + toUtf8(to));
        copied.push_back(from);
    };
    walkTree(session, copy.from, copyOne);
    return copied;
}

}  // namespace orvane_tool
