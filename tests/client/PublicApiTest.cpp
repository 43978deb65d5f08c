// What a client linking only the shared library can do with the types that
// cross its boundary.
#include <zq/orvane/Orvane.h>

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

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

    // Resolved against the shared library: the link fails if it is not exported.
    uint32_t (zq::orvane::Bucket::*weigh)() const = &zq::orvane::Bucket::getMemUsage;
    EXPECT_NE(weigh, nullptr);
    EXPECT_EQ(zq::orvane::IBucket::kMergeKeeping, 3);  // compiled into clients
}

// The machine out of memory, as a client meets it: the library cannot copy
// the client's blob, says so with its code and stores nothing.
int blobOverTheLimit() {
    const size_t size = size_t(64) << 20;
    std::vector<unsigned char> blob(size, 7);
    long pages = 0;
    std::FILE* statm = std::fopen("/proc/self/statm", "r");
    if (statm == nullptr || std::fscanf(statm, "%ld", &pages) != 1) return 10;
    std::fclose(statm);
    const rlim_t limit = static_cast<rlim_t>(pages) * ::sysconf(_SC_PAGESIZE) + (size / 2);
    const struct rlimit cap = {limit, limit};
    if (::setrlimit(RLIMIT_AS, &cap) != 0) return 11;
    zq::kel::AutoRef<zq::orvane::IBucket> bucket(new zq::orvane::Bucket(WString(L"/b")));
    StatusChain status;
    status.clear();
    bucket->setBlobValue(WString(L"blob"), blob.data(), static_cast<uint32_t>(size), status, true);
    if (status.getCode() != zq::orvane::status::kOutOfMemory) return 12;
    StatusChain read;
    read.clear();
    return bucket->getValue(WString(L"blob"), read) ? 13 : 0;
}

TEST(PublicApiTest, RunningOutOfMemoryReachesTheClientAsItsCode) {
#if defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "the sanitizer's allocator stops the process instead of returning null";
#endif
#if defined(ORVANE_TESTS_EMULATED)
    GTEST_SKIP() << "an address-space limit does not reach a program run by qemu-user";
#endif
    const pid_t pid = ::fork();
    if (pid == 0) {
        ::_exit(blobOverTheLimit());
    }
    int result = 0;
    ::waitpid(pid, &result, 0);
    ASSERT_TRUE(WIFEXITED(result));
    EXPECT_EQ(WEXITSTATUS(result), 0);
}

}  // namespace
