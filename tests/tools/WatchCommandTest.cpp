// `orvane watch` as a shell loop uses it: one line per changed bucket while
// other commands change the registry, and a saved state picked up later.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <cstdio>
#include <string>
#include <vector>

#include "tools/ToolRunner.h"

namespace zq {
namespace test {
namespace {

class WatchCommandTest : public ::testing::Test {
  protected:
    void SetUp() override {
        ::setenv("ZQPUBAPPDATADIR", tool.dir().path().c_str(), 1);
        ::setenv("ZQKELTMPSHAREDFILEDIR", tool.dir().path().c_str(), 1);
        set({"-p", "/net/eth0", "mtu", "uint16", "1500"});
        set({"/net/wlan0", "on", "bool", "false"});
    }
    void set(const std::vector<std::string>& args) {
        std::vector<std::string> all{"set"};
        all.insert(all.end(), args.begin(), args.end());
        const ToolResult r = tool.run(all);
        ASSERT_EQ(r.exitCode, 0) << r.err;
    }

    // Starts `orvane watch ARGS` with its two outputs in one pipe, and
    // returns its first line, said once it watches.
    std::string startWatch(const std::string& args) {
        const std::string command = std::string(ORVANE_TOOL_BINARY) + " --data-dir " +
                                    tool.registry() + " watch " + args + " 2>&1";
        watch_ = ::popen(command.c_str(), "r");
        return watch_ == nullptr ? std::string() : line();
    }
    std::string line() {
        char text[4096];
        if (std::fgets(text, sizeof text, watch_) == nullptr) return "<eof>";
        std::string got(text);
        if (!got.empty() && got.back() == '\n') got.pop_back();
        return got;
    }
    int finish() {
        const int status = ::pclose(watch_);
        watch_ = nullptr;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

    ToolRunner tool;
    FILE* watch_ = nullptr;
};

TEST_F(WatchCommandTest, PrintsEachChangedBucketOfThePathOnly) {
    ASSERT_EQ(startWatch("/net --batches 2").rfind("watching /net from state 1:", 0), 0u);
    set({"/sys", "id", "int64", "7"});           // elsewhere: nothing
    set({"/net/wlan0", "on", "bool", "false"});  // the same value: nothing
    set({"/net/eth0", "mtu", "uint16", "9000"});
    ASSERT_EQ(tool.run({"rm", "/net/wlan0"}).exitCode, 0);
    EXPECT_EQ(line(), "changed /net/eth0");
    const std::string second = line() + "|" + line();
    EXPECT_TRUE(second == "deleted /net/wlan0|changed /net" ||
                second == "changed /net|deleted /net/wlan0")
        << second;
    EXPECT_EQ(line().rfind("state 1:", 0), 0u);
    EXPECT_EQ(finish(), 0);
}

TEST_F(WatchCommandTest, JsonCarriesTheValuesAndAStateToGoOnFrom) {
    startWatch("/net/eth0 --json --batches 1");
    set({"/net/eth0", "mtu", "uint16", "9000"});
    EXPECT_EQ(
        line(),
        R"({"change":"changed","name":"/net/eth0","values":{"mtu":{"type":"uint16","value":9000}}})");
    const std::string state = line();
    ASSERT_EQ(state.rfind(R"({"state":"1:)", 0), 0u) << state;
    line();
    EXPECT_EQ(finish(), 0);
    // Another writer compacts as it opens: unchanged content is no reset...
    set({"/sys", "id", "int64", "8"});
    const std::string saved = state.substr(10, state.size() - 12);
    startWatch("/net/eth0 --batches 1 --since " + saved);
    set({"/net/eth0", "mtu", "uint16", "1280"});
    EXPECT_EQ(line(), "changed /net/eth0");
    line();
    EXPECT_EQ(finish(), 0);
    // ...changed content in a replaced file is.
    startWatch("/net/eth0 --batches 1 --since " + saved);
    EXPECT_EQ(line(), "reset");
    line();
    EXPECT_EQ(finish(), 0);
}

TEST_F(WatchCommandTest, ABadStateOrPathIsAUsageError) {
    EXPECT_EQ(tool.run({"watch", "/net", "--since", "nonsense"}).exitCode, 2);
    EXPECT_EQ(tool.run({"watch", "net/"}).exitCode, 2);
}

}  // namespace
}  // namespace test
}  // namespace zq
