#include "source/BucketName.h"

#include "zq/orvane/Digest.h"
#include "zq/orvane/StatusCodes.h"
#include "zq/orvane/ValueType.h"

namespace zq {
namespace orvane {

using kel::WString;

void BucketName::lastPiece(const WString& fullName, size_t& begin, size_t& end) {
    end = fullName.length();
    while (end > 0 && fullName[end - 1] == BucketName::kSeparator) {
        --end;
    }
    begin = end;
    while (begin > 0 && fullName[begin - 1] != BucketName::kSeparator) {
        --begin;
    }
}

WString BucketName::shortName(const WString& fullName) {
    size_t begin;
    size_t end;
    lastPiece(fullName, begin, end);
    return fullName.substr(begin, end - begin);
}

WString BucketName::parentName(const WString& fullName) {
    size_t begin;
    size_t end;
    lastPiece(fullName, begin, end);
    WString parent;
    parent.reserve(begin + 1);
    for (size_t at = 0; at < begin;) {
        if (fullName[at] == kSeparator) {
            ++at;
            continue;
        }
        size_t stop = at;
        while (stop < begin && fullName[stop] != kSeparator) {
            ++stop;
        }
        parent += kSeparator;
        parent.append(fullName.c_str() + at, stop - at);
        at = stop;
    }
    if (parent.empty()) {
        parent += kSeparator;
    }
    return parent;
}

WString BucketName::childName(const WString& fullName, const WString& childName) {
    WString child(fullName);
    if (!(fullName.length() == 1 && fullName[0] == kSeparator)) {
        child += kSeparator;
    }
    child += childName;
    return child;
}

bool BucketName::isWellFormed(const WString& fullName) {
    const size_t length = fullName.length();
    if (length == 0 || fullName[0] != kSeparator) return false;
    if (length == 1) return true;
    // No early exit: every lookup checks its name, and this loop vectorises.
    const wchar_t* text = fullName.c_str();
    bool doubled = false;
    for (size_t i = 1; i < length; ++i) {
        doubled |= (text[i] == kSeparator) & (text[i - 1] == kSeparator);
    }
    return !doubled && text[length - 1] != kSeparator;
}

bool BucketName::check(const WString& fullName, kel::StatusChain& status) {
    if (isWellFormed(fullName)) return true;
    status.setCode(status::kBadBucketName);
    WString message(L"\"");
    message += fullName;
    message += L"\" is not a bucket name: \"/\" or \"/name/name...\" is";
    status.setMessage(message);
    return false;
}

bool BucketName::isLinkName(const WString& valueName) {
    return !valueName.empty() && valueName[0] == kSeparator;
}

bool BucketName::isLinkTo(const WString& childName, const IBucketValue& value) {
    if (value.getType() != kDIGEST) return false;
    kel::StatusChain status;
    status.clear();
    const Digest held = value.getDigest(status);
    return status.isNotFatal() && held == Digest(childName);
}

}  // namespace orvane
}  // namespace zq
