// stat and compact on a store that a long-lived client grew segment by
// segment, as services on a controller do between restarts.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>

#include "tools/ToolRunner.h"
#include "zq/orvane/Orvane.h"

namespace zq {
namespace test {
namespace {

using kel::AutoRef;
using kel::StatusChain;
using kel::WString;

// Three commits of one manager: three segments, two dead records of /s.
void growInProcess(const ToolRunner& tool) {
    setenv("ZQPUBAPPDATADIR", tool.dir().path().c_str(), 1);
    setenv("ZQKELTMPSHAREDFILEDIR", tool.dir().path().c_str(), 1);
    StatusChain status;
    status.clear();
    AutoRef<orvane::IBucketManager> manager =
        orvane::publicInterface::GetInterface(2, status)->createBucketManager(
            WString(tool.registry().c_str()), WString(), status);
    ASSERT_TRUE(manager) << status.getCode();
    for (int32_t round = 1; round <= 3; ++round) {
        kel::Guid id;
        manager->beginTransaction(id, status);
        manager->beginUpdate(id, status);
        AutoRef<orvane::IBucket> bucket = manager->createBucket(WString(L"/s"), true, status);
        bucket->setInt32Value(WString(L"v"), round, status, true);
        manager->putBucket(bucket, true, id, status);
        manager->commit(id, status);
        manager->endTransaction(id, status);
        ASSERT_TRUE(status.isNotFatal()) << status.getCode();
    }
}

std::string field(const std::string& stat, const std::string& name) {
    const size_t at = stat.find(name + " ");
    if (at == std::string::npos) return "?";
    const size_t value = stat.find_first_not_of(' ', at + name.size());
    return stat.substr(value, stat.find('\n', value) - value);
}

// The shared count of changes that running managers check before a lookup.
uint32_t changeCount(const ToolRunner& tool) {
    const std::string bytes = tool.dir().read("counter/__zq_orvane_BucketManager_lock__");
    uint32_t count = 0;
    if (bytes.size() >= sizeof count) std::memcpy(&count, bytes.data(), sizeof count);
    return count;
}

TEST(ToolStatCompactTest, StatCountsDeadBytesAndCompactGivesThemBack) {
    ToolRunner tool;
    growInProcess(tool);
    const std::string size = std::to_string(tool.dir().read("reg/registry.bin").size());

    const ToolResult before = tool.run({"stat"});
    ASSERT_EQ(before.exitCode, 0) << before.err;
    EXPECT_EQ(field(before.out, "file size"), size);
    EXPECT_EQ(field(before.out, "committed"), size);
    EXPECT_EQ(field(before.out, "segments"), "4") << before.out;  // the root's, then three
    EXPECT_EQ(field(before.out, "buckets"), "2");
    EXPECT_EQ(field(before.out, "values"), "1");
    EXPECT_EQ(field(before.out, "child links"), "1");
    EXPECT_NE(field(before.out, "dead bytes"), "0");
    EXPECT_EQ(tool.run({"verify"}).exitCode, 0) << "several segments are a good store";

    const uint32_t count = changeCount(tool);
    const ToolResult compacted = tool.run({"compact"});
    ASSERT_EQ(compacted.exitCode, 0) << compacted.err;
    EXPECT_EQ(changeCount(tool), count + 2) << "running managers must look again";
    EXPECT_NE(compacted.out.find("4 segments, " + size + " bytes -> 1 segment"), std::string::npos)
        << compacted.out;

    const ToolResult after = tool.run({"stat"});
    EXPECT_EQ(field(after.out, "segments"), "1");
    EXPECT_EQ(field(after.out, "generation"), "1");
    EXPECT_EQ(field(after.out, "dead bytes"), "0");
    EXPECT_EQ(field(after.out, "buckets"), "2");
    EXPECT_EQ(tool.run({"get", "/s", "v"}).out, "3\n");
    EXPECT_EQ(tool.run({"verify"}).exitCode, 0);

    // A digest of the user's own is a value, not a link.
    ASSERT_EQ(tool.run({"set", "/s", "d", "digest", std::string(64, 'a')}).exitCode, 0);
    const ToolResult more = tool.run({"stat"});
    EXPECT_EQ(field(more.out, "values"), "2");
    EXPECT_EQ(field(more.out, "child links"), "1");
    EXPECT_EQ(field(more.out, "segments"), "2") << "the set's open compacted, its commit appended";
    EXPECT_NE(field(more.out, "dead bytes"), "0") << "the older record of /s";
}

TEST(ToolStatCompactTest, StatAndCompactRefuseADamagedStore) {
    ToolRunner tool;
    ASSERT_EQ(tool.run({"set", "/a", "x", "int8", "1"}).exitCode, 0);
    tool.dir().write("reg/commitmark.2", "5");
    const std::string before = tool.snapshot();
    const ToolResult stat = tool.run({"stat"});
    EXPECT_EQ(stat.exitCode, 4);
    EXPECT_NE(stat.out.find("\ndamage         registry.bin:5: "), std::string::npos) << stat.out;
    const ToolResult compact = tool.run({"compact"});
    EXPECT_EQ(compact.exitCode, 4);
    EXPECT_NE(compact.err.find("orvane verify"), std::string::npos) << compact.err;
    EXPECT_EQ(tool.snapshot(), before);
}

}  // namespace
}  // namespace test
}  // namespace zq
