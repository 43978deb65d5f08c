// The C++ layer's transactions: all or nothing, and whatever happens the
// process lock goes back, so that other processes and threads begin at once.
#include <zq/orvane/Orvane.h>
#include <zq/orvane/Registry.h>

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "support/Child.h"
#include "support/FreshStatus.h"
#include "support/RegistryRoot.h"

namespace {

using zq::orvane::Access;
using zq::orvane::Blob;
using zq::orvane::make_error_code;
using zq::orvane::Parents;
using zq::orvane::Registry;
using zq::orvane::RegistryError;
using zq::orvane::Transaction;
namespace st = zq::orvane::status;

class TransactionTest : public testing::Test {
  protected:
    void SetUp() override { registry_ = Registry::open(root_.file("reg")); }

    zq::test::RegistryRoot root_;
    Registry registry_;
};

TEST_F(TransactionTest, RemovingABucketTakesItsSubtreeAndNothingElse) {
    registry_.transact([](Transaction& tx) {
        tx.set("/a/b/c", "v", int32_t{1}, Parents::create);
        tx.set("/a/b", "v", int32_t{2});
        tx.set("/a2", "v", int32_t{3});
    });
    registry_.transact([](Transaction& tx) {
        EXPECT_TRUE(tx.remove("/a/b"));
        EXPECT_FALSE(tx.remove("/none"));
        // Made and removed in one transaction, children included.
        EXPECT_TRUE(tx.set("/x/y", "v", int32_t{4}, Parents::create));
        EXPECT_TRUE(tx.remove("/x"));
    });
    for (const char* gone : {"/a/b", "/a/b/c", "/x", "/x/y"}) {
        EXPECT_FALSE(registry_.exists(gone)) << gone;
    }
    EXPECT_TRUE(registry_.children("/a").empty());
    EXPECT_EQ(registry_.get<int32_t>("/a2", "v"), 3);

    std::error_code ec;
    registry_.transact([](Transaction& tx) { tx.remove("/"); }, ec);
    EXPECT_EQ(ec, make_error_code(st::kRootNotDeletable));
}

// Each change sees the ones before it in the same transaction.
TEST_F(TransactionTest, ValueChangesBuildOnEachOther) {
    registry_.transact([](Transaction& tx) {
        tx.set("/pump", "speed", int32_t{1});
        tx.set("/pump", "label", "old");
    });
    registry_.transact([](Transaction& tx) {
        EXPECT_TRUE(tx.set("/pump", "speed", int32_t{2}));
        EXPECT_TRUE(tx.set("/pump", "mode", "auto"));
        EXPECT_TRUE(tx.remove("/pump", "LABEL"));
        EXPECT_FALSE(tx.remove("/pump", "none"));
    });
    const zq::orvane::ValueMap expected = {{"speed", int32_t{2}}, {"mode", std::string("auto")}};
    EXPECT_EQ(registry_.bucket("/pump"), expected);

    std::error_code ec;
    registry_.transact([](Transaction& tx) { tx.remove("/", "/pump"); }, ec);
    EXPECT_EQ(ec, make_error_code(st::kEmptyName));  // a link goes with its bucket only
    EXPECT_EQ(registry_.children("/"), std::vector<std::string>{"pump"});
}

TEST_F(TransactionTest, ParentsAreMadeOnlyWhenAskedFor) {
    std::error_code ec;
    registry_.transact([](Transaction& tx) { EXPECT_FALSE(tx.set("/x/y/z", "v", int32_t{1})); },
                       ec);
    EXPECT_EQ(ec, make_error_code(st::kNoParent));
    EXPECT_FALSE(registry_.exists("/x"));
    registry_.transact([](Transaction& tx) {
        EXPECT_TRUE(tx.create("/x/y/z", Parents::create));
        EXPECT_TRUE(tx.create("/x"));
    });
    EXPECT_TRUE(registry_.exists("/x/y/z"));
    EXPECT_EQ(registry_.children("/x"), std::vector<std::string>{"y"});
}

TEST_F(TransactionTest, TheFirstFailureSticksAndNothingIsWritten) {
    {
        Transaction tx(registry_);
        EXPECT_TRUE(tx.set("/a", "v", int32_t{1}));
        EXPECT_FALSE(tx.set("/a", "", int32_t{2}));
        EXPECT_FALSE(tx.set("/b", "v", int32_t{3}));
        EXPECT_FALSE(tx.active());
        EXPECT_EQ(tx.error(), make_error_code(st::kEmptyName));
        std::error_code ec;
        tx.commit(ec);
        EXPECT_EQ(ec, make_error_code(st::kEmptyName));
        EXPECT_THROW(tx.commit(), RegistryError);
    }
    EXPECT_FALSE(registry_.exists("/a"));
    EXPECT_FALSE(registry_.exists("/b"));

    Transaction next(registry_);
    EXPECT_TRUE(next.active());
    next.commit();
    std::error_code ec;
    next.commit(ec);
    EXPECT_EQ(ec, make_error_code(st::kNotUpdating));
}

TEST_F(TransactionTest, AThrowOutOfTheBodyCommitsNothing) {
    EXPECT_THROW(registry_.transact([](Transaction& tx) {
        tx.set("/a", "v", int32_t{1});
        throw std::runtime_error("changed my mind");
    }),
                 std::runtime_error);
    EXPECT_FALSE(registry_.exists("/a"));
    EXPECT_TRUE(Transaction(registry_).active());
}

// Runs `holder` in a child that stays alive with its manager while another
// process asks for the lock without waiting; the result is holder's, and
// `lockFree` what the other process found.
int holdOn(const std::string& directory, const std::function<int()>& holder, bool& lockFree) {
    int ready[2];
    int done[2];
    if (::pipe(ready) != 0 || ::pipe(done) != 0) return -1;
    const pid_t pid = ::fork();
    if (pid == 0) {
        ::alarm(30);
        int code = 99;
        try {
            code = holder();
        } catch (...) {
        }
        char byte = 0;
        if (::write(ready[1], &byte, 1) != 1 || ::read(done[0], &byte, 1) != 1) code = 98;
        ::_exit(code);
    }
    char byte = 0;
    lockFree = ::read(ready[0], &byte, 1) == 1 &&
               zq::test::inChildWithin(10, [&] {
                   zq::kel::StatusChain s = zq::test::fresh();
                   auto* orvane = zq::orvane::publicInterface::GetInterface(2, s);
                   zq::kel::AutoRef<zq::orvane::IBucketManager> manager =
                       orvane->createBucketManager(zq::kel::WString(directory.c_str()),
                                                   zq::kel::WString(), s);
                   zq::kel::Guid id;
                   return manager && manager->tryBeginTransaction(id, s) ? 0 : 1;
               }) == 0;
    const bool told = ::write(done[1], "q", 1) == 1;
    const int code = zq::test::exitCodeWithin(pid, 30);
    for (int fd : {ready[0], ready[1], done[0], done[1]})
        ::close(fd);
    return told ? code : -1;
}

// The write of the commit fails (the file may not grow); the failure is
// reported, nothing is written, and the lock is back at once.
TEST(TransactionProcessTest, AFailedCommitReleasesTheLock) {
    zq::test::RegistryRoot root;
    const std::string directory = root.file("reg");
    bool lockFree = false;
    const int code = holdOn(
        directory,
        [&] {
            Registry registry = Registry::open(directory);
            struct stat info {};
            if (::stat((directory + "/registry.bin").c_str(), &info) != 0) return 2;
            const rlimit limit{static_cast<rlim_t>(info.st_size) + 4096, RLIM_INFINITY};
            if (::signal(SIGXFSZ, SIG_IGN) == SIG_ERR || ::setrlimit(RLIMIT_FSIZE, &limit) != 0) {
                return 3;
            }
            std::error_code ec;
            registry.transact(
                [](Transaction& tx) { tx.set("/big", "blob", Blob(64 * 1024, std::byte{1})); }, ec);
            if (ec != make_error_code(st::kFileSystem)) return 4;
            return registry.exists("/big") ? 5 : 0;
        },
        lockFree);
    EXPECT_EQ(code, 0);
    EXPECT_TRUE(lockFree);
}

// A thread pool's way: begun on one thread, finished on another. Meanwhile a
// third thread is refused at once, and afterwards any process may begin.
TEST(TransactionProcessTest, ATransactionMovesBetweenThreads) {
    zq::test::RegistryRoot root;
    const std::string directory = root.file("reg");
    bool lockFree = false;
    const int code = holdOn(
        directory,
        [&] {
            Registry registry = Registry::open(directory);
            auto committed = std::make_unique<Transaction>(registry);
            committed->set("/pool", "v", int32_t{1});
            int refusal = 0;
            std::thread([&] {
                refusal = Transaction(registry).error() == make_error_code(st::kAlreadyUpdating);
            }).join();
            std::thread([tx = std::move(committed)]() mutable {
                tx->set("/pool", "w", int32_t{2});
                tx->commit();
                tx.reset();
            }).join();

            auto dropped = std::make_unique<Transaction>(registry);
            dropped->set("/pool", "v", int32_t{9});
            std::thread([tx = std::move(dropped)]() mutable { tx.reset(); }).join();

            if (!refusal) return 2;
            if (registry.get<int32_t>("/pool", "w") != 2) return 3;
            if (registry.get<int32_t>("/pool", "v") != 1) return 4;
            return Transaction(registry).active() ? 0 : 5;
        },
        lockFree);
    EXPECT_EQ(code, 0);
    EXPECT_TRUE(lockFree);
}

TEST(TransactionProcessTest, AReadOnlyRegistryRefusesEveryTransaction) {
    zq::test::RegistryRoot root;
    const std::string directory = root.file("reg");
    ASSERT_EQ(zq::test::inChild([&] {
                  Registry::open(directory).transact(
                      [](Transaction& tx) { tx.set("/cfg", "v", int32_t{1}); });
                  return 0;
              }),
              0);
    Registry registry = Registry::open(directory, Access::read_only);
    EXPECT_TRUE(registry.read_only());
    EXPECT_EQ(registry.get<int32_t>("/cfg", "v"), 1);
    bool called = false;
    std::error_code ec;
    registry.transact([&](Transaction&) { called = true; }, ec);
    EXPECT_FALSE(called);
    EXPECT_EQ(ec, make_error_code(st::kReadOnly));
    try {
        registry.transact([](Transaction& tx) { tx.set("/cfg", "v", int32_t{2}); });
        ADD_FAILURE() << "no throw";
    } catch (const RegistryError& e) {
        EXPECT_EQ(e.code(), make_error_code(st::kReadOnly));
    }
    EXPECT_EQ(registry.get<int32_t>("/cfg", "v"), 1);
}

}  // namespace
