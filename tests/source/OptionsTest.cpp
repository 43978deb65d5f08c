#include "source/Options.h"

#include <gtest/gtest.h>
#include <pwd.h>
#include <stdlib.h>
#include <unistd.h>

#include <string>

#include "support/TempDir.h"

namespace zq {
namespace orvane {
namespace {

using kel::WString;

class OptionsTest : public ::testing::Test {
  protected:
    Options load(const std::string& body) {
        dir_.write("Orvane.ini", body);
        kel::StatusChain status;
        return Options(dir_.wide("Orvane.ini"), status);
    }
    static std::string text(const Options& options, Options::Entry entry) {
        return kel::NString(options.text(entry)).c_str();
    }

    test::TempDir dir_;
};

void expectDefaults(const Options& options) {
    EXPECT_EQ(options.number(Options::kMemoryCacheSizeLimitKB), 1024);
    EXPECT_EQ(options.number(Options::kMemoryCacheUpdatePct), 10);
    EXPECT_EQ(options.number(Options::kDebugCompareRegAtStartMode), 0);
    EXPECT_EQ(options.number(Options::kDiskMaxRegistryFileSizeKB), 1024);
    EXPECT_FALSE(options.flag(Options::kDebugSimulateCommitCrash));
    EXPECT_FALSE(options.flag(Options::kDebugSimulateCompactionCrash));
    EXPECT_FALSE(options.flag(Options::kDebugSimulateMiscCrash));
    EXPECT_EQ(options.number(Options::kDBMode), 0);
    for (Options::Entry entry : {Options::kDebugCompareRegAtStartFile, Options::kCallbackDLLName,
                                 Options::kDBOwner, Options::kDBGroup, Options::kDBMode}) {
        EXPECT_FALSE(options.isSet(entry)) << Options::key(entry);
    }
}

TEST_F(OptionsTest, MissingFileOrSectionGivesDefaults) {
    kel::StatusChain status;
    expectDefaults(Options(dir_.wide("none.ini"), status));
    expectDefaults(load("[Other]\nMemoryCacheSizeLimitKB=5\n"));
    expectDefaults(load("\xFF\xFE[Orvane]\nMemoryCacheSizeLimitKB=5\n"));
    expectDefaults(load("[Orvane]\n"));
}

TEST_F(OptionsTest, FailedStatusAppliesNothing) {
    kel::StatusChain status;
    status.setCode(-314510);
    dir_.write("Orvane.ini", "[Orvane]\nMemoryCacheSizeLimitKB=5\n");
    const Options options(dir_.wide("Orvane.ini"), status);
    for (uint32_t i = 0; i < Options::kEntryCount; ++i) {
        const auto entry = static_cast<Options::Entry>(i);
        EXPECT_TRUE(options.flag(entry));
        EXPECT_EQ(options.number(entry), 0);
        EXPECT_FALSE(options.isSet(entry));
    }
}

TEST_F(OptionsTest, EachKindParsesItsText) {
    struct Row {
        Options::Entry entry;
        const char* given;
        int32_t number;
        bool flag;
        const char* text;
    };
    const Row rows[] = {
        {Options::kMemoryCacheSizeLimitKB, "2048", 2048, true, "2048"},
        {Options::kMemoryCacheSizeLimitKB, "-7", -7, true, "-7"},
        {Options::kMemoryCacheSizeLimitKB, "12kb", 1024, true, "1024"},  // unusable: default
        {Options::kMemoryCacheUpdatePct, "0x10", 10, true, "10"},
        {Options::kDebugSimulateCommitCrash, "TRUE", 0, true, "TRUE"},
        {Options::kDebugSimulateCommitCrash, "tRuE", 0, true, "tRuE"},
        {Options::kDebugSimulateCommitCrash, "yes", 0, false, "yes"},
        {Options::kDebugSimulateCommitCrash, "1", 0, false, "1"},
        {Options::kDBMode, "0640", 0640, true, "0640"},
        {Options::kDBMode, "777", 0777, true, "777"},
        {Options::kDBMode, "0", 0, true, "0"},
        {Options::kDBMode, "1777", 0, true, ""},  // bits outside 0777
        {Options::kDBMode, "-5", 0, true, ""},
        {Options::kDBMode, "0689", 0, true, ""},  // not octal
        {Options::kDBMode, "rw-", 0, true, ""},
        {Options::kCallbackDLLName, "libcallbacks.so", 0, true, ""},  // text stays empty
        {Options::kDebugCompareRegAtStartFile, "mine.txt", 0, true, ""},
        {Options::kDBOwner, "no_such_user_orvane", 0, true, ""},
        {Options::kDBGroup, "no_such_group_orvane", 0, true, ""},
    };
    for (const Row& row : rows) {
        const Options options =
            load(std::string("[Orvane]\n") + Options::key(row.entry) + " = " + row.given + "\n");
        EXPECT_EQ(options.number(row.entry), row.number) << row.given;
        EXPECT_EQ(options.flag(row.entry), row.flag) << row.given;
        EXPECT_EQ(text(options, row.entry), row.text) << row.given;
    }
}

TEST_F(OptionsTest, ValuesGivenDirectlySetTextEntriesToo) {
    kel::StatusChain status;
    const Options options({{Options::kCallbackDLLName, WString(L"/lib/callbacks.so")},
                           {Options::kDebugCompareRegAtStartMode, WString(L"2")},
                           {Options::kDBMode, WString(L"0600")}},
                          status);
    EXPECT_EQ(text(options, Options::kCallbackDLLName), "/lib/callbacks.so");
    EXPECT_EQ(text(options, Options::kDebugCompareRegAtStartFile), "");
    EXPECT_EQ(options.number(Options::kDebugCompareRegAtStartMode), 2);
    EXPECT_EQ(options.number(Options::kDBMode), 0600);
    EXPECT_EQ(options.number(Options::kMemoryCacheSizeLimitKB), 1024);
}

TEST_F(OptionsTest, OwnerAndGroupResolveOnThisMachine) {
    const Options root = load("[Orvane]\nDBOwner=root\nDBGroup=root\n");
    EXPECT_EQ(root.number(Options::kDBOwner), 0);
    EXPECT_EQ(text(root, Options::kDBOwner), "root");
    EXPECT_EQ(text(root, Options::kDBGroup), "root");
    const passwd* daemon = getpwnam("daemon");
    if (daemon != nullptr) {
        const Options options = load("[Orvane]\nDBOwner=daemon\nDBGroup=daemon\n");
        EXPECT_EQ(options.number(Options::kDBOwner), static_cast<int32_t>(daemon->pw_uid));
        EXPECT_EQ(options.number(Options::kDBGroup), static_cast<int32_t>(daemon->pw_gid));
    }
}

// A user of our own whose passwd entry is far longer than the first look-up
// buffer, so the look-up has to grow it.
TEST_F(OptionsTest, OwnerWithALongEntryIsFound) {
    if (geteuid() != 0 || access("/usr/sbin/useradd", X_OK) != 0) {
        GTEST_SKIP() << "needs root and useradd";
    }
    const std::string name = "orvt" + std::to_string(getpid());
    const std::string home = "/nonexistent/" + std::string(300, 'h');
    const std::string create = "/usr/sbin/useradd -M -U -u " +
                               std::to_string(40000 + getpid() % 20000) + " -d " + home + " -c " +
                               std::string(200, 'c') + " " + name + " >/dev/null 2>&1";
    if (std::system(create.c_str()) != 0) {
        GTEST_SKIP() << "useradd failed";
    }
    const passwd* created = getpwnam(name.c_str());
    ASSERT_NE(created, nullptr);
    const uid_t uid = created->pw_uid;
    const gid_t gid = created->pw_gid;
    const Options options = load("[Orvane]\nDBOwner=" + name + "\nDBGroup=" + name + "\n");
    std::system(("/usr/sbin/userdel " + name + " >/dev/null 2>&1").c_str());
    EXPECT_EQ(options.number(Options::kDBOwner), static_cast<int32_t>(uid));
    EXPECT_EQ(options.number(Options::kDBGroup), static_cast<int32_t>(gid));
    EXPECT_EQ(text(options, Options::kDBOwner), name);
}

TEST_F(OptionsTest, OptionsFileIsSearchedUnderTheBaseDirectory) {
    EXPECT_TRUE(Options::findOptionsFile(WString(L"/etc/given.ini")) == WString(L"/etc/given.ini"));
    setenv("ZQPUBAPPDATADIR", dir_.path().c_str(), 1);
    EXPECT_TRUE(Options::findOptionsFile(WString()) == dir_.wide("Orvane/config/Orvane.ini"));
    EXPECT_TRUE(Options::defaultRegistryDirectory() == dir_.wide("Orvane"));
    setenv("ZQPUBAPPDATADIR", dir_.file("missing").c_str(), 1);
    EXPECT_TRUE(Options::findOptionsFile(WString()) ==
                WString(L"/var/local/varlont/Orvane/config/Orvane.ini"));
    unsetenv("ZQPUBAPPDATADIR");
    EXPECT_TRUE(Options::defaultRegistryDirectory() == WString(L"/var/local/varlont/Orvane"));
}

}  // namespace
}  // namespace orvane
}  // namespace zq
