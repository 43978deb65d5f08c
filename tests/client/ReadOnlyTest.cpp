// A process that may read a registry but not write it (another user, a
// read-only mount), or that asks to only read: it sees every commit of the
// writers, never waits for their transactions, and changes no byte.
#include <zq/orvane/Orvane.h>

#include <dirent.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <map>
#include <string>

#include "support/Child.h"
#include "support/FreshStatus.h"
#include "support/RegistryRoot.h"

namespace {

using zq::kel::AutoRef;
using zq::kel::Guid;
using zq::kel::StatusChain;
using zq::kel::WString;
using zq::orvane::IBucket;
using zq::orvane::IBucketManager;
namespace st = zq::orvane::status;

using zq::test::fresh;

AutoRef<IBucketManager> openManager(const std::string& dir, StatusChain& status,
                                    const std::string& options = std::string()) {
    auto* registry = zq::orvane::publicInterface::GetInterface(2, status);
    return registry->createBucketManager(WString(dir.c_str()), WString(options.c_str()), status);
}

int32_t valueOf(IBucketManager& m) {
    StatusChain s = fresh();
    AutoRef<IBucket> bucket = m.getBucket(WString(L"/cfg"), s);
    if (!bucket) return -1;
    AutoRef<zq::orvane::IBucketValue> value = bucket->getValue(WString(L"v"), s);
    return value ? value->getInt32(s) : -1;
}

bool commitValue(IBucketManager& m, int32_t v, bool end = true) {
    StatusChain s = fresh();
    Guid id;
    m.beginTransaction(id, s);
    m.beginUpdate(id, s);
    AutoRef<IBucket> bucket = m.createBucket(WString(L"/cfg"), true, s);
    bucket->setInt32Value(WString(L"v"), v, s, true);
    m.putBucket(bucket, true, id, s);
    m.commit(id, s);
    if (end) m.endTransaction(id, s);
    return s.isNotFatal();
}

// What a reader must find unchanged: every file of the registry.
std::map<std::string, std::string> snapshot(const zq::test::TempDir& dir) {
    std::map<std::string, std::string> files;
    DIR* listing = ::opendir(dir.file("reg").c_str());
    for (dirent* entry; listing != nullptr && (entry = ::readdir(listing)) != nullptr;) {
        const std::string name = entry->d_name;
        if (name != "." && name != "..") files[name] = dir.read("reg/" + name);
    }
    if (listing != nullptr) ::closedir(listing);
    return files;
}

// Becomes `nobody`, whom the registry's modes let read but not write.
bool becomeNobody() {
    const passwd* nobody = ::getpwnam("nobody");
    return nobody != nullptr && ::setgid(nobody->pw_gid) == 0 && ::setuid(nobody->pw_uid) == 0;
}

class ReadOnlyTest : public testing::Test {
  protected:
    void SetUp() override {
        // The first writer makes the registry and its first commit.
        ASSERT_EQ(zq::test::inChild([this] {
                      StatusChain s = fresh();
                      AutoRef<IBucketManager> m = openManager(dir_.file("reg"), s);
                      return m && commitValue(*m, 1) ? 0 : 1;
                  }),
                  0);
        // A torn append, which only a writer may cut.
        const std::string file = dir_.read("reg/registry.bin");
        dir_.write("reg/registry.bin", file + "torn tail");
        ::chmod(dir_.file("reg").c_str(), 0755);
    }

    // In a child: opens for reading (as nobody when `asNobody`) and checks
    // what a reader sees and may do. `expected` is the value of "/cfg".
    int reader(bool asNobody, int32_t expected, const std::string& options = std::string()) {
        return zq::test::inChild([&] {
            ::alarm(20);  // a reader that waits fails
            if (asNobody && !becomeNobody()) return 2;
            StatusChain s = fresh();
            AutoRef<IBucketManager> m = openManager(dir_.file("reg"), s, options);
            if (!m || s.isFatal()) return 3;
            if (!static_cast<zq::orvane::BucketManager*>(m.get())->isReadOnly()) return 4;
            if (valueOf(*m) != expected) return 5;
            Guid id;
            StatusChain begin = fresh();
            if (m->tryBeginTransaction(id, begin) || begin.getCode() != st::kReadOnly) return 6;
            StatusChain wait = fresh();
            if (m->beginTransaction(id, wait) || wait.getCode() != st::kReadOnly) return 7;
            return 0;
        });
    }

