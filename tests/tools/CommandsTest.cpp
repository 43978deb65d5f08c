// The everyday commands as a user runs them: what they print, what they
// change and the exit code of each kind of failure.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>

#include "tools/ToolRunner.h"
#include "zq/orvane/Orvane.h"

namespace zq {
namespace test {
namespace {

const std::vector<std::vector<std::string>> kReadingCommands{
    {"ls", "-r"}, {"get", "/net"}, {"dump"}, {"export"}, {"verify"}, {"stat"}};

class ToolCommandsTest : public ::testing::Test {
  protected:
    void set(const std::vector<std::string>& args) {
        std::vector<std::string> all{"set"};
        all.insert(all.end(), args.begin(), args.end());
        const ToolResult r = tool.run(all);
        ASSERT_EQ(r.exitCode, 0) << r.err;
    }
    // /net {speed, name}, /net/eth0 {mtu}, /net/wlan0, /sys
    void populate() {
        set({"-p", "/net/eth0", "mtu", "uint16", "1500"});
        set({"/net", "speed", "uint32", "100"});
        set({"/net", "name", "string", "uplink"});
        set({"/net/wlan0", "on", "bool", "false"});
        set({"/sys", "id", "int64", "-7"});
    }
    ToolRunner tool;
};

TEST_F(ToolCommandsTest, LsListsChildrenAndTheTree) {
    populate();
    EXPECT_EQ(tool.run({"ls"}).out, "/net\n/sys\n");
    EXPECT_EQ(tool.run({"ls", "/net"}).out, "/net/eth0\n/net/wlan0\n");
    EXPECT_EQ(tool.run({"ls", "-r"}).out, "/net\n/net/eth0\n/net/wlan0\n/sys\n");
    EXPECT_EQ(tool.run({"ls", "/net/eth0"}).out, "");
    const ToolResult missing = tool.run({"ls", "/nope"});
    EXPECT_EQ(missing.exitCode, 3);
    EXPECT_NE(missing.err.find("no bucket /nope"), std::string::npos) << missing.err;
}

TEST_F(ToolCommandsTest, GetPrintsValuesOrOneValue) {
    populate();
    set({"/net", "label", "ansistring", "a \"quoted\"\nline"});
    EXPECT_EQ(tool.run({"get", "/net"}).out,
              "label (ansistring) = \"a \\\"quoted\\\"\\nline\"\n"
              "name (string) = \"uplink\"\n"
              "speed (uint32) = 100\n");
    EXPECT_EQ(tool.run({"get", "/net", "name"}).out, "uplink\n");
    EXPECT_EQ(tool.run({"get", "/net", "SPEED"}).out, "100\n") << "names ignore case";
    EXPECT_EQ(tool.run({"get", "/net", "speed", "--json"}).out,
              "{\n  \"type\": \"uint32\",\n  \"value\": 100\n}\n");
    const ToolResult json = tool.run({"get", "/net/eth0", "--json"});
    EXPECT_EQ(json.out,
              "{\n  \"name\": \"/net/eth0\",\n  \"values\": {\n    \"mtu\": {\n      \"type\": "
              "\"uint16\",\n      \"value\": 1500\n    }\n  }\n}\n");
    // A child link is structure, not a value.
    EXPECT_EQ(tool.run({"get", "/net", "/net/eth0"}).exitCode, 3);
    EXPECT_EQ(tool.run({"get", "/net", "nope"}).exitCode, 3);
    EXPECT_EQ(tool.run({"get", "/nope"}).exitCode, 3);
}

TEST_F(ToolCommandsTest, DumpPrintsTheSubtreeWithValues) {
    populate();
    EXPECT_EQ(tool.run({"dump", "/net"}).out,
              "[/net]\n"
              "    name (string) = \"uplink\"\n"
              "    speed (uint32) = 100\n"
              "[/net/eth0]\n"
              "    mtu (uint16) = 1500\n"
              "[/net/wlan0]\n"
              "    on (bool) = false\n");
    const ToolResult all = tool.run({"dump"});
    EXPECT_EQ(all.exitCode, 0);
    EXPECT_EQ(all.out.rfind("[/]\n[/net]\n", 0), 0u) << all.out;
    EXPECT_NE(all.out.find("[/sys]\n    id (int64) = -7\n"), std::string::npos) << all.out;
}

TEST_F(ToolCommandsTest, SetReplacesAndMakesParentsOnlyWhenAsked) {
    set({"/a", "x", "int32", "1"});
    set({"/a", "x", "string", "now text"});
    EXPECT_EQ(tool.run({"get", "/a"}).out, "x (string) = \"now text\"\n");

    const std::string before = tool.snapshot();
    const ToolResult orphan = tool.run({"set", "/b/c/d", "x", "int32", "1"});
    EXPECT_EQ(orphan.exitCode, 3);
    EXPECT_NE(orphan.err.find("-314528: the parent bucket does not exist"), std::string::npos)
        << orphan.err;
    EXPECT_EQ(tool.snapshot(), before);

    set({"-p", "/b/c/d", "x", "int32", "1"});
    EXPECT_EQ(tool.run({"ls", "-r", "/b"}).out, "/b/c\n/b/c/d\n");
    EXPECT_EQ(tool.run({"set", "/b", "/b/c", "int32", "1"}).exitCode, 2)
        << "a child link is not the user's to overwrite";
    // Nor is the name of a child yet to come: the value would hide it.
    const std::string linked = tool.snapshot();
    const ToolResult reserved = tool.run({"set", "/b", "/b/later", "int32", "1"});
    EXPECT_EQ(reserved.exitCode, 2);
    EXPECT_NE(reserved.err.find("links to child buckets"), std::string::npos) << reserved.err;
    EXPECT_EQ(tool.snapshot(), linked);
}

TEST_F(ToolCommandsTest, RmRemovesValuesAndBucketsButRefusesWhatWouldLoseMore) {
    populate();
    ASSERT_EQ(tool.run({"rm", "/net", "speed"}).exitCode, 0);
    EXPECT_EQ(tool.run({"get", "/net"}).out, "name (string) = \"uplink\"\n");
    EXPECT_EQ(tool.run({"rm", "/net", "speed"}).exitCode, 3);

    const std::string before = tool.snapshot();
    EXPECT_EQ(tool.run({"rm", "/net"}).exitCode, 2) << "has children and no -r";
    EXPECT_EQ(tool.run({"rm", "/"}).exitCode, 2);
    EXPECT_EQ(tool.run({"rm", "-r", "/"}).exitCode, 2);
    EXPECT_EQ(tool.run({"rm", "/net", "/net/eth0"}).exitCode, 2) << "a link, not a value";
    EXPECT_EQ(tool.run({"rm", "/nope"}).exitCode, 3);
    EXPECT_EQ(tool.snapshot(), before);

    ASSERT_EQ(tool.run({"rm", "/net/wlan0"}).exitCode, 0);
    EXPECT_EQ(tool.run({"ls", "/net"}).out, "/net/eth0\n");
    ASSERT_EQ(tool.run({"rm", "-r", "/net"}).exitCode, 0);
    EXPECT_EQ(tool.run({"ls", "-r"}).out, "/sys\n");
    EXPECT_EQ(tool.run({"get", "/net/eth0"}).exitCode, 3) << "descendants go too";
    EXPECT_EQ(tool.run({"verify"}).exitCode, 0);
}

TEST_F(ToolCommandsTest, UsageErrorsAndHelp) {
    const ToolResult help = tool.run({"--help"});
    EXPECT_EQ(help.exitCode, 0);
    for (const char* text : {"ls", "import", "verify", "Exit codes", "3  not found"}) {
        EXPECT_NE(help.out.find(text), std::string::npos) << text;
    }
    for (const char* command :
         {"ls", "get", "set", "rm", "dump", "export", "import", "verify", "stat", "compact"}) {
        const ToolResult r = tool.run({command, "--help"});
        EXPECT_EQ(r.exitCode, 0) << command;
        EXPECT_NE(r.out.find("Usage"), std::string::npos) << command;
    }
    EXPECT_NE(tool.run({"set", "--help"}).out.find("float64[]"), std::string::npos);
    EXPECT_EQ(tool.run({}).exitCode, 2);
    EXPECT_EQ(tool.run({"frobnicate"}).exitCode, 2);
    EXPECT_EQ(tool.run({"get"}).exitCode, 2);
    EXPECT_EQ(tool.run({"ls", "net"}).exitCode, 2) << "relative path";
    EXPECT_EQ(tool.run({"ls", "/a//b"}).exitCode, 2);
    EXPECT_EQ(tool.run({"set", "/a", "", "int32", "1"}).exitCode, 2);
}

TEST_F(ToolCommandsTest, ReadingCommandsDoNotCreateARegistry) {
    for (const char* command : {"ls", "dump", "export", "verify", "stat"}) {
        const ToolResult r = tool.run({command});
        EXPECT_EQ(r.exitCode, 3) << command;
        EXPECT_NE(r.err.find("no registry"), std::string::npos) << command << r.err;
    }
    EXPECT_FALSE(tool.dir().exists("reg"));
}

// While another process holds a transaction, and with a torn append only a
// writer may cut, the reading commands answer at once and change no byte.
TEST_F(ToolCommandsTest, ReadingCommandsNeitherWaitNorWrite) {
    populate();
    LockHolder holder(tool, 15);  // longer than the commands may take
    ASSERT_TRUE(holder.began());
    const std::string file = tool.dir().read("reg/registry.bin") + "torn";
    tool.dir().write("reg/registry.bin", file);
    const auto start = std::chrono::steady_clock::now();
    for (const std::vector<std::string>& command : kReadingCommands) {
        const ToolResult r = tool.run(command);
        EXPECT_EQ(r.exitCode, 0) << command[0] << r.err;
    }
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));
    EXPECT_EQ(tool.dir().read("reg/registry.bin"), file);
}

// A user who may read the registry but not write its directory reads it all.
TEST_F(ToolCommandsTest, ReadingCommandsNeedNoWritePermission) {
    if (::geteuid() == 0) GTEST_SKIP() << "root writes where permissions say it may not";
    populate();
    const std::string before = tool.snapshot();
    ASSERT_EQ(::chmod(tool.registry().c_str(), 0555), 0);
    for (const std::vector<std::string>& command : kReadingCommands) {
        const ToolResult r = tool.run(command);
        EXPECT_EQ(r.exitCode, 0) << command[0] << r.err;
    }
    ::chmod(tool.registry().c_str(), 0755);
    EXPECT_EQ(tool.snapshot(), before);
}

TEST_F(ToolCommandsTest, DefaultsToTheLibrarysDataDirectory) {
    ASSERT_EQ(tool.runBare({"set", "/d", "x", "int8", "-5"}).exitCode, 0);
    EXPECT_TRUE(tool.dir().exists("Orvane/registry.bin"));
    EXPECT_EQ(tool.runBare({"get", "/d", "x"}).out, "-5\n");
    EXPECT_EQ(tool.run({"get", "/d"}).exitCode, 3) << "another registry";
}

}  // namespace
}  // namespace test
}  // namespace zq
