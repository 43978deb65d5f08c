// The commands that change several things at once: set of several values,
// import with and without --merge, mv and cp of subtrees, and diff of what
// they leave behind.
#include <gtest/gtest.h>

#include "tools/ToolRunner.h"

namespace zq {
namespace test {
namespace {

class ToolEditTest : public ::testing::Test {
  protected:
    void ok(const std::vector<std::string>& args, const std::string& input = "") {
        const ToolResult r = tool.run(args, input);
        ASSERT_EQ(r.exitCode, 0) << args[0] << ": " << r.err;
    }
    // /net {speed}, /net/eth0 {mtu}, /net/eth0/v4 {addr}, /sys {id}
    void populate() {
        ok({"set", "-p", "/net/eth0/v4", "addr", "string", "10.0.0.1"});
        ok({"set", "/net/eth0", "mtu", "uint16", "1500"});
        ok({"set", "/net", "speed", "uint32", "100"});
        ok({"set", "/sys", "id", "int8", "1"});
    }
    ToolRunner tool;
};

TEST_F(ToolEditTest, SetStoresSeveralValuesOrNone) {
    ok({"set", "/a", "x", "int32", "1", "list", "int32[]", "1", "2", "@", "s", "string", "@@hi"});
    EXPECT_EQ(tool.run({"get", "/a"}).out,
              "list (int32[]) = [1, 2]\ns (string) = \"@hi\"\nx (int32) = 1\n");
    const std::string before = tool.snapshot();
    struct Refused {
        std::vector<std::string> words;
        int exitCode;
    };
    for (const Refused& c : std::vector<Refused>{
             {{"x", "int32", "2", "y", "int32", "many"}, 2},
             {{"x", "int32", "2", "y", "nosuchtype", "1"}, 2},
             {{"x", "int32", "2", "X", "int32", "3"}, 2},
             {{"x", "int32", "2", "y", "int32"}, 2},
             {{"x", "int32", "2", "y", "int32", "@"}, 2},
             {{"x", "int32", "2", "y", "blob", "@" + tool.dir().file("missing")}, 3},
             {{"x", "int32", "2", "y", "string", "-", "z", "string", "-"}, 2},
             {{"x", "int32", "2", "/a/b", "int32", "1"}, 2},
         }) {
        std::vector<std::string> args{"set", "/a"};
        args.insert(args.end(), c.words.begin(), c.words.end());
        const ToolResult r = tool.run(args);
        EXPECT_EQ(r.exitCode, c.exitCode) << c.words[3] << " " << c.words[4] << ": " << r.err;
        EXPECT_EQ(tool.snapshot(), before) << "the first value must not be stored alone";
    }
    EXPECT_EQ(tool.run({"get", "/a", "x"}).out, "1\n");
}

TEST_F(ToolEditTest, SetReadsValuesFromFilesAndStandardInput) {
    std::string bytes;
    for (int i = 0; i < 256; ++i)
        bytes += static_cast<char>(i);
    tool.dir().write("blob", bytes);
    tool.dir().write("number", "1500\n");
    ok({"set", "/f", "raw", "blob", "@" + tool.dir().file("blob"), "mtu", "uint16",
        "@" + tool.dir().file("number"), "text", "string", "-"},
       "two\nlines\n");
    EXPECT_EQ(tool.run({"get", "/f", "text"}).out, "two\nlines\n\n") << "every byte kept";
    EXPECT_EQ(tool.run({"get", "/f", "mtu"}).out, "1500\n");
    const std::string hex = tool.run({"get", "/f", "raw"}).out;
    ASSERT_EQ(hex.size(), 513u);
    EXPECT_EQ(hex.substr(0, 8), "00010203");
    EXPECT_EQ(hex.substr(504), "fcfdfeff\n");
}

TEST_F(ToolEditTest, SetWarnsWhenAValueChangesType) {
    ok({"set", "/t", "x", "int32", "1", "y", "int32", "1"});
    struct Case {
        std::vector<std::string> words;
        bool warns;
    };
    for (const Case& c : std::vector<Case>{
             {{"x", "string", "one"}, true},
             {{"y", "int32", "2"}, false},
             {{"y", "int32", "2"}, false},
             {{"z", "uint8", "2"}, false},
             {{"z", "int8", "2", "y", "int32", "3"}, true},
         }) {
        std::vector<std::string> args{"set", "/t"};
        args.insert(args.end(), c.words.begin(), c.words.end());
        const ToolResult r = tool.run(args);
        ASSERT_EQ(r.exitCode, 0) << r.err;
        EXPECT_EQ(r.err.find("changes type") != std::string::npos, c.warns)
            << c.words[0] << ": " << r.err;
        EXPECT_EQ(r.err.find("314503") != std::string::npos, c.warns) << r.err;
    }
    EXPECT_EQ(tool.run({"get", "/t"}).out, "x (string) = \"one\"\ny (int32) = 3\nz (int8) = 2\n");
}

TEST_F(ToolEditTest, ImportReplacesOrMergesAndSaysWhatWent) {
    ok({"set", "-p", "/network/eth0", "mtu", "uint16", "1500", "dhcp", "bool", "false", "gw",
        "string", "10.0.0.1", "dns", "string", "10.0.0.2"});
    tool.dir().write("part.json",
                     R"({"format": "orvane-registry", "version": 1, "buckets": [
                         {"name": "/network/eth0", "values": {
                             "mtu": {"type": "uint16", "value": 9000},
                             "dhcp": {"type": "bool", "value": false}}}]})");
    const ToolResult merged = tool.run({"import", "--merge", tool.dir().file("part.json")});
    ASSERT_EQ(merged.exitCode, 0) << merged.err;
    EXPECT_EQ(merged.err, "/network/eth0: replaced \"mtu\"\nimported 1 buckets, 2 values\n");
    EXPECT_EQ(tool.run({"get", "/network/eth0"}).out,
              "dhcp (bool) = false\ndns (string) = \"10.0.0.2\"\ngw (string) = \"10.0.0.1\"\n"
              "mtu (uint16) = 9000\n");

