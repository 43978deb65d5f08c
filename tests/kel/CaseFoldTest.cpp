#include "kel/CaseFold.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <clocale>
#include <cstdio>
#include <cwctype>
#include <set>

#include "support/Child.h"
#include "zq/kel/StringBase.h"

namespace zq {
namespace kel {
namespace {

constexpr int kNoLocale = 77;

struct Mapping {
    uint32_t ch;
    uint32_t lower;
    uint32_t upper;
    const char* why;
};

const Mapping kMappings[] = {
    {0x41, 0x61, 0x41, "A"},
    {0x7A, 0x7A, 0x5A, "z"},
    {0x40, 0x40, 0x40, "@, just below A"},
    {0x5B, 0x5B, 0x5B, "[, just past Z"},
    {0xC4, 0xE4, 0xC4, "A with diaeresis"},
    {0xE4, 0xE4, 0xC4, "a with diaeresis"},
    {0xD7, 0xD7, 0xD7, "multiplication sign, inside the Latin-1 run"},
    {0xDF, 0xDF, 0xDF, "sharp s: no simple upper case"},
    {0x1E9E, 0xDF, 0x1E9E, "capital sharp s"},
    {0xFF, 0xFF, 0x178, "y with diaeresis, whose capital is far away"},
    {0x100, 0x101, 0x100, "first of an alternating run"},
    {0x101, 0x101, 0x100, "its partner"},
    {0x130, 0x69, 0x130, "capital dotted I lowers to plain i"},
    {0x131, 0x131, 0x49, "dotless i"},
    {0x1C4, 0x1C6, 0x1C4, "DZ with caron"},
    {0x1C5, 0x1C6, 0x1C4, "Dz with caron, titlecase"},
    {0x1C6, 0x1C6, 0x1C4, "dz with caron"},
    {0x3A3, 0x3C3, 0x3A3, "capital sigma"},
    {0x3C2, 0x3C2, 0x3A3, "final sigma stays itself in lower case"},
    {0x3C3, 0x3C3, 0x3A3, "small sigma"},
    {0x401, 0x451, 0x401, "Cyrillic IO"},
    {0x212A, 0x6B, 0x212A, "Kelvin sign"},
    {0x2126, 0x3C9, 0x2126, "Ohm sign"},
    {0xA7AE, 0x26A, 0xA7AE, "capital small-capital I, a delta beyond 16 bits"},
    {0xFF21, 0xFF41, 0xFF21, "fullwidth A"},
    {0x10400, 0x10428, 0x10400, "Deseret, beyond the BMP"},
    {0x1E921, 0x1E943, 0x1E921, "the last Adlam capital"},
    {0x4E00, 0x4E00, 0x4E00, "a letter without case"},
    {0x10FFFF, 0x10FFFF, 0x10FFFF, "the last code point"},
    {0x110000, 0x110000, 0x110000, "past Unicode"},
    {0x7FFFFFFF, 0x7FFFFFFF, 0x7FFFFFFF, "the largest encodable value"},
    {0xFFFFFFFF, 0xFFFFFFFF, 0xFFFFFFFF, "negative where wchar_t is signed"},
};

TEST(CaseFoldTest, SimpleMappingsOfUnicode) {
    for (const Mapping& m : kMappings) {
        const auto ch = static_cast<wchar_t>(m.ch);
        EXPECT_EQ(static_cast<uint32_t>(foldLower(ch)), m.lower) << m.why;
        EXPECT_EQ(static_cast<uint32_t>(foldUpper(ch)), m.upper) << m.why;
    }
}

TEST(CaseFoldTest, TablesAreSortedRunsThatNeverInterleave) {
    // The lookup's binary search finds one candidate run only if this holds.
    struct Table {
        const casetable::CaseRun* runs;
        size_t count;
    };
    for (const Table& t : {Table{casetable::kLower, casetable::kLowerCount},
                           Table{casetable::kUpper, casetable::kUpperCount}}) {
        ASSERT_GT(t.count, 100u);
        uint32_t next = 0;
        for (size_t i = 0; i < t.count; ++i) {
            const casetable::CaseRun& r = t.runs[i];
            EXPECT_GE(r.first, next) << i;
            EXPECT_GT(r.count, 0u) << i;
            next = r.first + (r.alternate ? 2 : 1) * (r.count - 1) + 1;
        }
        EXPECT_LE(next, 0x110000u);
    }
}

// glibc 2.36 (Debian 12) and unicode-data 15.0 agree on every code point.
// Another C library may know another Unicode version: where its mapping
// differs, the built-in table wins (the digests on disk depend on it), and
// the code point belongs here with the reason.
const std::set<uint32_t> kLibraryMayDiffer = {};

// In a child: the count of code points where towlower or towupper in a UTF-8
// locale and the built-in mappings differ.
int differencesFromTheCLibrary() {
    if (std::setlocale(LC_ALL, "C.UTF-8") == nullptr) {
        return kNoLocale;
    }
    int differences = 0;
    for (uint32_t code = 0; code <= 0x10FFFF; ++code) {
        const auto ch = static_cast<wchar_t>(code);
        const auto lower = static_cast<wchar_t>(std::towlower(static_cast<wint_t>(ch)));
        const auto upper = static_cast<wchar_t>(std::towupper(static_cast<wint_t>(ch)));
        if ((lower != foldLower(ch) || upper != foldUpper(ch)) &&
            kLibraryMayDiffer.count(code) == 0) {
            if (++differences <= 10) {
                std::fprintf(stderr, "U+%04X: C library %04X/%04X, built in %04X/%04X\n", code,
                             static_cast<unsigned>(lower), static_cast<unsigned>(upper),
                             static_cast<unsigned>(foldLower(ch)),
                             static_cast<unsigned>(foldUpper(ch)));
            }
        }
    }
    return differences > 0 ? 1 : 0;
}

TEST(CaseFoldTest, EqualsTheCLibraryInAUtf8LocaleForEveryCodePoint) {
    const int result = test::inChild(differencesFromTheCLibrary);
    if (result == kNoLocale) {
        GTEST_SKIP() << "no C.UTF-8 locale here";
    }
    EXPECT_EQ(result, 0);
}

// towlower in the "C" locale leaves everything but ASCII alone; the fold
// must not follow it.
TEST(CaseFoldTest, FoldsBeyondAsciiInTheCLocale) {
    const int result = test::inChild([] {
        if (std::setlocale(LC_ALL, "C") == nullptr) return 2;
        if (foldLower(L'\u00C4') != L'\u00E4' || foldUpper(L'\u03C3') != L'\u03A3') return 3;
        return equalsNoCase(L"\u00C4RGER", L"\u00E4rger") ? 0 : 4;
    });
    EXPECT_EQ(result, 0);
}

}  // namespace
}  // namespace kel
}  // namespace zq
