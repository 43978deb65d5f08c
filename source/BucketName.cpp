#include "source/BucketName.h"

namespace zq {
namespace orvane {

using kel::WString;

namespace {

// [begin, end) of the last non-empty piece; begin == end when there is none.
void lastPiece(const WString& fullName, size_t& begin, size_t& end) {
    end = fullName.length();
    while (end > 0 && fullName[end - 1] == BucketName::kSeparator) {
        --end;
    }
    begin = end;
    while (begin > 0 && fullName[begin - 1] != BucketName::kSeparator) {
        --begin;
    }
}

}  // namespace

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

}  // namespace orvane
}  // namespace zq
