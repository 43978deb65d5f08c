// The entry point as a program linking only the shared library meets it.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include <zq/orvane/Orvane.h>
#include "support/RegistryRoot.h"

namespace {

using zq::kel::AutoRef;
using zq::kel::StatusChain;
using zq::kel::WString;
using zq::orvane::IBucketManager;
using zq::orvane::publicInterface::GetInterface;
using zq::orvane::publicInterface::IOrvane;
using zq::orvane::publicInterface::IOrvane2;
namespace st = zq::orvane::status;

class EntryPointTest : public testing::Test {
  protected:
    zq::test::RegistryRoot dir_;
    const std::string root_ = dir_.path();
};

TEST_F(EntryPointTest, VersionsOneAndTwoGiveTheSameObjectOthersNone) {
    StatusChain status;
    status.setCode(st::kFileSystem);
    IOrvane2* two = GetInterface(2, status);
    EXPECT_NE(two, nullptr);
    EXPECT_EQ(status.getCode(), 0);
    EXPECT_EQ(status.getChainLength(), 0u);
    EXPECT_EQ(GetInterface(1, status), two);
    for (unsigned long version : {0ul, 3ul, ~0ul}) {
        EXPECT_EQ(GetInterface(version, status), nullptr);
        EXPECT_EQ(status.getCode(), st::kVersionNotSupported);
    }
}

TEST_F(EntryPointTest, AFailedConstructionLeavesRoomForTheNextAttempt) {
    StatusChain status;
    IOrvane* one = GetInterface(1, status);
    // A status that already holds an error: nothing is made.
    StatusChain failed;
    failed.setCode(st::kNoParent);
    EXPECT_FALSE(one->createBucketManager(WString((root_ + "/reg").c_str()), failed));
    EXPECT_EQ(failed.getCode(), st::kNoParent);

    StatusChain relative;
    relative.clear();
    EXPECT_FALSE(one->createBucketManager(WString(L"relative/dir"), relative));
    EXPECT_EQ(relative.getCode(), st::kNotAbsolutePath);

    // A data directory below a plain file cannot be made.
    const std::string file = root_ + "/plain";
    std::fclose(std::fopen(file.c_str(), "w"));
    StatusChain unusable;
    unusable.clear();
    EXPECT_FALSE(one->createBucketManager(WString((file + "/reg").c_str()), unusable));
    EXPECT_EQ(unusable.getCode(), st::kFileSystem);

    // Through version 1's slot: the same as version 2 with no options file.
    status.clear();
    AutoRef<IBucketManager> manager =
        one->createBucketManager(WString((root_ + "/reg").c_str()), status);
    ASSERT_TRUE(manager);
    EXPECT_EQ(status.getCode(), 0);
    EXPECT_TRUE(manager->bucketExists(WString(L"/"), status));

    StatusChain again;
    again.clear();
    EXPECT_FALSE(GetInterface(2, again)->createBucketManager(WString(), WString(), again));
    EXPECT_EQ(again.getCode(), st::kManagerExists);
}

TEST_F(EntryPointTest, ClientsCatchNothingAndGetTheirValuesBack) {
    StatusChain status;
    IOrvane2* orvane = GetInterface(2, status);
    AutoRef<IBucketManager> m =
        orvane->createBucketManager(WString((root_ + "/reg").c_str()), WString(), status);
    ASSERT_TRUE(m);
    zq::kel::Guid id;
    ASSERT_TRUE(m->beginTransaction(id, status));
    m->beginUpdate(id, status);
    AutoRef<zq::orvane::IBucket> b = m->createBucket(WString(L"/app"), false, status);
    b->setValue(WString(L"name"), m->createStringValue(WString(L"pump \u00e9"), status), status,
                true);
    const int64_t big = INT64_C(0x123456789ABCDEF0);
    b->setValue(WString(L"serial"), m->createInt64Value(big, status), status, true);
    const float points[] = {1.5f, -0.0f};
    b->setValue(WString(L"points"), m->createFloat32ArrayValue(points, 2, status), status, true);
    m->putBucket(b, true, id, status);
    m->commit(id, status);
    m->endTransaction(id, status);
    ASSERT_EQ(status.getCode(), 0);

    AutoRef<zq::orvane::IBucket> read = m->getBucket(WString(L"/app"), status);
    ASSERT_TRUE(read);
    EXPECT_EQ(read->getValue(WString(L"NAME"), status)->getString(status), WString(L"pump \u00e9"));
    EXPECT_EQ(read->getValue(WString(L"serial"), status)->getInt64(status), big);
    EXPECT_EQ(read->getValue(WString(L"points"), status)->getFloat32ArrayElement(1, status), -0.0f);
    EXPECT_EQ(m->getParentName(WString(L"/a/b/c"), status), WString(L"/a/b"));
    EXPECT_EQ(m->getShortName(WString(L"/a/b/c"), status), WString(L"c"));
    EXPECT_EQ(status.getCode(), 0);
}

}  // namespace
