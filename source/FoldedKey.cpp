#include "source/FoldedKey.h"

#include "kel/CaseFold.h"

namespace zq {
namespace orvane {

using kel::WString;

namespace {

// ASCII names (nearly all) fold without a branch per character, so the loop
// vectorises; anything else goes through the full table after.
void foldInto(const wchar_t* in, size_t length, wchar_t* out) {
    uint32_t seen = 0;
    for (size_t i = 0; i < length; ++i) {
        const uint32_t ch = static_cast<uint32_t>(in[i]);
        seen |= ch;
        out[i] = static_cast<wchar_t>(ch - L'A' < 26u ? ch + (L'a' - L'A') : ch);
    }
    if (seen >= 0x80) {
        for (size_t i = 0; i < length; ++i) {
            out[i] = kel::foldLower(in[i]);
        }
    }
}

uint64_t pairAt(const wchar_t* text) {
    return static_cast<uint64_t>(static_cast<uint32_t>(text[0])) << 32 |
           static_cast<uint32_t>(text[1]);
}

}  // namespace

FoldedKey::FoldedKey(const WString& fullName) : text_(inline_), length_(fullName.length()) {
    wchar_t* out = inline_;
    if (length_ > kInline) {
        heap_.reset(new wchar_t[length_]);
        out = heap_.get();
        text_ = out;
    }
    foldInto(fullName.c_str(), length_, out);
    hash_ = hashOf(text_, length_);
}

FoldedKey::FoldedKey(const WString& folded, uint64_t hash)
    : text_(folded.c_str()), length_(folded.length()), hash_(hash) {}

// Two lanes of two code units each: the hash only lives in memory, so it may
// change, and a chain of one multiply per unit was a quarter of a lookup.
uint64_t FoldedKey::hashOf(const wchar_t* text, size_t length) {
    constexpr uint64_t kA = 0x9E3779B97F4A7C15ull;
    constexpr uint64_t kB = 0xC2B2AE3D27D4EB4Full;
    uint64_t a = 0xCBF29CE484222325ull ^ length;
    uint64_t b = 0x27D4EB2F165667C5ull;
    size_t i = 0;
    for (; i + 4 <= length; i += 4) {
        a = (a ^ pairAt(text + i)) * kA;
        b = (b ^ pairAt(text + i + 2)) * kB;
        a ^= a >> 29;
        b ^= b >> 31;
    }
    if (i + 2 <= length) {
        a = (a ^ pairAt(text + i)) * kA;
        i += 2;
    }
    if (i < length) {
        b = (b ^ static_cast<uint32_t>(text[i])) * kB;
    }
    uint64_t hash = (a ^ (b << 32 | b >> 32)) * kA;
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
