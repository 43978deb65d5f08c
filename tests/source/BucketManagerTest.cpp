// The manager as a client uses it, through the public entry, one process a
// test (forked children where a second manager is needed).
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "source/ManagerOptions.h"
#include "source/ManagerTestSupport.h"
#include "source/Options.h"
#include "source/ValueSamples.h"

namespace zq {
namespace test {
namespace {

namespace st = orvane::status;
using orvane::Options;

class BucketManagerTest : public ManagerFixture {};

TEST_F(BucketManagerTest, ANewStoreGetsAPersistentRootAtOnce) {
    StatusChain status = fresh();
    AutoRef<IBucketManager> manager = open(status);
    ASSERT_TRUE(manager);
    ASSERT_EQ(status.getCode(), 0);
    AutoRef<IBucket> root = manager->getBucket(WString(L"/"), status);
    ASSERT_TRUE(root);
    EXPECT_TRUE(root->isPersistent());
    EXPECT_TRUE(dir_.exists("reg/registry.bin"));
    EXPECT_GT(dir_.read("reg/registry.bin").size(), 0u);
}

// Children are forked before this process opens its own manager: a child
// inherits the registry object, and with it the one manager it may have.
TEST_F(BucketManagerTest, AnEmptyDirectoryMeansTheDefaultOneAndARelativeOneIsRefused) {
    EXPECT_EQ(inChild([this] {
                  StatusChain s = fresh();
                  AutoRef<IBucketManager> m = open(s, WString(L"data/x"));
                  return (!m && s.getCode() == st::kNotAbsolutePath) ? 0 : 1;
              }),
              0);
    EXPECT_FALSE(dir_.exists("data"));
    StatusChain status = fresh();
    AutoRef<IBucketManager> manager = open(status, WString());
    ASSERT_EQ(status.getCode(), 0);
    WString directory;
    manager->getDataDirectory(directory, status);
    EXPECT_EQ(directory, dir_.wide("app/Orvane"));
    EXPECT_TRUE(dir_.exists("app/Orvane/registry.bin"));
}

TEST_F(BucketManagerTest, OnlyOneManagerPerProcessEvenAfterRelease) {
    StatusChain status = fresh();
    AutoRef<IBucketManager> manager = open(status);
    ASSERT_TRUE(manager);
    manager.reset();
    AutoRef<IBucketManager> second = open(status);
    EXPECT_FALSE(second);
    EXPECT_EQ(status.getCode(), st::kManagerExists);
}

TEST_F(BucketManagerTest, TransactionRulesAndTheirCodes) {
    StatusChain status = fresh();
    AutoRef<IBucketManager> m = open(status);
    Guid id, other;
    ASSERT_TRUE(m->beginTransaction(id, status));
    EXPECT_FALSE(m->tryBeginTransaction(other, status));  // already open here
    EXPECT_FALSE(m->beginTransaction(other, status));
    EXPECT_EQ(status.getCode(), 0);

    AutoRef<IBucket> a = m->createBucket(WString(L"/a"), false, status);
    EXPECT_EQ(refusal([&](StatusChain& s) { return m->putBucket(a, true, id, s); }),
              st::kNotUpdating);
    EXPECT_EQ(refusal([&](StatusChain& s) { return m->commit(id, s); }), st::kNotUpdating);

    ASSERT_TRUE(m->beginUpdate(id, status));
    EXPECT_EQ(refusal([&](StatusChain& s) { return m->beginUpdate(id, s); }), st::kAlreadyUpdating);
    EXPECT_EQ(refusal([&](StatusChain& s) { return m->commit(Guid::generate(), s); }),
              st::kWrongUpdateId);
    EXPECT_EQ(refusal([&](StatusChain& s) { return m->beginUpdate(Guid(), s); }),
              st::kWrongUpdateId);
    EXPECT_EQ(refusal([&](StatusChain& s) {
                  return m->deleteBuckets({WString(L"/a"), WString(L"/")}, id, s);
              }),
              st::kRootNotDeletable);
    AutoRef<IBucket> orphan = m->createBucket(WString(L"/none/child"), false, status);
    EXPECT_EQ(refusal([&](StatusChain& s) { return m->putBucket(orphan, true, id, s); }),
              st::kNoParent);
    EXPECT_EQ(refusal([&](StatusChain& s) { return m->updateBucket(a, true, id, s); }),
              st::kCannotMerge);

    AutoRef<IBucket> transient = m->createBucket(WString(L"/t"), false, status, false);
    ASSERT_TRUE(m->putBucket(transient, true, id, status));
    AutoRef<IBucket> underTransient = m->createBucket(WString(L"/t/x"), false, status);
    EXPECT_EQ(refusal([&](StatusChain& s) { return m->putBucket(underTransient, true, id, s); }),
              st::kParentNotPersistent);

    EXPECT_EQ(refusal([&](StatusChain& s) { return bool(m->getBucket(WString(L"/missing"), s)); }),
              st::kBucketNotFound);

    EXPECT_FALSE(m->endTransaction(Guid::generate(), status));
    EXPECT_TRUE(m->endTransaction(id, status));
    EXPECT_FALSE(m->getTransactionId(other, status));
}

TEST_F(BucketManagerTest, CopiesStayPrivateUntilPutAndCommitAndEndDropsUncommittedWork) {
    StatusChain status = fresh();
    AutoRef<IBucketManager> m = open(status);
    ASSERT_TRUE(transact(*m, status, [&](const Guid& id) {
        m->putBucket(bucketWith(*m, L"/a", 1, status), true, id, status);
    }));
    AutoRef<IBucket> copy = m->getBucket(WString(L"/a"), status);
    copy->setInt32Value(WString(L"v"), 2, status, true);
    EXPECT_EQ(valueOf(*m, L"/a"), 1);

    Guid id;
    m->beginTransaction(id, status);
    m->beginUpdate(id, status);
    m->putBucket(copy, true, id, status);
    EXPECT_EQ(valueOf(*m, L"/a"), 1);  // pending, not committed
    m->endTransaction(id, status);
    EXPECT_EQ(valueOf(*m, L"/a"), 1);  // dropped

    ASSERT_TRUE(
        transact(*m, status, [&](const Guid& tx) { m->putBucket(copy, true, tx, status); }));
    EXPECT_EQ(valueOf(*m, L"/a"), 2);
    EXPECT_EQ(status.getCode(), st::kValueReplaced);
}

TEST_F(BucketManagerTest, ChildrenAreLinkedAndUnlinkedAndVersionsCountCommits) {
    StatusChain status = fresh();
    AutoRef<IBucketManager> m = open(status);
    ASSERT_TRUE(transact(*m, status, [&](const Guid& id) {
        m->putBucket(bucketWith(*m, L"/net", 1, status), true, id, status);
        m->putBucket(bucketWith(*m, L"/net/eth0", 2, status), true, id, status);
    }));
    AutoRef<IBucket> net = m->getBucket(WString(L"/net"), status);
    EXPECT_TRUE(net->hasValue(WString(L"/net/eth0")));
    EXPECT_TRUE(m->getBucket(WString(L"/"), status)->hasValue(WString(L"/net")));
    EXPECT_EQ(net->getVersion(), 1u);

    ASSERT_TRUE(transact(*m, status, [&](const Guid& id) {
        m->putBucket(bucketWith(*m, L"/net", 3, status), false, id, status);
    }));
    EXPECT_EQ(m->getBucket(WString(L"/net"), status)->getVersion(), 2u);

    // A child put after its parent's deletion in the same transaction has no
    // parent to link to; the transaction ends without a commit.
    {
        StatusChain s = fresh();
        Guid id;
        ASSERT_TRUE(m->beginTransaction(id, s));
        m->beginUpdate(id, s);
        AutoRef<IBucket> eth0 = m->getBucket(WString(L"/net/eth0"), s);
        EXPECT_TRUE(m->deleteBucket(WString(L"/net"), id, s));
        EXPECT_FALSE(m->putBucket(eth0, true, id, s));
        EXPECT_EQ(s.getCode(), st::kNoParent);
        StatusChain end = fresh();
        EXPECT_TRUE(m->endTransaction(id, end));
    }
    EXPECT_TRUE(m->bucketExists(WString(L"/net/eth0"), status));

    ASSERT_TRUE(transact(*m, status, [&](const Guid& id) {
        EXPECT_TRUE(m->deleteBucket(WString(L"/net/eth0"), id, status));
    }));
    EXPECT_FALSE(m->bucketExists(WString(L"/net/eth0"), status));
    EXPECT_FALSE(m->getBucket(WString(L"/net"), status)->hasValue(WString(L"/net/eth0")));
    EXPECT_EQ(valueOf(*m, L"/net"), 3);
}

// Put after delete in one transaction: the bucket exists with the put's
// content; delete after put: it is gone.
TEST_F(BucketManagerTest, PendingPutsAndDeletesOfOneNameStayConsistent) {
    const auto expectOutcome = [](IBucketManager& m) {
        StatusChain s = fresh();
        return valueOf(m, L"/a") == 5 && !m.bucketExists(WString(L"/b"), s);
    };
    ASSERT_EQ(inChild([&] {
                  StatusChain s = fresh();
                  AutoRef<IBucketManager> m = open(s);
                  transact(*m, s, [&](const Guid& id) {
                      m->putBucket(bucketWith(*m, L"/a", 1, s), true, id, s);
                      m->putBucket(bucketWith(*m, L"/b", 1, s), true, id, s);
                  });
                  transact(*m, s, [&](const Guid& id) {
                      m->deleteBucket(WString(L"/a"), id, s);
                      AutoRef<IBucket> again(new orvane::Bucket(WString(L"/a")));
                      again->setInt32Value(WString(L"v"), 5, s, true);
                      m->putBucket(again, true, id, s);
                      m->putBucket(bucketWith(*m, L"/b", 6, s), true, id, s);
                      m->deleteBucket(WString(L"/b"), id, s);
                  });
                  return (s.isNotFatal() && expectOutcome(*m)) ? 0 : 1;
              }),
              0);
    StatusChain status = fresh();
    AutoRef<IBucketManager> reopened = open(status);
    EXPECT_TRUE(expectOutcome(*reopened));
}

// The typed setters of a bucket and the manager's typed factories are stamped
// out per kind; each must land on its own tag and keep its content.
TEST_F(BucketManagerTest, EveryTypedSetterAndFactoryKeepsItsTagAndContent) {
    StatusChain s = fresh();
    AutoRef<IBucketManager> m = open(s);
    AutoRef<IBucket> b = m->createBucket(WString(L"/typed"), false, s);
    ASSERT_TRUE(b);
    AutoRef<IBucketValue> v;
#define ZQ_TEST_KIND(Name, Type, Tag, ArrayTag)                                           \
    {                                                                                     \
        const Type one = static_cast<Type>(1);                                            \
        const Type pair[2] = {static_cast<Type>(1), static_cast<Type>(0)};                \
        v = m->create##Name##Value(one, s);                                               \
        EXPECT_EQ(v->getType(), uint32_t(orvane::Tag)) << #Name;                          \
        EXPECT_EQ(v->get##Name(s), one) << #Name;                                         \
        v = m->create##Name##ArrayValue(pair, 2, s);                                      \
        EXPECT_EQ(v->getType(), uint32_t(orvane::ArrayTag)) << #Name;                     \
        EXPECT_EQ(v->get##Name##ArrayElement(1, s), pair[1]) << #Name;                    \
        EXPECT_TRUE(b->set##Name##Value(WString(L"" #Name), one, s, true));               \
        EXPECT_EQ(b->getValue(WString(L"" #Name), s)->get##Name(s), one) << #Name;        \
        EXPECT_TRUE(b->set##Name##ArrayValue(WString(L"" #Name "[]"), pair, 2, s, true)); \
        v = b->getValue(WString(L"" #Name "[]"), s);                                      \
        EXPECT_EQ(v->getType(), uint32_t(orvane::ArrayTag)) << #Name;                     \
        EXPECT_EQ(v->get##Name##ArrayElement(0, s), pair[0]) << #Name;                    \
    }
    ZQ_ORVANE_PLAIN_KINDS(ZQ_TEST_KIND)
#undef ZQ_TEST_KIND
    EXPECT_EQ(s.getCode(), 0);
    EXPECT_EQ(m->createValue(s)->getType(), uint32_t(orvane::kNOTSET));
    EXPECT_EQ(m->copyValue(v, s)->getFloat64ArrayElement(0, s), 1.0);
    EXPECT_EQ(s.getCode(), 0);
    EXPECT_FALSE(m->copyValue(AutoRef<IBucketValue>(), s));
    EXPECT_EQ(s.getCode(), st::kNullArgument);
}

TEST_F(BucketManagerTest, CallbacksHearOfStartAndOfEveryGoodCommit) {
    EXPECT_EQ(
        inChild([this] {
            orvane::overrideManagerOptions(
                {{Options::kCallbackDLLName, WString(ORVANE_TEST_PREINIT_ONLY)}});
            StatusChain s = fresh();
            AutoRef<IBucketManager> broken = open(s, dir_.wide("other"));
            return (!broken && s.getCode() == st::kCallbackLibrary && !dir_.exists("other/preinit"))
                       ? 0
                       : 1;
        }),
        0);
    orvane::overrideManagerOptions({{Options::kCallbackDLLName, WString(ORVANE_TEST_CALLBACKS)}});
    StatusChain status = fresh();
    AutoRef<IBucketManager> m = open(status);
    ASSERT_EQ(status.getCode(), 0);
    EXPECT_TRUE(dir_.exists("reg/preinit"));
    EXPECT_FALSE(dir_.exists("reg/postcommit"));
    transact(*m, status, [](const Guid&) {});
    EXPECT_TRUE(dir_.exists("reg/postcommit"));
}

TEST_F(BucketManagerTest, DebugReferenceThenComparisonPasses) {
    {
        StatusChain status = fresh();
        ASSERT_EQ(inChild([this] {
                      StatusChain s = fresh();
                      AutoRef<IBucketManager> m = open(s);
                      transact(*m, s, [&](const Guid& id) {
                          m->putBucket(bucketWith(*m, L"/a", 1, s), true, id, s);
                          m->putBucket(bucketWith(*m, L"/a/b", 2, s), true, id, s);
                      });
                      return s.getCode() == 0 ? 0 : 1;
                  }),
                  0);
    }
    ASSERT_EQ(
        inChild([this] {
            orvane::overrideManagerOptions({{Options::kDebugCompareRegAtStartMode, WString(L"2")}});
            StatusChain s = fresh();
            return open(s) ? 0 : 1;
        }),
        0);
    EXPECT_TRUE(dir_.exists("reg/comparator.txt"));
    orvane::overrideManagerOptions({{Options::kDebugCompareRegAtStartMode, WString(L"1")}});
    StatusChain status = fresh();
    AutoRef<IBucketManager> m = open(status);
    ASSERT_TRUE(m);
    EXPECT_EQ(dir_.read("reg/debugResults.txt"), "file compare passed\r\n");
    EXPECT_EQ(dir_.read("reg/temp_comparator.txt"), dir_.read("reg/comparator.txt"));
}

TEST_F(BucketManagerTest, PurgeKeepsTheDebugFilesAndLeavesOnlyANewRoot) {
    StatusChain status = fresh();
    AutoRef<IBucketManager> m = open(status);
    transact(*m, status, [&](const Guid& id) {
        m->putBucket(bucketWith(*m, L"/a", 1, status), true, id, status);
    });
    dir_.write("reg/debugRunCounter.txt", "3");
    dir_.write("reg/comparator.txt", "reference");
    dir_.write("reg/other.txt", "x");
    ::mkdir(dir_.file("reg/sub.dir").c_str(), 0777);
    static_cast<orvane::BucketManager*>(m.get())->purgeStore();
    m->reloadCaches(0, status);
    EXPECT_EQ(status.getCode(), 0);
    EXPECT_EQ(dir_.read("reg/debugRunCounter.txt"), "3");
    EXPECT_EQ(dir_.read("reg/comparator.txt"), "reference");
    EXPECT_FALSE(dir_.exists("reg/other.txt"));
    EXPECT_TRUE(dir_.exists("reg/sub.dir"));
    EXPECT_FALSE(m->bucketExists(WString(L"/a"), status));
    EXPECT_TRUE(m->bucketExists(WString(L"/"), status));
}

// The limit is the commit's: the puts of a transaction that would leave
// too much are taken, its commit is refused and writes nothing.
TEST_F(BucketManagerTest, OverTheSizeLimitCommitsAreRefused) {
    orvane::overrideManagerOptions({{Options::kDiskMaxRegistryFileSizeKB, WString(L"1")}});
    StatusChain status = fresh();
    AutoRef<IBucketManager> m = open(status);
    const std::string before = dir_.read("reg/registry.bin");
    Guid id;
    m->beginTransaction(id, status);
    m->beginUpdate(id, status);
    for (int i = 0; i < 20; ++i) {
        const std::wstring name = L"/n" + std::to_wstring(i);
        EXPECT_TRUE(m->putBucket(bucketWith(*m, name.c_str(), i, status), true, id, status));
    }
    m->commit(id, status);
    EXPECT_EQ(status.getCode(), st::kOverSizeLimit);
    StatusChain end = fresh();
    m->endTransaction(id, end);
    EXPECT_EQ(dir_.read("reg/registry.bin"), before);
    status = fresh();
    EXPECT_FALSE(m->bucketExists(WString(L"/n0"), status));
    EXPECT_TRUE(transact(*m, status, [&](const Guid& small) {
        m->putBucket(bucketWith(*m, L"/one", 1, status), true, small, status);
    }));
}

}  // namespace
}  // namespace test
}  // namespace zq