    zq::test::RegistryRoot dir_;
};

TEST_F(ReadOnlyTest, AReaderWithoutWritePermissionReadsAndChangesNothing) {
    if (::geteuid() != 0) GTEST_SKIP() << "needs root to become another user";
    const auto before = snapshot(dir_);
    EXPECT_EQ(reader(true, 1), 0);
    EXPECT_EQ(snapshot(dir_), before);
}

TEST_F(ReadOnlyTest, AReaderByChoiceReadsAndChangesNothing) {
    dir_.write("Orvane.ini", "[Orvane]\nReadOnly=true\n");
    const auto before = snapshot(dir_);
    EXPECT_EQ(reader(false, 1, dir_.file("Orvane.ini")), 0);
    EXPECT_EQ(snapshot(dir_), before);
}

// While a writer holds a long transaction, a reader in another process
// opens and reads at once, and sees each commit the writer makes.
TEST_F(ReadOnlyTest, AReaderNeverWaitsForAWriterAndSeesEachCommit) {
    if (::geteuid() != 0) GTEST_SKIP() << "needs root to become another user";
    int toWriter[2];
    int fromWriter[2];
    ASSERT_EQ(::pipe(toWriter), 0);
    ASSERT_EQ(::pipe(fromWriter), 0);
    const pid_t writer = ::fork();
    if (writer == 0) {
        ::alarm(60);
        StatusChain s = fresh();
        AutoRef<IBucketManager> m = openManager(dir_.file("reg"), s);
        Guid id;
        m->beginTransaction(id, s);
        for (int32_t v = 2; v <= 4; ++v) {
            m->beginUpdate(id, s);
            AutoRef<IBucket> bucket = m->createBucket(WString(L"/cfg"), true, s);
            bucket->setInt32Value(WString(L"v"), v, s, true);
            m->putBucket(bucket, true, id, s);
            m->commit(id, s);  // the transaction, and the lock, stay
            char go = s.isNotFatal() ? 'c' : 'x';
            if (::write(fromWriter[1], &go, 1) != 1 || ::read(toWriter[0], &go, 1) != 1) {
                ::_exit(1);
            }
        }
        m->endTransaction(id, s);
        ::_exit(s.isNotFatal() ? 0 : 1);
    }
    for (int32_t v = 2; v <= 4; ++v) {
        char said = 0;
        ASSERT_EQ(::read(fromWriter[0], &said, 1), 1);
        ASSERT_EQ(said, 'c');
        const auto before = snapshot(dir_);
        EXPECT_EQ(reader(true, v), 0) << v;
        EXPECT_EQ(snapshot(dir_), before) << v;
        ASSERT_EQ(::write(toWriter[1], "g", 1), 1);
    }
    EXPECT_EQ(zq::test::exitCodeOf(writer), 0);
}

// One reader that stays open while other processes commit: each lookup
// sees the newest commit. The reader is a child, since each writer needs
// a process without a manager.
TEST_F(ReadOnlyTest, AnOpenReaderFollowsEveryCommit) {
    dir_.write("Orvane.ini", "[Orvane]\nReadOnly=true\n");
    int toReader[2];
    int fromReader[2];
    ASSERT_EQ(::pipe(toReader), 0);
    ASSERT_EQ(::pipe(fromReader), 0);
    const pid_t reader = ::fork();
    if (reader == 0) {
        ::alarm(60);
        StatusChain s = fresh();
        AutoRef<IBucketManager> m = openManager(dir_.file("reg"), s, dir_.file("Orvane.ini"));
        for (int32_t expected = 1;; ++expected) {
            const char seen = m && valueOf(*m) == expected ? 'y' : 'n';
            char next = 0;
            if (::write(fromReader[1], &seen, 1) != 1 || ::read(toReader[0], &next, 1) != 1 ||
                next == 'q') {
                ::_exit(0);
            }
        }
    }
    for (int32_t v = 2; v <= 5; ++v) {
        char seen = 0;
        ASSERT_EQ(::read(fromReader[0], &seen, 1), 1);
        EXPECT_EQ(seen, 'y') << v - 1;
        ASSERT_EQ(zq::test::inChild([&] {
                      StatusChain w = fresh();
                      AutoRef<IBucketManager> writer = openManager(dir_.file("reg"), w);
                      return writer && commitValue(*writer, v) ? 0 : 1;
                  }),
                  0);
        ASSERT_EQ(::write(toReader[1], "n", 1), 1);
    }
    char seen = 0;
    ASSERT_EQ(::read(fromReader[0], &seen, 1), 1);
    EXPECT_EQ(seen, 'y') << 5;
    ASSERT_EQ(::write(toReader[1], "q", 1), 1);
    EXPECT_EQ(zq::test::exitCodeOf(reader), 0);
}

// A registry on a file system mounted for reading only is read, not
// repaired, by root too.
TEST_F(ReadOnlyTest, AReadOnlyMountIsRead) {
    const int code = zq::test::inChild([&] {
        ::alarm(20);
        const std::string mounted = dir_.file("mounted");
        if (::unshare(CLONE_NEWNS) != 0 || ::mkdir(mounted.c_str(), 0755) != 0 ||
            ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
            ::mount(dir_.file("reg").c_str(), mounted.c_str(), nullptr, MS_BIND, nullptr) != 0 ||
            ::mount(nullptr, mounted.c_str(), nullptr, MS_BIND | MS_REMOUNT | MS_RDONLY, nullptr) !=
                0) {
            return 77;
        }
        StatusChain s = fresh();
        AutoRef<IBucketManager> m = openManager(mounted, s);
        if (!m || s.isFatal()) return 3;
        if (!static_cast<zq::orvane::BucketManager*>(m.get())->isReadOnly()) return 4;
        return valueOf(*m) == 1 ? 0 : 5;
    });
    if (code == 77) GTEST_SKIP() << "no right to mount here";
    EXPECT_EQ(code, 0);
}

}  // namespace
