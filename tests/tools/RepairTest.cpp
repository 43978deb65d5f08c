// repair on a registry damaged in the middle, as a flipped bit on flash
// leaves it under commits that came after.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>

#include "support/Child.h"
#include "tools/ToolRunner.h"
#include "zq/orvane/Orvane.h"

namespace zq {
namespace test {
namespace {

using kel::AutoRef;
using kel::StatusChain;
using kel::WString;

struct Change {
    const wchar_t* bucket;
    const wchar_t* name;
    int32_t value;
};

// Each change one commit of a long-running client: one segment each.
int commitEachInChild(const ToolRunner& tool, const std::vector<Change>& changes) {
    return inChild([&] {
        setenv("ZQPUBAPPDATADIR", tool.dir().path().c_str(), 1);
        setenv("ZQKELTMPSHAREDFILEDIR", tool.dir().path().c_str(), 1);
        StatusChain status;
        status.clear();
        AutoRef<orvane::IBucketManager> manager =
            orvane::publicInterface::GetInterface(2, status)->createBucketManager(
                WString(tool.registry().c_str()), WString(), status);
        if (!manager) return 1;
        for (const Change& change : changes) {
            kel::Guid id;
            manager->beginTransaction(id, status);
            manager->beginUpdate(id, status);
            AutoRef<orvane::IBucket> bucket = manager->getBucket(WString(change.bucket), status);
            if (!bucket) return 2;
            bucket->setInt32Value(WString(change.name), change.value, status, true);
            manager->putBucket(bucket, true, id, status);
            manager->commit(id, status);
            manager->endTransaction(id, status);
        }
        return status.isFatal() ? 3 : 0;
    });
}

int64_t startOfSegmentEndingAt(const std::string& image, size_t end) {
    int64_t start;
    std::memcpy(&start, &image[end - 24], sizeof start);  // the target is little-endian
    return start;
}

TEST(ToolRepairTest, DamageInTheMiddleIsDroppedAndEverythingThatVerifiesKept) {
    ToolRunner tool;
    ASSERT_EQ(tool.run({"set", "-p", "/a/b", "x", "int32", "1"}).exitCode, 0);
    ASSERT_EQ(tool.run({"set", "/c", "z", "int32", "3"}).exitCode, 0);
    ASSERT_EQ(tool.run({"compact"}).exitCode, 0);
    // The compacted file, then one segment for each change.
    ASSERT_EQ(commitEachInChild(tool, {{L"/a", L"y", 2}, {L"/a/b", L"x", 5}, {L"/c", L"z", 9}}), 0);
    std::string image = tool.dir().read("reg/registry.bin");
    const size_t middleEnd = static_cast<size_t>(startOfSegmentEndingAt(image, image.size()));
    const size_t middleStart = static_cast<size_t>(startOfSegmentEndingAt(image, middleEnd));
    image[middleStart + 40] ^= 0x20;  // inside the record of /a/b
    tool.dir().write("reg/registry.bin", image);
    ASSERT_EQ(tool.run({"verify"}).exitCode, 1);

    const ToolResult repaired = tool.run({"repair"});
    ASSERT_EQ(repaired.exitCode, 0) << repaired.out << repaired.err;
    const std::string dropped = "dropped the bytes [" + std::to_string(middleStart) + ", " +
                                std::to_string(middleEnd) + ")";
    EXPECT_NE(repaired.out.find(dropped), std::string::npos) << repaired.out;
    EXPECT_NE(repaired.out.find("lost a change of /a/b"), std::string::npos) << repaired.out;
    EXPECT_EQ(tool.dir().read("reg/registry.bin.damaged-1"), image)
        << "the copy holds the damaged file as it was";

    const ToolResult verified = tool.run({"verify"});
    EXPECT_EQ(verified.exitCode, 0) << verified.out;
    // Newer and older than the damage alike; /a/b falls back to its older value.
    EXPECT_EQ(tool.run({"get", "/a", "y"}).out, "2\n");
    EXPECT_EQ(tool.run({"get", "/c", "z"}).out, "9\n");
    EXPECT_EQ(tool.run({"get", "/a/b", "x"}).out, "1\n");
    EXPECT_EQ(tool.run({"ls", "-r"}).out, "/a\n/a/b\n/c\n");

    const std::string before = tool.snapshot();
    const ToolResult again = tool.run({"repair"});
    EXPECT_EQ(again.exitCode, 0);
    EXPECT_NE(again.out.find("nothing to repair"), std::string::npos) << again.out;
    EXPECT_EQ(tool.snapshot(), before) << "a registry that verifies is left as it is";
}

// The oldest segment damaged takes the root with it: the rebuild keeps what
// verifies and says what is still wrong instead of claiming success.
TEST(ToolRepairTest, ProblemsARebuildCannotMendAreReported) {
    ToolRunner tool;
    ASSERT_EQ(tool.run({"set", "-p", "/a/b", "x", "int32", "1"}).exitCode, 0);
    ASSERT_EQ(tool.run({"compact"}).exitCode, 0);
    ASSERT_EQ(commitEachInChild(tool, {{L"/a", L"y", 2}, {L"/a", L"y", 3}}), 0);
    std::string image = tool.dir().read("reg/registry.bin");
    image[40] ^= 0x20;
    tool.dir().write("reg/registry.bin", image);

    const ToolResult repaired = tool.run({"repair"});
    EXPECT_EQ(repaired.exitCode, 1) << repaired.out << repaired.err;
    EXPECT_NE(repaired.err.find("orvane verify"), std::string::npos) << repaired.err;
    EXPECT_EQ(tool.dir().read("reg/registry.bin.damaged-1"), image);
    EXPECT_EQ(tool.run({"get", "/a", "y"}).out, "3\n") << "the newest verified record";
}

}  // namespace
}  // namespace test
}  // namespace zq
