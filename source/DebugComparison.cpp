#include "source/DebugComparison.h"

#include <set>
#include <vector>

#include "kel/osdep/File.h"
#include "kel/osdep/FileSystem.h"
#include "kel/osdep/Path.h"
#include "source/SegmentFormat.h"
#include "source/TouchFile.h"
#include "zq/orvane/Bucket.h"
#include "zq/orvane/StatusCodes.h"

namespace zq {
namespace orvane {

namespace {

using kel::AutoRef;
using kel::StatusChain;
using kel::WString;
using kel::osdep::FileSystem;

std::vector<std::string> linesOf(const std::string& text) {
    std::vector<std::string> lines;
    size_t start = 0;
    while (start < text.size()) {
        const size_t end = text.find('\n', start);
        if (end == std::string::npos) {
            lines.push_back(text.substr(start));
            break;
        }
        lines.push_back(text.substr(start, end - start));
        start = end + 1;
    }
    return lines;
}

bool bothHold(const std::string& a, const std::string& b, const char* label) {
    return a.find(label) != std::string::npos && b.find(label) != std::string::npos;
}

bool readWhole(FileSystem& fs, const WString& path, std::string& out) {
    if (!fs.fileExists(path)) {
        return false;
    }
    std::unique_ptr<kel::osdep::File> file = fs.open(path, FileSystem::kRead);
    out.resize(segment::lengthInMemory(file->size()));
    if (!out.empty()) {
        file->readFully(0, &out[0], out.size());
    }
    return true;
}

}  // namespace

DebugComparison::DebugComparison(IBucketManager& manager, FileSystem& fs,
                                 const WString& dataDirectory, const WString& referenceOption,
                                 const Options* options)
    : manager_(manager),
      fs_(fs),
      directory_(dataDirectory),
      reference_(referenceName(referenceOption)),
      options_(options) {}

WString DebugComparison::referenceName(const WString& option) {
    return option.empty() ? WString(L"comparator.txt") : option;
}

// Depth first from the root, children in the order their links are stored;
// a digest met twice is not walked again.
std::string DebugComparison::dump(StatusChain& status) {
    std::string text;
    std::vector<AutoRef<IBucket>> stack;
    std::set<DigestKey> seen;
    AutoRef<IBucket> root = manager_.getBucket(WString(L"/"), status);
    if (root) stack.push_back(root);
    while (!stack.empty() && status.isNotFatal()) {
        AutoRef<IBucket> bucket = stack.back();
        stack.pop_back();
        if (!seen.insert(keyOf(bucket->getDigest())).second) continue;
        text += kel::NString(static_cast<Bucket*>(bucket.get())->toString()).c_str();
        text += '\n';
        std::vector<AutoRef<IBucket>> children;
        const uint32_t handle = bucket->openEnumeration();
        Digest child;
        for (bool more = bucket->getFirstChild(handle, child); more;
             more = bucket->getNextChild(handle, child, status)) {
            AutoRef<IBucket> found = manager_.getBucketByDigest(child, status);
            if (status.getCode() == status::kBucketNotFound) status.clear();
            if (found) children.push_back(found);
        }
        bucket->closeEnumeration(handle);
        stack.insert(stack.end(), children.rbegin(), children.rend());
    }
    return text;
}

void DebugComparison::write(const WString& name, const std::string& content) {
    writeFileAtomically(fs_, kel::osdep::join(directory_, name), content, options_);
}

void DebugComparison::writeReference(StatusChain& status) {
    try {
        const std::string text = dump(status);
        if (status.isNotFatal()) write(reference_, text);
    } catch (...) {
        status.setCode(status::kFileSystem);
    }
}

bool DebugComparison::sameDump(const std::string& reference, const std::string& fresh) {
    const std::vector<std::string> a = linesOf(reference);
    const std::vector<std::string> b = linesOf(fresh);
    if (a.size() != b.size()) return false;
    for (size_t i = 0; i < a.size(); ++i) {
        if (a[i] != b[i] && !bothHold(a[i], b[i], "version_ ") &&
            !bothHold(a[i], b[i], "modified_ ")) {
            return false;
        }
    }
    return true;
}

void DebugComparison::compare(StatusChain& status) {
    try {
        WString freshName(L"temp_");
        freshName += reference_;
        const std::string fresh = dump(status);
        if (status.isFatal()) return;
        write(freshName, fresh);
        std::string reference;
        // Without a reference there is nothing to pass: that counts as failed.
        const bool passed = readWhole(fs_, kel::osdep::join(directory_, reference_), reference) &&
                            sameDump(reference, fresh);
        write(WString(L"debugResults.txt"),
              passed ? "file compare passed\r\n" : "file compare failed\r\n");
    } catch (...) {
        status.setCode(status::kFileSystem);
    }
}

}  // namespace orvane
}  // namespace zq
