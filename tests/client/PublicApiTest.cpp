// What a client linking only the shared library can do with the types that
// cross its boundary.
#include <zq/orvane/Orvane.h>

#include <gtest/gtest.h>

#include <cstring>
#include <string>

namespace {

using zq::kel::StatusChain;
using zq::kel::WString;

TEST(PublicApiTest, LibraryExceptionsAreCaughtByTypeInTheClient) {
    const unsigned char damaged[] = {9, 0, 0, 0, 'a'};
    const unsigned char* cursor = damaged;
    WString s;
    EXPECT_THROW(s.deserialize(cursor, damaged + sizeof damaged),
                 zq::kel::exception::DeserializationError);
    const unsigned char badUtf8[] = {1, 0, 0, 0, 0xFF};
    cursor = badUtf8;
    try {
        s.deserialize(cursor, badUtf8 + sizeof badUtf8);
        ADD_FAILURE() << "no throw";
    } catch (const zq::kel::exception::Exception& e) {
        EXPECT_EQ(e.statusCode(), zq::orvane::status::kKelInvalidSequence);
        EXPECT_STREQ(e.what(), "Invalid UTF8 encoding sequence");
    }
}

TEST(PublicApiTest, DigestsAndStatusesWorkThroughTheSharedLibrary) {
    zq::orvane::Digest digest;
    zq::orvane::DigestString text;
    zq::orvane::Digest::calculateDigest(WString(L"ABC"), digest, text);
    EXPECT_STREQ(text.c_str(), "773a485daf4881b46ab35bd333b9796a6675db90111122f2c4cb10a31b1c0359");

    StatusChain status;
    status.setCode(zq::orvane::status::kNoParent);
    StatusChain copy = status;
    EXPECT_TRUE(copy.isFatal());
    EXPECT_STREQ(zq::orvane::status::describe(copy.getCode()), "the parent bucket does not exist");
    EXPECT_EQ(zq::orvane::status::describe(12345), nullptr);
}

TEST(PublicApiTest, SupportTypes) {
    const zq::kel::Guid a = zq::kel::Guid::generate();
    const zq::kel::Guid b = zq::kel::Guid::generate();
    EXPECT_FALSE(a.isNull());
    EXPECT_NE(a, b);
    EXPECT_TRUE(zq::kel::Guid().isNull());

    const zq::kel::AbsoluteTime t = zq::kel::AbsoluteTime::now();
    // Later than 2020-01-01 in seconds since 1904.
    EXPECT_GT(t.seconds, 1577836800 + zq::kel::AbsoluteTime::kUnixEpochOffset);
    EXPECT_FALSE(zq::kel::AbsoluteTime::now() < t);

    EXPECT_EQ(zq::kel::NString(WString(L"gr\u00fc\u00df")), zq::kel::NString("gr\xC3\xBC\xC3\x9F"));
}

}  // namespace
