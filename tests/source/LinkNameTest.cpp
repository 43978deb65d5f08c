// Value names beginning with "/" are the child links': no setter stores
// anything else under one, and a value of an older file that took such a
// name stops the child's put instead of hiding the child.
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "kel/osdep/FileSystem.h"
#include "source/ManagerTestSupport.h"
#include "source/SingleFileBucketStore.h"
#include "zq/orvane/Bucket.h"

namespace zq {
namespace test {
namespace {

namespace st = orvane::status;
using orvane::Bucket;
using orvane::BucketValue;
using orvane::Digest;
using Setter = std::function<bool(IBucket&, const WString&, StatusChain&)>;

// The message says which name was refused.
bool mentions(const StatusChain& status, const wchar_t* text) {
    const WString* message = status.getMessage();
    return message != nullptr && std::wstring(message->c_str()).find(text) != std::wstring::npos;
}

std::vector<std::pair<std::string, Setter>> everySetter() {
    std::vector<std::pair<std::string, Setter>> setters = {
        {"blob",
         [](IBucket& b, const WString& n, StatusChain& s) {
             const unsigned char bytes[] = {1, 2};
             return b.setBlobValue(n, bytes, 2, s, true);
         }},
        {"value",
         [](IBucket& b, const WString& n, StatusChain& s) {
             AutoRef<IBucketValue> value(new BucketValue());
             value->setInt32(7, s);
             return b.setValue(n, value, s, true);
         }},
        {"digest",
         [](IBucket& b, const WString& n, StatusChain& s) {
             return b.setDigestValue(n, Digest(WString(L"/elsewhere")), s, true);
         }},
        {"ansistring",
         [](IBucket& b, const WString& n, StatusChain& s) {
             return b.setAnsiStringValue(n, kel::NString("x"), s, true);
         }},
        {"string", [](IBucket& b, const WString& n,
                      StatusChain& s) { return b.setStringValue(n, WString(L"x"), s, true); }},
        {"ansistring[]",
         [](IBucket& b, const WString& n, StatusChain& s) {
             const kel::NString items[] = {kel::NString("x")};
             return b.setAnsiStringArrayValue(n, items, 1, s, true);
         }},
        {"string[]",
         [](IBucket& b, const WString& n, StatusChain& s) {
             const WString items[] = {WString(L"x")};
             return b.setStringArrayValue(n, items, 1, s, true);
         }},
    };
#define ZQ_TEST_SETTERS(Name, Type, Tag, ArrayTag)                                      \
    setters.emplace_back(#Name, [](IBucket& b, const WString& n, StatusChain& s) {      \
        return b.set##Name##Value(n, Type(1), s, true);                                 \
    });                                                                                 \
    setters.emplace_back(#Name "[]", [](IBucket& b, const WString& n, StatusChain& s) { \
        const Type items[] = {Type(1)};                                                 \
        return b.set##Name##ArrayValue(n, items, 1, s, true);                           \
    });
    ZQ_ORVANE_PLAIN_KINDS(ZQ_TEST_SETTERS)
#undef ZQ_TEST_SETTERS
    return setters;
}

TEST(LinkNameTest, NoSetterStoresAValueUnderANameBeginningWithSlash) {
    const auto setters = everySetter();
    ASSERT_EQ(setters.size(), 29u);  // every kind of value
    // bucket, value name
    const std::vector<std::pair<const wchar_t*, const wchar_t*>> reserved = {
        {L"/", L"/zzz"}, {L"/", L"/"}, {L"/", L"/a/b"}, {L"/a", L"/a/x"}, {L"/a", L"/b"},
    };
    for (const auto& [kind, set] : setters) {
        for (const auto& [bucketName, valueName] : reserved) {
            SCOPED_TRACE(kind + " " + kel::NString(WString(valueName)).c_str());
            Bucket bucket{WString(bucketName)};
            StatusChain s = fresh();
            EXPECT_FALSE(set(bucket, WString(valueName), s));
            EXPECT_EQ(s.getCode(), st::kEmptyName);
            EXPECT_TRUE(mentions(s, valueName));
            EXPECT_EQ(bucket.getNumKeys(), 0u);
        }
        // The same call is sound under an ordinary name.
        Bucket bucket{WString(L"/")};
        StatusChain s = fresh();
        EXPECT_TRUE(set(bucket, WString(L"zzz"), s)) << kind;
        EXPECT_EQ(s.getCode(), 0) << kind;
    }
}

// Only the link to a child of the bucket itself, by any door, takes such a
// name: addChild, or the digest of the child's name stored as a copy does.
TEST(LinkNameTest, OnlyTheLinkToAChildOfThisBucketTakesSuchAName) {
    struct Case {
        const wchar_t* bucket;
        const wchar_t* name;
        const wchar_t* digestOf;
        int32_t code;
    };
    const Case cases[] = {
        {L"/", L"/net", L"/net", 0},
        {L"/", L"/NET", L"/net", 0},  // names and digests fold
        {L"/net", L"/net/eth0", L"/net/eth0", 0},
        {L"/net", L"/Net/eth0", L"/net/eth0", 0},
        {L"/", L"/net", L"/other", st::kEmptyName},
        {L"/", L"/net/eth0", L"/net/eth0", st::kEmptyName},  // a grandchild
        {L"/net", L"/wan/eth0", L"/wan/eth0", st::kEmptyName},
        {L"/", L"/net/", L"/net", st::kEmptyName},
        {L"/", L"//net", L"//net", st::kEmptyName},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(kel::NString(WString(c.name)).c_str());
        Bucket bucket{WString(c.bucket)};
        StatusChain s = fresh();
        EXPECT_EQ(bucket.setDigestValue(WString(c.name), Digest(WString(c.digestOf)), s, false),
                  c.code == 0);
        EXPECT_EQ(s.getCode(), c.code);
    }

    // The manager's own link making, and a merge that carries links along.
    AutoRef<IBucket> net(new Bucket(WString(L"/net")));
    StatusChain s = fresh();
    EXPECT_TRUE(net->addChild(WString(L"eth0"), s, false));
    EXPECT_FALSE(net->addChild(WString(L"eth0/x"), s, false));  // not a child's name
    EXPECT_EQ(s.getCode(), st::kEmptyName);
    s = fresh();
    AutoRef<IBucket> copy(new Bucket(WString(L"/net")));
    EXPECT_TRUE(copy->update(net, IBucket::kMergeOverwriting, s));
    EXPECT_EQ(s.getCode(), 0);
    EXPECT_TRUE(copy->hasValue(WString(L"/net/eth0")));
}

// The record of a root that holds the string "/zzz" = "old", as files
// written before the rule may: version 1, then the value's own record.
std::vector<unsigned char> olderRootRecord() {
    StatusChain s = fresh();
    BucketValue value;
    value.setString(WString(L"old"), s);
    std::vector<unsigned char> record = {1, 0, 0, 0, 1, 0, 0, 0, 1,   0,   0,   0,  '/',
                                         1, 0, 0, 0, 4, 0, 0, 0, '/', 'z', 'z', 'z'};
    const size_t at = record.size();
    record.resize(at + value.serializationSize());
    unsigned char* cursor = record.data() + at;
    value.serialize(cursor, record.data() + record.size());
    return record;
}

class OlderStoreTest : public ManagerFixture {};

TEST_F(OlderStoreTest, AValueThatTookAChildsLinkNameStopsThatChildsPut) {
    {
        const std::vector<unsigned char> record = olderRootRecord();
        AutoRef<IBucket> root(new Bucket());
        const unsigned char* cursor = record.data();
        root->deserialize(cursor, record.data() + record.size());
        ASSERT_EQ(cursor, record.data() + record.size());
        ::mkdir(dir_.file("reg").c_str(), 0777);
        orvane::SingleFileBucketStore store(registry(), nullptr, kel::osdep::FileSystem::posix());
        StatusChain s = fresh();
        store.open(0, s);
        orvane::IBucketStore::UpdatedBuckets updated;
        updated[WString(L"/")] = root;
        store.commit(updated, orvane::IBucketStore::DeletedNames(), s);
        ASSERT_EQ(s.getCode(), 0);
    }
    StatusChain status = fresh();
    AutoRef<IBucketManager> m = open(status);
    ASSERT_TRUE(m);
    AutoRef<IBucket> root = m->getBucket(WString(L"/"), status);
    ASSERT_TRUE(root && root->hasValue(WString(L"/zzz")));  // an older file still reads

    Guid id;
    ASSERT_TRUE(m->beginTransaction(id, status));
    ASSERT_TRUE(m->beginUpdate(id, status));
    StatusChain refused = fresh();
    EXPECT_FALSE(m->putBucket(m->createBucket(WString(L"/zzz"), false, status), true, id, refused));
    EXPECT_EQ(refused.getCode(), st::kLinkNameTaken);
    EXPECT_TRUE(mentions(refused, L"\"/zzz\""));
    // The old value passes unchanged through a merge of its bucket.
    root->setInt32Value(WString(L"v"), 1, status, true);
    EXPECT_TRUE(m->putBucket(root, false, id, status));
    ASSERT_TRUE(m->commit(id, status));
    m->endTransaction(id, status);
    ASSERT_EQ(status.getCode(), 0);
    EXPECT_FALSE(m->bucketExists(WString(L"/zzz"), status));
    EXPECT_EQ(valueOf(*m, L"/"), 1);

    // Once the value is gone the child is made and linked.
    ASSERT_TRUE(transact(*m, status, [&](const Guid& tx) {
        AutoRef<IBucket> changed = m->getBucket(WString(L"/"), status);
        changed->removeValue(WString(L"/zzz"));
        m->putBucket(changed, true, tx, status);
        m->putBucket(m->createBucket(WString(L"/zzz"), false, status), true, tx, status);
    }));
    AutoRef<IBucket> after = m->getBucket(WString(L"/"), status);
    AutoRef<IBucketValue> link = after->getValue(WString(L"/zzz"), status);
    ASSERT_TRUE(link);
    EXPECT_EQ(link->getDigest(status), Digest(WString(L"/zzz")));
    EXPECT_EQ(status.getCode(), 0);
}

}  // namespace
}  // namespace test
}  // namespace zq
