#include "zq/orvane/Digest.h"

#include <gtest/gtest.h>

#include <cstring>
#include <vector>

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

}  // namespace
}  // namespace orvane
}  // namespace zq
