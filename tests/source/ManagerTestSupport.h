#ifndef ZQ_TESTS_SOURCE_MANAGERTESTSUPPORT_H
#define ZQ_TESTS_SOURCE_MANAGERTESTSUPPORT_H

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <functional>
#include <string>

#include "support/Child.h"
#include "support/FreshStatus.h"
#include "support/TempDir.h"
#include "zq/orvane/Orvane.h"

namespace zq {
namespace test {

using kel::AutoRef;
using kel::Guid;
using kel::StatusChain;
using kel::WString;
using orvane::IBucket;
using orvane::IBucketManager;
using orvane::IBucketValue;

// Each test runs in its own process: the environment and the one manager a
// process may have are its own.
class ManagerFixture : public testing::Test {
  protected:
    void SetUp() override {
        ::mkdir(dir_.file("app").c_str(), 0777);
        ::mkdir(dir_.file("shared").c_str(), 0777);
        ::setenv("ZQPUBAPPDATADIR", dir_.file("app").c_str(), 1);
        ::setenv("ZQKELTMPSHAREDFILEDIR", dir_.file("shared").c_str(), 1);
    }

    WString registry() const { return dir_.wide("reg"); }

    // This process's manager on `directory`, through the public entry.
    AutoRef<IBucketManager> open(StatusChain& status, const WString& directory) {
        StatusChain entry;
        auto* orvane = orvane::publicInterface::GetInterface(2, entry);
        EXPECT_EQ(entry.getCode(), 0);
        return orvane->createBucketManager(directory, WString(), status);
    }
    AutoRef<IBucketManager> open(StatusChain& status) { return open(status, registry()); }

    TempDir dir_;
};

// The code left by `call`, which must refuse (return false) on a fresh status.
template <class Call>
int32_t refusal(Call&& call) {
    StatusChain status = fresh();
    EXPECT_FALSE(call(status));
    return status.getCode();
}

// Begin, begin update, `change`, commit, end: one committed transaction.
template <class Change>
bool transact(IBucketManager& manager, StatusChain& status, Change&& change) {
    Guid id;
    if (!manager.beginTransaction(id, status)) return false;
    manager.beginUpdate(id, status);
    change(id);
    manager.commit(id, status);
    StatusChain end = fresh();
    manager.endTransaction(id, end);
    return status.isNotFatal();
}

inline AutoRef<IBucket> bucketWith(IBucketManager& manager, const wchar_t* name, int32_t value,
                                   StatusChain& status) {
    AutoRef<IBucket> bucket = manager.createBucket(WString(name), true, status);
    if (bucket) bucket->setInt32Value(WString(L"v"), value, status, true);
    return bucket;
}

inline int32_t valueOf(IBucketManager& manager, const wchar_t* name) {
    StatusChain status = fresh();
    AutoRef<IBucket> bucket = manager.getBucket(WString(name), status);
    if (!bucket) return -1;
    AutoRef<IBucketValue> value = bucket->getValue(WString(L"v"), status);
    return value ? value->getInt32(status) : -1;
}

}  // namespace test
}  // namespace zq

#endif  // ZQ_TESTS_SOURCE_MANAGERTESTSUPPORT_H
