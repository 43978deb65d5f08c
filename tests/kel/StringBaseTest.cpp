#include "zq/kel/StringBase.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "zq/kel/Exception.h"

namespace zq {
namespace kel {
namespace {

using Bytes = std::vector<unsigned char>;

Bytes storedForm(const WString& s) {
    Bytes out(s.serializationSize());
    unsigned char* cursor = out.data();
    s.serialize(cursor, out.data() + out.size());
    EXPECT_EQ(cursor, out.data() + out.size());
    return out;
}

WString readStored(const Bytes& in) {
    WString s;
    const unsigned char* cursor = in.data();
    s.deserialize(cursor, in.data() + in.size());
    EXPECT_EQ(cursor, in.data() + in.size());
    return s;
}

Bytes withLength(const Bytes& utf8) {
    Bytes out(4 + utf8.size(), 0);
    out[0] = static_cast<unsigned char>(utf8.size());
    std::copy(utf8.begin(), utf8.end(), out.begin() + 4);
    return out;
}

WString fromUtf8(const Bytes& utf8) {
    const std::string text(utf8.begin(), utf8.end());
    return WString(text.c_str());
}

TEST(StringBaseTest, LayoutIsThreePointersAndAlwaysTerminated) {
    EXPECT_EQ(sizeof(WString), 3 * sizeof(void*));
    EXPECT_EQ(sizeof(NString), 3 * sizeof(void*));
    WString empty;
    ASSERT_NE(empty.c_str(), nullptr);
    EXPECT_EQ(empty.c_str()[0], L'\0');
    EXPECT_EQ(WString(static_cast<const wchar_t*>(nullptr)), empty);
    WString s(L"abc");
    s += L"def";
    EXPECT_EQ(s.length(), 6u);
    EXPECT_EQ(s.c_str()[6], L'\0');
    EXPECT_GE(s.capacity(), s.length());
}

TEST(StringBaseTest, MovedFromStringStaysUsable) {
    WString a(L"moved");
    WString b(std::move(a));
    EXPECT_EQ(b, WString(L"moved"));
    EXPECT_TRUE(a.empty());          // NOLINT(bugprone-use-after-move)
    EXPECT_EQ(a.c_str()[0], L'\0');  // NOLINT(bugprone-use-after-move)
    a += L"again";
    EXPECT_EQ(a, WString(L"again"));
    WString c;
    c = std::move(b);
    b = c;
    EXPECT_EQ(b, c);
    b.clear();
    WString d(std::move(b));
    b.clear();
    EXPECT_TRUE(b.empty());
}

// One code point of each encoded length the decoder reads back, at both ends
// of its range, plus the cases valid text never holds but the format allows.
TEST(StringBaseTest, EveryReadableCodePointClassRoundTrips) {
    const std::pair<uint32_t, Bytes> cases[] = {
        {0x41, {0x41}},
        {0x7F, {0x7F}},
        {0x80, {0xC2, 0x80}},
        {0x7FF, {0xDF, 0xBF}},
        {0x800, {0xE0, 0xA0, 0x80}},
        {0xD800, {0xED, 0xA0, 0x80}},  // surrogates pass as any value
        {0xFFFF, {0xEF, 0xBF, 0xBF}},
        {0x10000, {0xF0, 0x90, 0x80, 0x80}},
        {0x10FFFF, {0xF4, 0x8F, 0xBF, 0xBF}},
        {0x110000, {0xF4, 0x90, 0x80, 0x80}},  // no limit at 0x10FFFF
        {0x1FFFFF, {0xF7, 0xBF, 0xBF, 0xBF}},
        {0x4000000, {0xFC, 0x84, 0x80, 0x80, 0x80, 0x80}},
        {0x7FFFFFFF, {0xFD, 0xBF, 0xBF, 0xBF, 0xBF, 0xBF}},
    };
    for (const auto& [codePoint, utf8] : cases) {
        const wchar_t text[] = {static_cast<wchar_t>(codePoint), 0};
        const WString wide(text);
        EXPECT_EQ(storedForm(wide), withLength(utf8)) << std::hex << codePoint;
        EXPECT_EQ(readStored(withLength(utf8)), wide) << std::hex << codePoint;
        const NString narrow(wide);
        EXPECT_EQ(Bytes(narrow.begin(), narrow.end()), utf8) << std::hex << codePoint;
        EXPECT_EQ(WString(narrow), wide) << std::hex << codePoint;
    }
}

TEST(StringBaseTest, FiveByteFormIsWrittenButNotReadBack) {
    const wchar_t text[] = {0x200000, 0};
    const Bytes written = storedForm(WString(text));
    EXPECT_EQ(written, withLength({0xF8, 0x88, 0x80, 0x80, 0x80}));
    // Read as the start of a six-byte sequence, one byte short.
    EXPECT_THROW(readStored(written), exception::InvalidSequence);
    // With a sixth continuation byte it reads as a different value.
    const WString misread = readStored(withLength({0xF8, 0x88, 0x80, 0x80, 0x80, 0x80}));
    ASSERT_EQ(misread.length(), 1u);
    EXPECT_NE(static_cast<uint32_t>(misread[0]), 0x200000u);
}

TEST(StringBaseTest, ValuesWithTheTopBitSetBecomeAQuestionMark) {
    const wchar_t text[] = {L'a', static_cast<wchar_t>(0x80000000u), L'b', 0};
    EXPECT_EQ(storedForm(WString(text)), withLength({'a', '?', 'b'}));
    EXPECT_STREQ(NString(WString(text)).c_str(), "a?b");
}

TEST(StringBaseTest, EveryInvalidSequenceClassIsRejected) {
    const Bytes invalid[] = {
        {0x80},                                // stray continuation byte
        {0xBF},                                //
        {0xC0, 0xAF},                          // overlong two-byte forms
        {0xC1, 0xBF},                          //
        {0xC3, 0x41},                          // missing continuation
        {0xC3},                                // cut off
        {0xE0, 0x9F, 0xBF},                    // overlong three-byte form
        {0xE2, 0x82},                          // cut off
        {0xE2, 0x28, 0xA1},                    // bad second byte
        {0xE2, 0x82, 0x28},                    // bad third byte
        {0xF0, 0x8F, 0xBF, 0xBF},              // overlong four-byte form
        {0xF1, 0x80, 0x80, 0x41},              // bad fourth byte
        {0xFC, 0x83, 0xBF, 0xBF, 0xBF, 0xBF},  // overlong six-byte form
        {0xF8, 0x80, 0x80, 0x80, 0x80, 0x80},  //
        {0xFD, 0xBF, 0xBF, 0xBF, 0xBF, 0x41},  // bad last byte
        {0xFE},                                // never a lead byte
        {0xFF},                                //
        {'o', 'k', 0xC2},                      // valid text, then cut off
    };
    for (const Bytes& utf8 : invalid) {
        EXPECT_THROW(readStored(withLength(utf8)), exception::InvalidSequence) << int(utf8[0]);
        EXPECT_THROW(fromUtf8(utf8), exception::InvalidSequence) << int(utf8[0]);
    }
}

TEST(StringBaseTest, StoredFormBytes) {
    EXPECT_EQ(storedForm(WString()), (Bytes{0, 0, 0, 0}));
    EXPECT_EQ(storedForm(WString(L"\u00e9")), (Bytes{2, 0, 0, 0, 0xC3, 0xA9}));
    EXPECT_EQ(storedForm(WString(L"/a")), (Bytes{2, 0, 0, 0, '/', 'a'}));
    EXPECT_EQ(readStored(Bytes{0, 0, 0, 0}), WString());

    // A narrow string is stored byte for byte, whatever the bytes are.
    const char raw[] = {'x', static_cast<char>(0xFF), 0};
    const NString narrow(raw);
    Bytes out(narrow.serializationSize());
    unsigned char* cursor = out.data();
    narrow.serialize(cursor, out.data() + out.size());
    EXPECT_EQ(out, (Bytes{2, 0, 0, 0, 'x', 0xFF}));
    NString back;
    const unsigned char* in = out.data();
    back.deserialize(in, out.data() + out.size());
    EXPECT_EQ(back, narrow);
}

TEST(StringBaseTest, StoredFormChecksLengthsBeforeTouchingAnything) {
    // The length says 5, 4 bytes remain.
    const Bytes shortRecord{5, 0, 0, 0, 'a', 'b', 'c', 'd'};
    WString kept(L"kept");
    const unsigned char* in = shortRecord.data();
    EXPECT_THROW(kept.deserialize(in, shortRecord.data() + shortRecord.size()),
                 exception::DeserializationError);
    EXPECT_EQ(in, shortRecord.data());
    EXPECT_EQ(kept, WString(L"kept"));

    const Bytes noLength{1, 0, 0};
    in = noLength.data();
    EXPECT_THROW(kept.deserialize(in, noLength.data() + noLength.size()),
                 exception::DeserializationError);

    // A huge length must be refused, not allocated.
    const Bytes huge{0xFF, 0xFF, 0xFF, 0xFF, 'a'};
    in = huge.data();
    EXPECT_THROW(kept.deserialize(in, huge.data() + huge.size()), exception::DeserializationError);

    Bytes space(5, 0xEE);
    unsigned char* out = space.data();
    EXPECT_THROW(WString(L"\u00e9\u00e9").serialize(out, space.data() + space.size()),
                 exception::BufferOverflow);
    EXPECT_EQ(out, space.data());
    EXPECT_EQ(space, Bytes(5, 0xEE));
}

TEST(StringBaseTest, OffsetsBeyondTheLengthThrowOutOfRange2) {
    const WString s(L"abc");
    EXPECT_EQ(s.substr(1), WString(L"bc"));
    EXPECT_EQ(s.substr(3), WString());
    EXPECT_EQ(s.substr(0, 2), WString(L"ab"));
    try {
        (void)s.substr(4);
        ADD_FAILURE() << "no throw";
    } catch (const exception::OutOfRange2& e) {
        EXPECT_STREQ(e.what(), "Out of range: String offset out of range");
    }
    WString t(L"ad");
    t.insert(1, WString(L"bc"));
    EXPECT_EQ(t, WString(L"abcd"));
    t.insert(4, WString(L"!"));
    EXPECT_EQ(t, WString(L"abcd!"));
    EXPECT_THROW(t.insert(6, WString(L"x")), exception::OutOfRange);
}

TEST(StringBaseTest, ImpossibleLengthsThrowBoundExceeded2BeforeAllocating) {
    WString s(L"abc");
    try {
        s.append(s.c_str(), static_cast<size_t>(-1) / 2);
        ADD_FAILURE() << "no throw";
    } catch (const exception::BoundExceeded2& e) {
        EXPECT_STREQ(e.what(),
                     "A request was made that would exceed the bounds: Resulting string too large");
    }
    EXPECT_EQ(s, WString(L"abc"));
    EXPECT_THROW(s.reserve(static_cast<size_t>(-1) / 4), exception::BoundExceeded);
    EXPECT_THROW(WString::fromInt(1, 37), exception::InvalidArgument);
}

TEST(StringBaseTest, FindAndPrefix) {
    const WString path(L"/net/eth0");
    EXPECT_EQ(path.find(L'/'), 0u);
    EXPECT_EQ(path.find(L'/', 1), 4u);
    EXPECT_EQ(path.rfind(L'/'), 4u);
    EXPECT_EQ(path.find(L'x'), WString::npos);
    EXPECT_EQ(WString().rfind(L'/'), WString::npos);
    EXPECT_TRUE(path.startsWith(WString(L"/net")));
    EXPECT_FALSE(path.startsWith(WString(L"/net/eth00")));
}

TEST(StringBaseTest, CaseInsensitiveComparisonFoldsToSimpleUpperCase) {
    EXPECT_TRUE(equalsNoCase(L"TRUE", L"true"));
    EXPECT_TRUE(equalsNoCase(L"True", L"tRUE"));
    EXPECT_FALSE(equalsNoCase(L"true", L"true "));
    EXPECT_TRUE(equalsNoCase(L"\u00C4rger", L"\u00E4RGER"));
    EXPECT_TRUE(equalsNoCase(L"\u01C5", L"\u01C6"));   // titlecase and lower case
    EXPECT_TRUE(equalsNoCase(L"\u03C2", L"\u03C3"));   // both sigmas are one capital
    EXPECT_FALSE(equalsNoCase(L"\u00DF", L"SS"));      // sharp s has no simple capital
    EXPECT_LT(compareNoCase(L"speed", L"SPEEDS"), 0);  // a prefix sorts first
    EXPECT_GT(compareNoCase(L"b", L"A"), 0);
    EXPECT_EQ(compareNoCase(L"", L""), 0);
}

TEST(StringBaseTest, OrderIsPlainCodeUnitOrder) {
    EXPECT_LT(WString(L"B"), WString(L"a"));
    EXPECT_LT(WString(L"a"), WString(L"ab"));
    EXPECT_FALSE(WString(L"ab") < WString(L"ab"));
    // Narrow bytes above 0x7F sort after ASCII, as unsigned units.
    const char high[] = {static_cast<char>(0xC3), static_cast<char>(0xA9), 0};
    EXPECT_LT(NString("z"), NString(high));
    // Past a long common prefix, in the middle of a word and at its edge.
    EXPECT_LT(WString(L"/settings/g12/s1234"), WString(L"/settings/g12/s1235"));
    EXPECT_LT(WString(L"/settings/g1"), WString(L"/settings/g12/s1"));
    EXPECT_FALSE(WString(L"/settings/g13") < WString(L"/settings/g12/s1"));
    EXPECT_LT(NString("/settings/g12/s"), NString((std::string("/settings/g12/") + high).c_str()));
}

TEST(StringBaseTest, TextToIntegerInBasesTenAndEight) {
    int32_t v = -1;
    EXPECT_TRUE(WString(L"0644").toInt32(v, 8));
    EXPECT_EQ(v, 0644);
    EXPECT_TRUE(WString(L"-2147483648").toInt32(v, 10));
    EXPECT_EQ(v, INT32_MIN);
    EXPECT_TRUE(WString(L"+2147483647").toInt32(v));
    EXPECT_EQ(v, INT32_MAX);

    v = 5;
    for (const wchar_t* bad : {L"", L"-", L"12a", L"2147483648", L"-2147483649", L" 1", L"0x10"}) {
        EXPECT_FALSE(WString(bad).toInt32(v)) << NString(WString(bad)).c_str();
    }
    EXPECT_FALSE(WString(L"0778").toInt32(v, 8));
    EXPECT_EQ(v, 5);
}

TEST(StringBaseTest, IntegerToText) {
    EXPECT_EQ(WString::fromInt(0), WString(L"0"));
    EXPECT_EQ(WString::fromInt(-314509), WString(L"-314509"));
    EXPECT_EQ(WString::fromInt(0x1FF, 8), WString(L"777"));
    EXPECT_EQ(WString::fromInt(255, 16), WString(L"FF"));
    EXPECT_EQ(WString::fromInt(35, 36), WString(L"Z"));
    EXPECT_EQ(NString::fromInt(INT64_MIN), NString("-9223372036854775808"));
}

}  // namespace
}  // namespace kel
}  // namespace zq
