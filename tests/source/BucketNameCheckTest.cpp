// Full names are checked where they enter the manager: every operation that
// takes one refuses a malformed one with its own code, and nothing is stored.
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "source/ManagerTestSupport.h"
#include "zq/orvane/Bucket.h"

namespace zq {
namespace test {
namespace {

namespace st = orvane::status;
using orvane::Digest;

class BucketNameCheckTest : public ManagerFixture {};

// The result of one operation: whether it gave anything (a bucket, a true,
// a digest other than the empty one).
using Operation = std::function<bool(IBucketManager&, const WString&, const Guid&, StatusChain&)>;

AutoRef<IBucket> detached(const WString& name) {
    return AutoRef<IBucket>(new orvane::Bucket(name));
}

const std::vector<std::pair<const char*, Operation>>& operations() {
    static const std::vector<std::pair<const char*, Operation>> table = {
        {"createBucket", [](IBucketManager& m, const WString& n, const Guid&,
                            StatusChain& s) { return bool(m.createBucket(n, false, s)); }},
        {"createBucket opening", [](IBucketManager& m, const WString& n, const Guid&,
                                    StatusChain& s) { return bool(m.createBucket(n, true, s)); }},
        {"createDigest", [](IBucketManager& m, const WString& n, const Guid&,
                            StatusChain& s) { return m.createDigest(n, s) != Digest(); }},
        {"findBucket",
         [](IBucketManager& m, const WString& n, const Guid&, StatusChain& s) {
             AutoRef<IBucket> out;
             return m.findBucket(n, out, s) || out;
         }},
        {"getBucket", [](IBucketManager& m, const WString& n, const Guid&,
                         StatusChain& s) { return bool(m.getBucket(n, s)); }},
        {"lookupBucket",
         [](IBucketManager& m, const WString& n, const Guid&, StatusChain& s) {
             AutoRef<IBucket> out;
             return m.lookupBucket(n, out, s) || out;
         }},
        {"bucketExists", [](IBucketManager& m, const WString& n, const Guid&,
                            StatusChain& s) { return m.bucketExists(n, s); }},
        {"putBucket", [](IBucketManager& m, const WString& n, const Guid& id,
                         StatusChain& s) { return m.putBucket(detached(n), true, id, s); }},
        {"updateBucket", [](IBucketManager& m, const WString& n, const Guid& id,
                            StatusChain& s) { return m.updateBucket(detached(n), true, id, s); }},
        {"deleteBucket", [](IBucketManager& m, const WString& n, const Guid& id,
                            StatusChain& s) { return m.deleteBucket(n, id, s); }},
        {"deleteBuckets",  // a good name first: all or none
         [](IBucketManager& m, const WString& n, const Guid& id, StatusChain& s) {
             return m.deleteBuckets({WString(L"/a"), n}, id, s);
         }},
    };
    return table;
}

TEST_F(BucketNameCheckTest, EveryOperationRefusesAMalformedNameAndStoresNothing) {
    StatusChain status = fresh();
    AutoRef<IBucketManager> m = open(status);
    ASSERT_TRUE(transact(*m, status, [&](const Guid& id) {
        m->putBucket(bucketWith(*m, L"/a", 1, status), true, id, status);
    }));
    // Each is a spelling the splitting rules would read as some real place
    // ("/a/b", "/a", "/"), which is what makes accepting it dangerous.
    const wchar_t* const malformed[] = {L"",    L"a",     L"a/b", L"//",
                                        L"//a", L"/a//b", L"/a/", L"/a/b/"};
    Guid id;
    ASSERT_TRUE(m->beginTransaction(id, status));
    ASSERT_TRUE(m->beginUpdate(id, status));
    for (const wchar_t* name : malformed) {
        for (const auto& [what, operation] : operations()) {
            SCOPED_TRACE(std::string(what) + " of \"" + kel::NString(WString(name)).c_str() + "\"");
            StatusChain s = fresh();
            EXPECT_FALSE(operation(*m, WString(name), id, s));
            EXPECT_EQ(s.getCode(), st::kBadBucketName);
            ASSERT_NE(s.getMessage(), nullptr);
        }
    }
    ASSERT_TRUE(m->commit(id, status));
    m->endTransaction(id, status);
    ASSERT_EQ(status.getCode(), 0);

    EXPECT_EQ(valueOf(*m, L"/a"), 1);  // deleteBuckets deleted none
    EXPECT_FALSE(m->bucketExists(WString(L"/a/b"), status));
    EXPECT_EQ(m->getBucket(WString(L"/"), status)->getNumKeys(), 1u);  // the link to "/a"
    for (const wchar_t* name : malformed) {
        StatusChain s = fresh();
        EXPECT_FALSE(m->getBucketByDigest(Digest(WString(name)), s));
        EXPECT_EQ(s.getCode(), st::kBucketNotFound);
    }
}

// The table's calls are sound: well-formed names get through to the usual
// outcomes.
TEST_F(BucketNameCheckTest, WellFormedNamesPassTheSameCalls) {
    StatusChain status = fresh();
    AutoRef<IBucketManager> m = open(status);
    ASSERT_TRUE(transact(*m, status, [&](const Guid& id) {
        m->putBucket(bucketWith(*m, L"/a", 1, status), true, id, status);
    }));
    // name, operation, its result, its code
    const std::vector<std::tuple<const wchar_t*, const char*, bool, int32_t>> expected = {
        {L"/a/b", "createBucket", true, 0},
        {L"/a", "createBucket opening", true, 0},
        {L"/a/b", "createDigest", true, 0},
        {L"/", "findBucket", true, 0},
        {L"/b", "getBucket", false, st::kBucketNotFound},
        {L"/A", "lookupBucket", true, 0},
        {L"/a", "bucketExists", true, 0},
        {L"/a/b", "putBucket", true, 0},
        {L"/a/b", "updateBucket", true, 0},
        {L"/a/b", "deleteBucket", true, 0},
        {L"/c", "deleteBuckets", true, 0},
    };
    Guid id;
    ASSERT_TRUE(m->beginTransaction(id, status));
    ASSERT_TRUE(m->beginUpdate(id, status));
    for (const auto& [name, what, result, code] : expected) {
        SCOPED_TRACE(what);
        for (const auto& [known, operation] : operations()) {
            if (std::string(known) != what) continue;
            StatusChain s = fresh();
            EXPECT_EQ(operation(*m, WString(name), id, s), result);
            EXPECT_EQ(s.getCode(), code);
        }
    }
    m->endTransaction(id, status);
}

}  // namespace
}  // namespace test
}  // namespace zq
