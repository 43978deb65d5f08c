// One manager shared by threads: lookups and enumerations while another
// thread commits and compacts. Meant for the ThreadSanitizer build too.
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "source/ManagerOptions.h"
#include "source/ManagerTestSupport.h"
#include "source/Options.h"

namespace zq {
namespace test {
namespace {

class ManagerThreadsTest : public ManagerFixture {};

constexpr int kBuckets = 40;

std::wstring nameOf(int i) { return L"/t/b" + std::to_wstring(i); }

TEST_F(ManagerThreadsTest, LookupsAndEnumerationsRunBesideCommitsAndCompactions) {
    // A small file limit: commits compact again and again.
    orvane::overrideManagerOptions({{orvane::Options::kDiskMaxRegistryFileSizeKB, WString(L"8")}});
    StatusChain status = fresh();
    AutoRef<IBucketManager> m = open(status);
    ASSERT_TRUE(transact(*m, status, [&](const Guid& id) {
        m->putBucket(m->createBucket(WString(L"/t"), false, status), true, id, status);
        for (int i = 0; i < kBuckets; ++i) {
            m->putBucket(bucketWith(*m, nameOf(i).c_str(), 0, status), true, id, status);
        }
    }));

    std::atomic<bool> done{false};
    std::atomic<int> problems{0};
    std::vector<std::thread> readers;
    for (int r = 0; r < 4; ++r) {
        readers.emplace_back([&, r] {
            int i = r;
            while (!done) {
                StatusChain s = fresh();
                AutoRef<IBucket> b = m->getBucket(WString(nameOf(i % kBuckets).c_str()), s);
                if (!b || s.isFatal()) ++problems;
                AutoRef<IBucket> parent = m->getBucket(WString(L"/t"), s);
                if (parent) {
                    const uint32_t handle = parent->openEnumeration();
                    orvane::Digest child;
                    int children = 0;
                    for (bool more = parent->getFirstChild(handle, child); more;
                         more = parent->getNextChild(handle, child, s)) {
                        if (m->getBucketByDigest(child, s)) ++children;
                    }
                    parent->closeEnumeration(handle);
                    if (children != kBuckets) ++problems;
                }
                i += 7;
            }
        });
    }
    for (int round = 1; round <= 60; ++round) {
        StatusChain s = fresh();
        transact(*m, s, [&](const Guid& id) {
            for (int i = 0; i < kBuckets; i += 3) {
                m->putBucket(bucketWith(*m, nameOf(i).c_str(), round, s), false, id, s);
            }
        });
        if (s.isFatal()) ++problems;
    }
    done = true;
    for (std::thread& t : readers)
        t.join();
    EXPECT_EQ(problems.load(), 0);
    EXPECT_EQ(valueOf(*m, nameOf(3).c_str()), 60);
    EXPECT_EQ(valueOf(*m, nameOf(1).c_str()), 0);
}

}  // namespace
}  // namespace test
}  // namespace zq
