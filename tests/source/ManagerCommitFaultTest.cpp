// A commit whose disk fails at any one of its calls either reports failure
// and leaves nothing of its transaction anywhere (caches, file, marks), or
// reports success and keeps all of it, in this process and after a reopen.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <ostream>
#include <string>

#include "kel/osdep/SimulatedFileSystem.h"
#include "source/ManagerOptions.h"
#include "source/ManagerTestSupport.h"
#include "zq/orvane/BucketManager.h"
#include "zq/orvane/StatusCodes.h"

namespace zq {
namespace test {
namespace {

using orvane::BucketManager;

const WString kDir(L"/reg");

AutoRef<BucketManager> construct() {
    StatusChain status = fresh();
    AutoRef<BucketManager> manager(new BucketManager(kDir, WString(), status));
    EXPECT_TRUE(status.isNotFatal()) << status.getCode();
    return manager;
}

bool put(BucketManager& manager, const Guid& id, const wchar_t* name, int32_t value) {
    StatusChain status = fresh();
    return manager.putBucket(bucketWith(manager, name, value, status), true, id, status) &&
           status.isNotFatal();
}

bool commitOne(BucketManager& manager, const wchar_t* name, int32_t value) {
    StatusChain status = fresh();
    return transact(manager, status, [&](const Guid& id) { put(manager, id, name, value); });
}

// What a manager shows of the registry; -1 for a value of a missing bucket.
struct View {
    bool eth1 = false;    // "/net/eth1" found
    bool linked = false;  // "/net" links "/net/eth1"
    int32_t eth0 = -1;
    int32_t other = -1;
    int32_t eth1Code = 0;  // the lookup's code

    bool operator==(const View& o) const {
        return eth1 == o.eth1 && linked == o.linked && eth0 == o.eth0 && other == o.other &&
               eth1Code == o.eth1Code;
    }
};

std::ostream& operator<<(std::ostream& out, const View& v) {
    return out << "{eth1 " << v.eth1 << " (code " << v.eth1Code << "), linked " << v.linked
               << ", eth0 " << v.eth0 << ", other " << v.other << "}";
}

View look(BucketManager& manager) {
    View view;
    StatusChain status = fresh();
    view.eth1 = static_cast<bool>(manager.getBucket(WString(L"/net/eth1"), status));
    view.eth1Code = status.getCode();
    StatusChain netStatus = fresh();
    AutoRef<IBucket> net = manager.getBucket(WString(L"/net"), netStatus);
    view.linked = net && net->hasValue(WString(L"/net/eth1"));
    view.eth0 = valueOf(manager, L"/net/eth0");
    view.other = valueOf(manager, L"/other");
    return view;
}

View expected(bool committed, bool otherCommitted) {
    View view;
    view.eth1 = committed;
    view.linked = committed;
    view.eth0 = committed ? 11 : 10;
    view.other = otherCommitted ? 7 : -1;
    view.eth1Code = committed ? 0 : orvane::status::kBucketNotFound;
    return view;
}

struct Fault {
    const char* name;
    int error;
};

const Fault kFaults[] = {{"ENOSPC", ENOSPC}, {"EIO", EIO}};

void PrintTo(const Fault& fault, std::ostream* out) { *out << fault.name; }

class ManagerCommitFaultTest : public ManagerFixture, public testing::WithParamInterface<Fault> {
  protected:
    void SetUp() override {
        ManagerFixture::SetUp();
        orvane::overrideManagerOptions({});
    }
    void TearDown() override {
        orvane::clearManagerFileSystemOverride();
        orvane::clearManagerOptionsOverride();
    }

    // A fresh disk with "/net" and "/net/eth0" committed, and a manager on it.
    AutoRef<BucketManager> world() {
        orvane::clearManagerFileSystemOverride();
        fs_ = std::make_unique<SimulatedFileSystem>();
        fs_->makeDirectory(kDir, 0777);
        orvane::overrideManagerFileSystem(fs_.get());
        AutoRef<BucketManager> manager = construct();
        EXPECT_TRUE(commitOne(*manager, L"/net", 1));
        EXPECT_TRUE(commitOne(*manager, L"/net/eth0", 10));
        return manager;
    }

    // Adds "/net/eth1" and changes "/net/eth0", the k-th call of the commit
    // failing (0: none); true when the commit reported success. `calls`
    // gets the calls the commit made.
    bool change(BucketManager& manager, uint64_t k, uint64_t& calls) {
        StatusChain status = fresh();
        Guid id;
        EXPECT_TRUE(manager.beginTransaction(id, status));
        manager.beginUpdate(id, status);
        EXPECT_TRUE(put(manager, id, L"/net/eth1", 20));
        EXPECT_TRUE(put(manager, id, L"/net/eth0", 11));
        const uint64_t start = fs_->calls();
        if (k > 0) fs_->failCall(SimulatedFileSystem::kAnyCall, k, GetParam().error);
        const bool returned = manager.commit(id, status);
        calls = fs_->calls() - start;
        EXPECT_TRUE(returned) << "the commit ran, its outcome is in the status; call " << k;
        if (status.isFatal()) {
            EXPECT_EQ(status.getCode(), orvane::status::kFileSystem) << "call " << k;
            // The reason reaches the caller, not the code alone.
            const WString* message = status.getMessage();
            const std::string text = message ? kel::NString(*message).c_str() : "";
            EXPECT_NE(text.find(std::strerror(GetParam().error)), std::string::npos)
                << "call " << k << ": " << text;
        }
        StatusChain end = fresh();
        EXPECT_TRUE(manager.endTransaction(id, end));
        return status.isNotFatal();
    }

    std::unique_ptr<SimulatedFileSystem> fs_;
};

TEST_P(ManagerCommitFaultTest, AFailedCommitLeavesNothingAndAReportedOneKeepsEverything) {
    uint64_t total = 0;
    {
        AutoRef<BucketManager> manager = world();
        ASSERT_TRUE(change(*manager, 0, total));
        ASSERT_GE(total, 3u);  // at least the write, its sync and the mark
    }
    int failures = 0;
    for (uint64_t k = 1; k <= total; ++k) {
        AutoRef<BucketManager> manager = world();
        uint64_t calls = 0;
        const bool committed = change(*manager, k, calls);
        failures += committed ? 0 : 1;
        EXPECT_EQ(look(*manager), expected(committed, false)) << "same process, call " << k;
        // The registry goes on: an unrelated commit lands on the old state.
        EXPECT_TRUE(commitOne(*manager, L"/other", 7)) << "call " << k;
        EXPECT_EQ(look(*manager), expected(committed, true)) << "after /other, call " << k;
        manager.reset();

        manager = construct();
        EXPECT_EQ(look(*manager), expected(committed, true)) << "reopened, call " << k;
        manager.reset();
        // Only what is durable: a cut that was never synced would bring the
        // failed segment back through the roll forward.
        fs_->crash();
        manager = construct();
        EXPECT_EQ(look(*manager), expected(committed, true)) << "after a crash, call " << k;
    }
    // Else the sweep missed the calls that matter.
    EXPECT_GE(failures, 2);
}

INSTANTIATE_TEST_SUITE_P(Faults, ManagerCommitFaultTest, testing::ValuesIn(kFaults),
                         [](const testing::TestParamInfo<Fault>& info) {
                             return std::string(info.param.name);
                         });

}  // namespace
}  // namespace test
}  // namespace zq
