#include "Tree.h"

#include <algorithm>
#include <cstdio>

#include "Text.h"
#include "ValueText.h"
#include "ValueTypes.h"

namespace orvane_tool {

using zq::kel::AutoRef;
using zq::kel::StatusChain;
using zq::kel::WString;
using zq::orvane::IBucket;
using zq::orvane::IBucketValue;

void forEachValue(IBucket& bucket, const ValueVisit& visit) {
    const uint32_t handle = bucket.openEnumeration();
    WString name;
    AutoRef<IBucketValue> value;
    StatusChain status;
    status.clear();
    for (bool more = bucket.getFirstValue(handle, name, value); more;
         more = bucket.getNextValue(handle, name, value, status)) {
        visit(name, value);
    }
    bucket.closeEnumeration(handle);
    checkStatus(status, "reading the values of " +
                            std::string(zq::kel::NString(bucket.getFullName()).c_str()));
}

WString parentPath(const WString& path) {
    const size_t slash = path.rfind(L'/');
    if (slash == WString::npos || slash == 0) return WString(L"/");
    return path.substr(0, slash);
}

bool isChildLink(const IBucket& bucket, const WString& name, const IBucketValue& value) {
    if (value.getType() != zq::orvane::kDIGEST || name.length() < 2 || name[0] != L'/' ||
        name[name.length() - 1] == L'/') {
        return false;
    }
    if (zq::orvane::Digest(parentPath(name)) != bucket.getDigest()) return false;
    StatusChain status;
    status.clear();
    return value.getDigest(status) == zq::orvane::Digest(name) && status.isNotFatal();
}

void forEachDataValue(IBucket& bucket, const ValueVisit& visit) {
    forEachValue(bucket, [&](const WString& name, const AutoRef<IBucketValue>& value) {
        if (!isChildLink(bucket, name, *value)) visit(name, value);
    });
}

void printValueLines(IBucket& bucket, const char* indent) {
    forEachDataValue(bucket, [&](const WString& name, const AutoRef<IBucketValue>& value) {
        const char* type = typeName(value->getType());
        std::printf("%s%s (%s) = %s\n", indent, toUtf8(name).c_str(),
                    type != nullptr ? type : "unset", valueText(*value).c_str());
    });
}

std::vector<WString> childPaths(IBucket& bucket) {
    std::vector<WString> children;
    forEachValue(bucket, [&](const WString& name, const AutoRef<IBucketValue>& value) {
        if (isChildLink(bucket, name, *value)) children.push_back(name);
    });
    std::sort(children.begin(), children.end());
    return children;
}

namespace {

void walk(Session& session, IBucket& bucket, int depth,
          const std::function<void(IBucket&, int)>& visit) {
    visit(bucket, depth);
    for (const WString& child : childPaths(bucket)) {
        AutoRef<IBucket> found = session.find(child);
        if (found) walk(session, *found, depth + 1, visit);
    }
}

}  // namespace

void walkTree(Session& session, const WString& top,
              const std::function<void(IBucket& bucket, int depth)>& visit) {
    AutoRef<IBucket> bucket = session.get(top);
    walk(session, *bucket, 0, visit);
}

}  // namespace orvane_tool
