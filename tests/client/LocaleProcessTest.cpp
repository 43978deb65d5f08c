// Two processes in different locales on one registry, as on a controller
// where a client runs in a UTF-8 locale and the tool in the "C" locale.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <clocale>
#include <string>

#include <zq/orvane/Orvane.h>
#include "support/RegistryRoot.h"

namespace {

using zq::kel::AutoRef;
using zq::kel::Guid;
using zq::kel::StatusChain;
using zq::kel::WString;
using zq::orvane::Digest;
using zq::orvane::IBucket;
using zq::orvane::IBucketManager;
using zq::orvane::publicInterface::GetInterface;

constexpr int kNoLocale = 77;

class LocaleProcessTest : public testing::Test {
  protected:
    AutoRef<IBucketManager> open() {
        StatusChain status;
        status.clear();
        return GetInterface(2, status)->createBucketManager(WString((root_ + "/reg").c_str()),
                                                            WString(), status);
    }

    zq::test::RegistryRoot dir_;
    const std::string root_ = dir_.path();
};

StatusChain fresh() {
    StatusChain status;
    status.clear();
    return status;
}

// Stores `name` = `number` in a new bucket `bucket`, committed.
bool store(IBucketManager& m, const wchar_t* bucket, const wchar_t* name, int32_t number) {
    StatusChain s = fresh();
    Guid id;
    if (!m.beginTransaction(id, s)) return false;
    m.beginUpdate(id, s);
    AutoRef<IBucket> b = m.createBucket(WString(bucket), false, s);
    if (b) {
        b->setValue(WString(name), m.createInt32Value(number, s), s, true);
        m.putBucket(b, true, id, s);
        m.commit(id, s);
    }
    StatusChain end = fresh();
    m.endTransaction(id, end);
    return b && s.getCode() == 0 && end.getCode() == 0;
}

// The value `name` of bucket `bucket`, or -1.
int32_t valueOf(IBucketManager& m, const wchar_t* bucket, const wchar_t* name) {
    StatusChain s = fresh();
    AutoRef<IBucket> b = m.getBucket(WString(bucket), s);
    if (!b) return -1;
    AutoRef<zq::orvane::IBucketValue> v = b->getValue(WString(name), s);
    return v && s.getCode() == 0 ? v->getInt32(s) : -1;
}

void notify(int fd) {
    const char go = 1;
    if (::write(fd, &go, 1) != 1) ::_exit(90);
}

bool awaitNotice(int fd) {
    char go = 0;
    return ::read(fd, &go, 1) == 1;
}

int exitCode(pid_t pid) {
    int result = 0;
    ::waitpid(pid, &result, 0);
    return WIFEXITED(result) ? WEXITSTATUS(result) : 128 + WTERMSIG(result);
}

TEST_F(LocaleProcessTest, UnicodeNamesAreFoundAcrossLocales) {
    int toC[2];
    int toUtf8[2];
    ASSERT_EQ(::pipe(toC), 0);
    ASSERT_EQ(::pipe(toUtf8), 0);

    const pid_t utf8 = ::fork();
    if (utf8 == 0) {
        ::close(toC[0]);
        ::close(toUtf8[1]);
        if (std::setlocale(LC_ALL, "C.UTF-8") == nullptr) ::_exit(kNoLocale);
        AutoRef<IBucketManager> m = open();
        if (!m) ::_exit(1);
        if (!store(*m, L"/\u00C4RGER", L"\u00C4pfel", 7)) ::_exit(2);
        notify(toC[1]);
        if (!awaitNotice(toUtf8[0])) ::_exit(3);
        // What the "C" process made, under other spellings.
        if (valueOf(*m, L"/\u00E4rger/\u01C6", L"\u03C3") != 8) ::_exit(4);
        StatusChain s = fresh();
        AutoRef<IBucket> parent = m->getBucket(WString(L"/\u00E4rger"), s);
        Digest child;
        if (!parent || !parent->getFirstChild(parent->openEnumeration(), child)) ::_exit(5);
        if (!(child == m->createDigest(WString(L"/\u00C4RGER/\u01C4"), s))) ::_exit(6);
        ::_exit(0);
    }
    const pid_t c = ::fork();
    if (c == 0) {
        ::close(toC[1]);
        ::close(toUtf8[0]);
        if (!awaitNotice(toC[0])) ::_exit(kNoLocale);
        if (std::setlocale(LC_ALL, "C") == nullptr) ::_exit(10);
        AutoRef<IBucketManager> m = open();
        if (!m) ::_exit(11);
        StatusChain s = fresh();
        if (!m->bucketExists(WString(L"/\u00C4RGER"), s)) ::_exit(12);
        if (!m->bucketExists(WString(L"/\u00E4rger"), s)) ::_exit(13);
        if (valueOf(*m, L"/\u00C4RGER", L"\u00E4PFEL") != 7) ::_exit(14);
        // A child of it: its parent is found by the digest of "/ÄRGER".
        if (!store(*m, L"/\u00C4RGER/\u01C5", L"\u03A3", 8)) ::_exit(15);
        notify(toUtf8[1]);
        ::_exit(0);
    }
    for (int fd : {toC[0], toC[1], toUtf8[0], toUtf8[1]})
        ::close(fd);
    const int utf8Code = exitCode(utf8);
    const int cCode = exitCode(c);
    if (utf8Code == kNoLocale) {
        GTEST_SKIP() << "no C.UTF-8 locale here";
    }
    EXPECT_EQ(utf8Code, 0) << "the UTF-8 process";
    EXPECT_EQ(cCode, 0) << "the C process";
}

}  // namespace
