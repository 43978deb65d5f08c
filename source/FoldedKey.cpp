#include "source/FoldedKey.h"

#include "kel/CaseFold.h"

namespace zq {
namespace orvane {

using kel::WString;

FoldedKey::FoldedKey(const WString& fullName) : text_(inline_), length_(fullName.length()) {
    wchar_t* out = inline_;
    if (length_ > kInline) {
        heap_.reset(new wchar_t[length_]);
        out = heap_.get();
        text_ = out;
    }
    const wchar_t* in = fullName.c_str();
    for (size_t i = 0; i < length_; ++i) {
        out[i] = kel::foldLower(in[i]);
    }
    hash_ = hashOf(text_, length_);
}

FoldedKey::FoldedKey(const WString& folded, uint64_t hash)
    : text_(folded.c_str()), length_(folded.length()), hash_(hash) {}

// FNV-1a over the code units.
uint64_t FoldedKey::hashOf(const wchar_t* text, size_t length) {
    uint64_t hash = 14695981039346656037ull;
    for (size_t i = 0; i < length; ++i) {
        hash = (hash ^ static_cast<uint32_t>(text[i])) * 1099511628211ull;
    }
    return hash;
}

bool KeyOrder::operator()(const WString& a, const FoldedKey& b) const {
    return kel::codeUnitsBefore(a.c_str(), a.length(), b.text(), b.length());
}

bool KeyOrder::operator()(const FoldedKey& a, const WString& b) const {
    return kel::codeUnitsBefore(a.text(), a.length(), b.c_str(), b.length());
}

}  // namespace orvane
}  // namespace zq
