#ifndef ZQ_KEL_CASEFOLD_H
#define ZQ_KEL_CASEFOLD_H

#include <cstddef>
#include <cstdint>

namespace zq {
namespace kel {

// The simple lower- and upper-case mappings of the Unicode character database,
// built in (kel/CaseTable.cpp). Digests and stored orders depend on them, so
// they must not follow the process's locale as towlower and towupper do: a
// process in the "C" locale and one in a UTF-8 locale fold every name alike.
// A value without a mapping, including anything past U+10FFFF, is returned
// unchanged. Safe from any thread.
wchar_t foldLowerTable(wchar_t ch);
wchar_t foldUpperTable(wchar_t ch);

// Nearly every name is ASCII: that case stays inline, without a call.
inline wchar_t foldLower(wchar_t ch) {
    if (static_cast<uint32_t>(ch) < 0x80) {
        return ch >= L'A' && ch <= L'Z' ? static_cast<wchar_t>(ch + (L'a' - L'A')) : ch;
    }
    return foldLowerTable(ch);
}

inline wchar_t foldUpper(wchar_t ch) {
    if (static_cast<uint32_t>(ch) < 0x80) {
        return ch >= L'a' && ch <= L'z' ? static_cast<wchar_t>(ch - (L'a' - L'A')) : ch;
    }
    return foldUpperTable(ch);
}

namespace casetable {

// `count` code points from `first`, consecutive or (alternate) every other
// one, each mapping to itself plus `delta`. Runs are sorted by `first` and
// never interleave. Eight bytes each: the two tables take a few kilobytes.
struct CaseRun {
    uint32_t first : 21;
    uint32_t alternate : 1;
    uint32_t count : 10;
    int32_t delta;
};

extern const CaseRun kLower[];
extern const size_t kLowerCount;
extern const CaseRun kUpper[];
extern const size_t kUpperCount;

}  // namespace casetable
}  // namespace kel
}  // namespace zq

#endif  // ZQ_KEL_CASEFOLD_H
