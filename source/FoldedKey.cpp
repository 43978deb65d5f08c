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

// Two code units per multiply, then a final mix: the hash only lives in
// memory, so it may change, and a lookup of a typical name spent a quarter
// of its time in a multiply per character.
uint64_t FoldedKey::hashOf(const wchar_t* text, size_t length) {
    constexpr uint64_t kMultiplier = 0x9E3779B97F4A7C15ull;
    uint64_t hash = 0xCBF29CE484222325ull ^ length;
    size_t i = 0;
    for (; i + 2 <= length; i += 2) {
        const uint64_t pair = static_cast<uint64_t>(static_cast<uint32_t>(text[i])) << 32 |
                              static_cast<uint32_t>(text[i + 1]);
        hash = (hash ^ pair) * kMultiplier;
        hash ^= hash >> 29;
    }
    if (i < length) {
        hash = (hash ^ static_cast<uint32_t>(text[i])) * kMultiplier;
    }
    return hash ^ (hash >> 32);
}

bool KeyOrder::operator()(const WString& a, const FoldedKey& b) const {
    return kel::codeUnitsBefore(a.c_str(), a.length(), b.text(), b.length());
}

bool KeyOrder::operator()(const FoldedKey& a, const WString& b) const {
    return kel::codeUnitsBefore(a.text(), a.length(), b.c_str(), b.length());
}

}  // namespace orvane
}  // namespace zq
