#ifndef ZQ_ORVANE_FOLDEDKEY_H
#define ZQ_ORVANE_FOLDEDKEY_H

#include <cstddef>
#include <cstdint>
#include <memory>

#include "zq/kel/StringBase.h"

namespace zq {
namespace orvane {

// A full name folded as the cases key it (each character through kel::foldLower),
// for a lookup: names of usual length need no block of their own.
class FoldedKey {
  public:
    explicit FoldedKey(const kel::WString& fullName);
    // A text already folded, with its hash: refers to `folded`, which must
    // outlive the key.
    FoldedKey(const kel::WString& folded, uint64_t hash);
    FoldedKey(const FoldedKey&) = delete;
    FoldedKey& operator=(const FoldedKey&) = delete;

    const wchar_t* text() const { return text_; }
    size_t length() const { return length_; }
    uint64_t hash() const { return hash_; }
    kel::WString toString() const { return kel::WString(text_, length_); }

    // The hash of a folded text, as hash() gives it.
    static uint64_t hashOf(const wchar_t* text, size_t length);

  private:
    static constexpr size_t kInline = 64;
    wchar_t inline_[kInline];
    std::unique_ptr<wchar_t[]> heap_;
    const wchar_t* text_;
    size_t length_;
    uint64_t hash_;
};

// Code-unit order of folded names, held (WString) or looked up (FoldedKey).
struct KeyOrder {
    using is_transparent = void;
    bool operator()(const kel::WString& a, const kel::WString& b) const { return a < b; }
    bool operator()(const kel::WString& a, const FoldedKey& b) const;
    bool operator()(const FoldedKey& a, const kel::WString& b) const;
};

}  // namespace orvane
}  // namespace zq

#endif  // ZQ_ORVANE_FOLDEDKEY_H