    const ToolResult replaced = tool.run({"import", tool.dir().file("part.json")});
    ASSERT_EQ(replaced.exitCode, 0) << replaced.err;
    EXPECT_EQ(replaced.err,
              "/network/eth0: removed \"dns\", \"gw\"\nimported 1 buckets, 2 values\n");
    EXPECT_EQ(tool.run({"get", "/network/eth0"}).out, "dhcp (bool) = false\nmtu (uint16) = 9000\n");
    EXPECT_EQ(tool.run({"ls", "/network"}).out, "/network/eth0\n") << "children stay";
}

TEST_F(ToolEditTest, MvMovesASubtreeAndCpCopiesIt) {
    populate();
    ok({"mv", "/net", "/network"});
    EXPECT_EQ(tool.run({"ls", "-r"}).out, "/network\n/network/eth0\n/network/eth0/v4\n/sys\n");
    EXPECT_EQ(tool.run({"get", "/network/eth0/v4", "addr"}).out, "10.0.0.1\n");
    EXPECT_EQ(tool.run({"get", "/net"}).exitCode, 3);

    ok({"mv", "/network/eth0", "/sys"});  // an existing bucket takes it as a child
    EXPECT_EQ(tool.run({"ls", "-r"}).out, "/network\n/sys\n/sys/eth0\n/sys/eth0/v4\n");
    ok({"cp", "/sys/eth0", "/eth0"});
    ok({"cp", "-r", "/sys/eth0", "/copy"});
    EXPECT_EQ(tool.run({"ls", "-r"}).out,
              "/copy\n/copy/v4\n/eth0\n/network\n/sys\n/sys/eth0\n/sys/eth0/v4\n");
    EXPECT_EQ(tool.run({"get", "/eth0"}).out, "mtu (uint16) = 1500\n");
    EXPECT_EQ(tool.run({"get", "/copy/v4", "addr"}).out, "10.0.0.1\n");
    EXPECT_EQ(tool.run({"verify"}).exitCode, 0);
}

TEST_F(ToolEditTest, MvAndCpRefuseWithoutChangingAnything) {
    populate();
    const std::string before = tool.snapshot();
    struct Refused {
        std::vector<std::string> args;
        int exitCode;
        const char* says;
    };
    for (const Refused& c : std::vector<Refused>{
             {{"mv", "/net", "/net/eth0/x"}, 2, "inside itself"},
             {{"mv", "/NET", "/net"}, 2, "inside itself"},
             {{"mv", "/", "/x"}, 2, "root"},
             {{"cp", "-r", "/net", "/net/copy"}, 2, "inside itself"},
             {{"mv", "/nope", "/x"}, 3, "no bucket /nope"},
             {{"cp", "/net", "/no/such"}, 3, "parent"},
             {{"cp", "/net/eth0", "/net"}, 2, "exists"},
             {{"mv", "/net", "bad"}, 2, "bad bucket path"},
         }) {
        const ToolResult r = tool.run(c.args);
        EXPECT_EQ(r.exitCode, c.exitCode) << c.args[1] << " " << c.args[2] << ": " << r.err;
        EXPECT_NE(r.err.find(c.says), std::string::npos) << r.err;
        EXPECT_EQ(tool.snapshot(), before);
    }
}

TEST_F(ToolEditTest, DiffOfRegistriesAndExports) {
    populate();
    const std::string saved = tool.dir().file("saved.json");
    ok({"export", "-o", saved});
    const ToolResult same = tool.run({"diff", tool.registry(), saved});
    EXPECT_EQ(same.exitCode, 0) << same.err;
    EXPECT_EQ(same.out, "");

    ok({"set", "/net", "speed", "uint32", "1000", "label", "string", "up"});
    ok({"rm", "/net/eth0", "mtu"});
    ok({"rm", "/sys"});
    ok({"set", "/new", "x", "bool", "true"});
    const ToolResult changed = tool.run({"diff", saved, tool.registry()});
    EXPECT_EQ(changed.exitCode, 1) << changed.err;
    EXPECT_EQ(changed.out,
              "+ /net \"label\" = {\"type\":\"string\",\"value\":\"up\"}\n"
              "~ /net \"speed\" = {\"type\":\"uint32\",\"value\":100} -> "
              "{\"type\":\"uint32\",\"value\":1000}\n"
              "- /net/eth0 \"mtu\" = {\"type\":\"uint16\",\"value\":1500}\n"
              "+ /new\n"
              "- /sys\n");
    EXPECT_EQ(changed.err, "");

    // Two registries: each is read by a process of its own.
    const std::string other = tool.dir().file("other");
    ASSERT_EQ(tool.runBare({"--data-dir", other, "import", saved}).exitCode, 0);
    EXPECT_EQ(tool.run({"diff", other, tool.registry()}).out, changed.out);
    EXPECT_EQ(tool.run({"diff", other, saved}).exitCode, 0);

    tool.dir().write("bad.json", "{\"format\": \"orvane-registry\"}");
    EXPECT_EQ(tool.run({"diff", saved, tool.dir().file("bad.json")}).exitCode, 2);
    EXPECT_EQ(tool.run({"diff", saved, tool.dir().file("missing")}).exitCode, 3);
    EXPECT_EQ(tool.run({"diff", saved, tool.dir().path()}).exitCode, 3) << "no registry there";
}

}  // namespace
}  // namespace test
}  // namespace zq
