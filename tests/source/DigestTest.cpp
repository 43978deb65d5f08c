#include "zq/orvane/Digest.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <clocale>
#include <cstring>
#include <string>
#include <vector>

#include "support/Child.h"
#include "zq/kel/Exception.h"

namespace zq {
namespace orvane {
namespace {

using kel::NString;
using kel::WString;

constexpr const char* kEmptyHash =
    "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855";

std::string text(const Digest& d) {
    WString s;
    return NString(d.getString(s)).c_str();
}

TEST(DigestTest, NamesHashAsLowerCasedLittleEndianUnits) {
    EXPECT_EQ(text(Digest(WString(L"ABC"))),
              "773a485daf4881b46ab35bd333b9796a6675db90111122f2c4cb10a31b1c0359");
    EXPECT_EQ(Digest(WString(L"ABC")), Digest(WString(L"abc")));
    EXPECT_EQ(text(Digest(WString(L"/Network/ETH0"))),
              "410de88799ca3ad95fd2543e8caaf9abab6f94630e78749c67f062706f0787bf");
    // A character beyond ASCII is hashed as its code point, not as UTF-8.
    EXPECT_EQ(text(Digest(WString(L"\u00e9"))),
              "d56a74471e3ef1f6bd58af3a68b48a8e72147a6ec29bbdaae720d2cda66872f0");
    EXPECT_EQ(Digest(NString("/Network/eth0")), Digest(WString(L"/network/eth0")));
    // Only case folds: separators and spaces are kept.
    EXPECT_NE(Digest(WString(L"/a/b")), Digest(WString(L"/a.b")));
    EXPECT_NE(Digest(WString(L"/a")), Digest(WString(L"/a ")));
    EXPECT_NE(Digest(WString(L"/a")), Digest(WString(L"a")));
}

TEST(DigestTest, CalculateGivesDigestAndTextButNoTextForTheEmptyName) {
    EXPECT_EQ(text(Digest()), kEmptyHash);
    EXPECT_EQ(Digest(WString()), Digest());
    EXPECT_EQ(Digest(NString()), Digest());

    Digest digest;
    DigestString digits;
    Digest::calculateDigest(WString(L"/Settings/Display"), digest, digits);
    EXPECT_EQ(digest, Digest(WString(L"/settings/display")));
    EXPECT_EQ(std::strlen(digits.c_str()), 64u);
    EXPECT_EQ(text(digest), digits.c_str());
    Digest::calculateDigest(WString(), digest, digits);
    EXPECT_EQ(digest, Digest());
    for (int i = 0; i < 65; ++i) {
        EXPECT_EQ(digits.c_str()[i], 0) << i;
    }
}

TEST(DigestTest, OrderIsUnsignedBytewise) {
    std::vector<unsigned char> low(32, 0), high(32, 0);
    low[0] = 0x7F;
    high[0] = 0x80;
    const unsigned char* a = low.data();
    const unsigned char* b = high.data();
    const Digest lo(a, low.data() + 32);
    const Digest hi(b, high.data() + 32);
    EXPECT_LT(lo, hi);
    EXPECT_FALSE(hi < lo);
    EXPECT_FALSE(lo < lo);
}

TEST(DigestTest, SerialisedFormIsTheBareThirtyTwoBytes) {
    const Digest d(WString(L"abc"));
    EXPECT_EQ(d.serializationSize(), 32u);

    std::vector<unsigned char> space(31, 0xEE);
    unsigned char* cursor = space.data();
    EXPECT_THROW(d.serialize(cursor, space.data() + space.size()), kel::exception::BufferOverflow);
    EXPECT_EQ(cursor, space.data());
    EXPECT_EQ(space, std::vector<unsigned char>(31, 0xEE));

    std::vector<unsigned char> exact(32);
    cursor = exact.data();
    d.serialize(cursor, exact.data() + exact.size());
    EXPECT_EQ(cursor, exact.data() + 32);
    EXPECT_EQ(std::memcmp(exact.data(), d.bytes(), 32), 0);
    EXPECT_EQ(exact[0], 0x77);  // high byte of the first word first

    Digest back;
    const unsigned char* in = exact.data();
    back.deserialize(in, exact.data() + exact.size());
    EXPECT_EQ(back, d);
    EXPECT_EQ(in, exact.data() + 32);

    in = exact.data();
    EXPECT_THROW(back.deserialize(in, exact.data() + 31), kel::exception::DeserializationError);
    EXPECT_EQ(in, exact.data());
    EXPECT_THROW(Digest(in, exact.data() + 10), kel::exception::DeserializationError);
}

TEST(DigestTest, CopiesStartUncountedAndAssignmentKeepsTheCount) {
    auto* shared = new Digest(WString(L"/a"));
    EXPECT_EQ(shared->addRef(), 1);
    EXPECT_EQ(shared->addRef(), 2);
    *shared = Digest(WString(L"/b"));
    EXPECT_EQ(*shared, Digest(WString(L"/b")));
    EXPECT_EQ(shared->release(), 1);
    Digest copy(*shared);
    EXPECT_EQ(copy.addRef(), 1);
    EXPECT_EQ(shared->release(), 0);
}

// SHA-256 of the lower-cased code points as little-endian 32-bit units, by
// an independent implementation.
constexpr const char* kArger = "e840d73823ce883c44203b6cffb2c18eb5f2f9b142d4bb5a155338eeb6566bf5";
constexpr const char* kDzCaron = "4cfb77ea0d4b53d0294f1fe903f957fdbbd8e105a54e9980cc4a9750587886e5";
constexpr const char* kSigma = "33b802e9e4b21aef4de3049ee8f8e2e51152deaf66708f90d1025d8c42ef43f8";
constexpr const char* kFinalSigma =
    "96a2adc6f02582d75d8da22da15b85dcceba7ce77eb83be51269410317eb4d76";
constexpr const char* kSharpS = "e981c2bfb6d9ca03684c5be2bfebeb67226b928effed0ad3eeb08f0091ea4eab";
constexpr const char* kDoubleS = "255c3067893cc0aecb04903e0a5ab496706fea80b8fbaf82ce197d0bba74f36a";

const struct {
    const wchar_t* name;
    const char* utf8;
    const char* digest;
} kFoldedNames[] = {
    {L"/\u00C4RGER", "/\xC3\x84RGER", kArger}, {L"/\u00E4rger", "/\xC3\xA4rger", kArger},
    {L"/\u01C5", "/\xC7\x85", kDzCaron},  // titlecase Dz with caron
    {L"/\u01C4", "/\xC7\x84", kDzCaron},       {L"/\u03A3", "/\xCE\xA3", kSigma},
    {L"/\u03C2", "/\xCF\x82", kFinalSigma},  // final sigma is not sigma
    {L"/\u1E9E", "/\xE1\xBA\x9E", kSharpS},    {L"/SS", "/SS", kDoubleS},  // nor is sharp s "ss"
};

constexpr int kNoLocale = 77;

// The digests of kFoldedNames, from the wide and from the narrow spelling,
// as a child in `locale` computes them; empty when it has no such locale.
std::string digestsIn(const char* locale) {
    int out[2];
    if (::pipe(out) != 0) return "pipe";
    const int code = test::inChild([&] {
        ::close(out[0]);
        if (std::setlocale(LC_ALL, locale) == nullptr) return kNoLocale;
        std::string all;
        for (const auto& row : kFoldedNames) {
            all += text(Digest(WString(row.name))) + " " + text(Digest(NString(row.utf8))) + "\n";
        }
        return ::write(out[1], all.data(), all.size()) == static_cast<ssize_t>(all.size()) ? 0 : 1;
    });
    ::close(out[1]);
    std::string all;
    char buffer[512];
    for (ssize_t n; (n = ::read(out[0], buffer, sizeof buffer)) > 0;) {
        all.append(buffer, static_cast<size_t>(n));
    }
    ::close(out[0]);
    return code == 0 ? all : code == kNoLocale ? "" : "child failed";
}

TEST(DigestTest, NamesFoldAlikeWhateverTheLocale) {
    std::string expected;
    for (const auto& row : kFoldedNames) {
        expected += std::string(row.digest) + " " + row.digest + "\n";
    }
    EXPECT_EQ(digestsIn("C"), expected);
    const std::string utf8 = digestsIn("C.UTF-8");
    if (utf8.empty()) {
        GTEST_SKIP() << "no C.UTF-8 locale here";
    }
    EXPECT_EQ(utf8, expected);
}

}  // namespace
}  // namespace orvane
}  // namespace zq
