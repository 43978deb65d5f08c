// What an administrator meets around the commands: help and version, the
// generated manual and completion, the options every command shares, the
// wait for another process's lock, and error messages that say why.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>

#include "tools/ToolRunner.h"
#include "zq/orvane/Orvane.h"

namespace zq {
namespace test {
namespace {

bool contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

TEST(ToolAdministrationTest, HelpVersionAndUnknownCommands) {
    ToolRunner tool;
    struct Case {
        std::vector<std::string> args;
        int exitCode;
        const char* out;
        const char* err;
    };
    for (const Case& c : std::vector<Case>{
             {{"-V"}, 0, "orvane " ORVANE_TOOL_VERSION "\n", ""},
             {{"--version"}, 0, "orvane " ORVANE_TOOL_VERSION "\n", ""},
             {{"help"}, 0, "Usage: orvane [OPTIONS]", ""},
             {{"help", "mv"}, 0, "Usage: orvane mv [OPTIONS] SRC DST", ""},
             {{"help", "nope"}, 2, "", "unknown command 'nope'"},
             {{"mvv", "/a", "/b"}, 2, "", "unknown command 'mvv'"},
             {{"--wait", "3", "frob"}, 2, "", "unknown command 'frob'"},
             {{"--wait", "-1", "ls"}, 2, "", "--wait"},
         }) {
        const ToolResult r = tool.runBare(c.args);
        EXPECT_EQ(r.exitCode, c.exitCode) << c.args[0];
        EXPECT_TRUE(contains(r.out, c.out)) << c.args[0] << ": " << r.out;
        EXPECT_TRUE(contains(r.err, c.err)) << c.args[0] << ": " << r.err;
    }
    EXPECT_TRUE(contains(tool.runBare({"--help"}).out, "5  timeout"));
}

TEST(ToolAdministrationTest, ManualAndCompletionAreMadeFromTheHelp) {
    ToolRunner tool;
    const ToolResult man = tool.runBare({"--man-page"});
    const ToolResult completion = tool.runBare({"--bash-completion"});
    ASSERT_EQ(man.exitCode, 0);
    ASSERT_EQ(completion.exitCode, 0);
    EXPECT_EQ(man.out.rfind(".TH ORVANE 1", 0), 0u) << man.out.substr(0, 80);
    for (const char* command : {"ls", "get", "set", "rm", "mv", "cp", "dump", "export", "import",
                                "diff", "verify", "stat", "compact", "help"}) {
        EXPECT_TRUE(contains(man.out, std::string(".SS ") + command + "\n")) << command;
        EXPECT_TRUE(contains(completion.out, std::string(" ") + command)) << command;
    }
    EXPECT_TRUE(contains(man.out, "\\-\\-merge")) << "options are escaped for roff";
    EXPECT_FALSE(contains(man.out, "man\\-page")) << "the generators stay hidden";
    EXPECT_TRUE(contains(completion.out, "complete -F _orvane orvane\n"));
    tool.dir().write("orvane.bash", completion.out);
    const std::string check = "bash -n " + tool.dir().file("orvane.bash");
    EXPECT_EQ(std::system(check.c_str()), 0);
}

TEST(ToolAdministrationTest, DataDirectoryIsNeverEmptyAndMadeOnlyByWrites) {
    ToolRunner tool;
    for (const char* command : {"ls", "set"}) {
        const ToolResult r = tool.runBare({"--data-dir", "", command, "/a", "x", "int8", "1"});
        EXPECT_EQ(r.exitCode, 2) << command;
        EXPECT_TRUE(contains(r.err, "--data-dir")) << r.err;
    }
    EXPECT_FALSE(tool.dir().exists("Orvane")) << "the default registry stays untouched";

    const std::string fresh = tool.dir().file("fresh");
    EXPECT_EQ(tool.runBare({"--data-dir", fresh, "ls"}).exitCode, 3);
    EXPECT_FALSE(tool.dir().exists("fresh"));
    const ToolResult made = tool.runBare({"--data-dir", fresh, "set", "/a", "x", "int8", "1"});
    EXPECT_EQ(made.exitCode, 0) << made.err;
    EXPECT_EQ(made.err, "orvane: created " + fresh + "\n");
    const ToolResult again = tool.runBare({"--data-dir", fresh, "set", "/a", "x", "int8", "2"});
    EXPECT_EQ(again.err, "");
}

TEST(ToolAdministrationTest, OptionsFileMustBeUsable) {
    ToolRunner tool;
    ASSERT_EQ(tool.run({"set", "/a", "x", "int8", "1"}).exitCode, 0);
    tool.dir().write("good.ini", "[Orvane]\nDiskMaxRegistryFileSizeKB=2048\n");
    tool.dir().write("other.ini", "[Elsewhere]\nkey=1\n");
    tool.dir().write("locked.ini", "[Orvane]\n");
    ::chmod(tool.dir().file("locked.ini").c_str(), 0);
    struct Case {
        const char* file;
        int exitCode;
        const char* says;
        bool asRootToo;
    };
    for (const Case& c : std::vector<Case>{
             {"good.ini", 0, "", true},
             {"missing.ini", 2, "No such file or directory", true},
             {"other.ini", 2, "has no [Orvane] section", true},
             {".", 2, "cannot read the options file", true},
             {"locked.ini", 2, "Permission denied", false},
         }) {
        if (!c.asRootToo && ::geteuid() == 0) continue;  // root reads any file
        const ToolResult r = tool.run({"--options", tool.dir().file(c.file), "get", "/a", "x"});
        EXPECT_EQ(r.exitCode, c.exitCode) << c.file << ": " << r.err;
        EXPECT_TRUE(contains(r.err, c.says)) << c.file << ": " << r.err;
    }
}

TEST(ToolAdministrationTest, WritesWaitForTheLockSayWhoHoldsItAndTimeOut) {
    ToolRunner tool;
    ASSERT_EQ(tool.run({"set", "/a", "x", "int8", "1"}).exitCode, 0);
    {
        LockHolder holder(tool);
        ASSERT_TRUE(holder.began());
        const std::string before = tool.snapshot();  // after the holder's open
        const std::string who = "held by process " + std::to_string(holder.pid());
        const ToolResult read = tool.run({"get", "/a", "x"});
        EXPECT_EQ(read.out, "1\n") << "a read does not wait";

        const ToolResult waited = tool.run({"--wait", "1", "set", "/a", "x", "int8", "2"});
        EXPECT_EQ(waited.exitCode, 5) << waited.err;
        EXPECT_GE(waited.seconds, 0.9);
        EXPECT_LT(waited.seconds, 5);
        EXPECT_TRUE(contains(waited.err, "orvane: waiting for the registry's lock, " + who))
            << waited.err;
        EXPECT_TRUE(contains(waited.err, "gave up after 1 s")) << waited.err;

        for (const std::vector<std::string>& args :
             std::vector<std::vector<std::string>>{{"--wait", "0", "set", "/a", "x", "int8", "3"},
                                                   {"--wait", "0", "rm", "/a"},
                                                   {"--wait", "0", "mv", "/a", "/b"},
                                                   {"--wait", "0", "compact"}}) {
            const ToolResult r = tool.run(args);
            EXPECT_EQ(r.exitCode, 5) << args[2] << ": " << r.err;
            EXPECT_LT(r.seconds, 2) << args[2];
            EXPECT_TRUE(contains(r.err, who)) << r.err;
        }
        EXPECT_EQ(tool.snapshot(), before);
    }
    // Let go during the wait: the write goes ahead, having said so once.
    LockHolder brief(tool, 1);
    ASSERT_TRUE(brief.began());
    const ToolResult r = tool.run({"set", "/a", "x", "int8", "4"});
    EXPECT_EQ(r.exitCode, 0) << r.err;
    EXPECT_EQ(r.err.find("waiting"), r.err.rfind("waiting")) << r.err;
    EXPECT_EQ(tool.run({"get", "/a", "x"}).out, "4\n");
}

TEST(ToolAdministrationTest, ErrorsNameThePathTheCodeAndTheSystemsReason) {
    ToolRunner tool;
    tool.dir().write("plainfile", "x");
    const ToolResult notDirectory =
        tool.runBare({"--data-dir", tool.dir().file("plainfile"), "set", "/a", "x", "int8", "1"});
    EXPECT_EQ(notDirectory.exitCode, 4);
    for (const std::string& part :
         {tool.dir().file("plainfile"), std::string("-314509"),
          std::string("a file-system operation failed"), std::string("Not a directory")}) {
        EXPECT_TRUE(contains(notDirectory.err, part)) << part << " in " << notDirectory.err;
    }

    ASSERT_EQ(tool.run({"set", "/a", "x", "int8", "1"}).exitCode, 0);
    // The commit's write crosses the limit; SIGXFSZ must not kill the tool.
    // The limit leaves room for every other file the tool writes as it
    // ends (a coverage build's counters among them); the registry's own
    // limit is raised so that the write is tried at all.
    constexpr size_t kFileLimit = 4 << 20;
    tool.dir().write("big", std::string(kFileLimit + 1, 'b'));
    tool.dir().write("roomy.ini", "[Orvane]\nDiskMaxRegistryFileSizeKB=65536\n");
    const ToolResult tooLarge =
        tool.runBare({"--data-dir", tool.registry(), "--options", tool.dir().file("roomy.ini"),
                      "set", "/a", "big", "blob", "@" + tool.dir().file("big")},
                     "", [] {
                         const rlimit limit{kFileLimit, kFileLimit};
                         ::setrlimit(RLIMIT_FSIZE, &limit);
                     });
    EXPECT_EQ(tooLarge.exitCode, 4);
    for (const char* part : {"committing to", "-314509", "File too large"}) {
        EXPECT_TRUE(contains(tooLarge.err, part)) << part << " in " << tooLarge.err;
    }
    EXPECT_TRUE(contains(tooLarge.err, tool.registry())) << tooLarge.err;
    EXPECT_EQ(tool.run({"get", "/a"}).out, "x (int8) = 1\n") << "the failed commit left nothing";
    EXPECT_EQ(tool.run({"verify"}).exitCode, 0);

    if (::geteuid() == 0) return;  // root writes anywhere
    ASSERT_EQ(::chmod(tool.registry().c_str(), 0500), 0);
    const ToolResult denied = tool.run({"set", "/a", "x", "int8", "2"});
    ::chmod(tool.registry().c_str(), 0700);
    EXPECT_EQ(denied.exitCode, 4);
    for (const std::string& part : {tool.registry(), std::string("Permission denied")}) {
        EXPECT_TRUE(contains(denied.err, part)) << part << " in " << denied.err;
    }
}

}  // namespace
}  // namespace test
}  // namespace zq
