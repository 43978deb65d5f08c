// verify on good stores and on stores damaged the ways disks and crashes
// damage them: each problem named with its file offset, exit code 1.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <functional>

#include "support/Child.h"
#include "tools/ToolRunner.h"
#include "zq/orvane/Orvane.h"

namespace zq {
namespace test {
namespace {

class ToolVerifyTest : public ::testing::Test {
  protected:
    // A compacted store: one segment from 0 to its end, the first record's
    // length field at 16.
    void SetUp() override {
        ASSERT_EQ(tool.run({"set", "-p", "/a/b", "x", "int32[]", "1", "2", "3"}).exitCode, 0);
        ASSERT_EQ(tool.run({"set", "/a", "s", "string", "hello"}).exitCode, 0);
        ASSERT_EQ(tool.run({"compact"}).exitCode, 0);
        bytes = tool.dir().read("reg/registry.bin");
        ASSERT_EQ(tool.dir().read("reg/commitmark.1"), std::to_string(bytes.size()));
    }
    int64_t end() const { return static_cast<int64_t>(bytes.size()); }
    void store(const std::string& image) { tool.dir().write("reg/registry.bin", image); }
    static void putI64(std::string& image, size_t at, int64_t value) {
        std::memcpy(&image[at], &value, sizeof value);  // the target is little-endian
    }
    static int64_t getI64(const std::string& image, size_t at) {
        int64_t value;
        std::memcpy(&value, &image[at], sizeof value);
        return value;
    }
    // Exit 1 and a line that begins with "file:offset: " and names `what`.
    void expectProblem(const std::string& where, const std::string& what) {
        const ToolResult r = tool.run({"verify"});
        EXPECT_EQ(r.exitCode, 1) << r.out << r.err;
        const size_t line = r.out.find(where + ": ");
        ASSERT_NE(line, std::string::npos) << "expected " << where << " in\n" << r.out;
        EXPECT_TRUE(line == 0 || r.out[line - 1] == '\n') << r.out;
        EXPECT_NE(r.out.find(what, line), std::string::npos) << r.out;
        EXPECT_NE(r.err.find("problem"), std::string::npos) << r.err;
    }

    ToolRunner tool;
    std::string bytes;
};

TEST_F(ToolVerifyTest, CleanStoresPassAndNothingChanges) {
    const std::string before = tool.snapshot();
    const ToolResult r = tool.run({"verify"});
    EXPECT_EQ(r.exitCode, 0) << r.out;
    EXPECT_EQ(r.out, "ok: 1 segment, 3 buckets, " + std::to_string(end()) + " committed bytes\n");
    EXPECT_EQ(tool.snapshot(), before);
    // Several segments: each set appends one to the compacted file.
    ASSERT_EQ(tool.run({"set", "/a/b", "y", "bool", "true"}).exitCode, 0);
    ASSERT_EQ(tool.run({"rm", "/a", "s"}).exitCode, 0);
    const ToolResult again = tool.run({"verify"});
    EXPECT_EQ(again.exitCode, 0) << again.out;
    EXPECT_NE(again.out.find("ok: 2 segments"), std::string::npos) << again.out;
}

TEST_F(ToolVerifyTest, AFlippedByteFailsTheSegmentChecksum) {
    std::string image = bytes;
    image[40] ^= 0x20;  // inside the first record
    store(image);
    expectProblem("registry.bin:" + std::to_string(end() - 56),
                  "checksum over [0, " + std::to_string(end() - 57) + ") does not match");
}

// A flipped bit in one segment of two: verify and stat name where the
// damaged segment ends and what an open will do with it, and change nothing;
// the open then does what they said.
TEST_F(ToolVerifyTest, DamageInEitherOfTwoSegmentsIsNamedByItsOffset) {
    ASSERT_EQ(tool.run({"set", "/a", "t", "int32", "5"}).exitCode, 0);
    const std::string two = tool.dir().read("reg/registry.bin");
    const int64_t first = end();  // the compacted file stays the older segment
    const int64_t total = static_cast<int64_t>(two.size());
    ASSERT_GT(total, first);
    const struct {
        const char* what;
        int64_t flip;
        int64_t start, stop;  // the damaged segment
        const char* fate;
        bool copied;  // an open keeps a copy and drops the segment
    } cases[] = {
        {"older", 40, 0, first, "an open serves only what was committed after it", false},
        {"newest", first + 24, first, total,
         "the next open drops it, keeps a copy as registry.bin.damaged-N", true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        std::string image = two;
        image[static_cast<size_t>(c.flip)] ^= 0x20;
        store(image);
        const std::string segment =
            "[" + std::to_string(c.start) + ", " + std::to_string(c.stop) + ")";
        const std::string damage = "the segment " + segment +
                                   " of registry.bin, ending at offset " + std::to_string(c.stop) +
                                   ", is damaged: " + c.fate;
        const std::string before = tool.snapshot();
        expectProblem("registry.bin:" + std::to_string(c.stop - 56),
                      "segment " + segment + ": the checksum");
        EXPECT_NE(tool.run({"verify"}).out.find("\ndamage: " + damage), std::string::npos);
        const ToolResult stat = tool.run({"stat"});
        EXPECT_EQ(stat.exitCode, 4);
        EXPECT_NE(stat.out.find("\ndamage         " + damage), std::string::npos) << stat.out;
        EXPECT_EQ(tool.snapshot(), before) << "a check changed the files";

        // A writer's open, in a process of its own (the reading commands
        // repair nothing).
        ASSERT_EQ(inChild([&] {
                      setenv("ZQPUBAPPDATADIR", tool.dir().path().c_str(), 1);
                      setenv("ZQKELTMPSHAREDFILEDIR", tool.dir().path().c_str(), 1);
                      kel::StatusChain s;
                      s.clear();
                      auto* registry = orvane::publicInterface::GetInterface(2, s);
                      return registry->createBucketManager(kel::WString(tool.registry().c_str()),
                                                           kel::WString(), s)
                                 ? 0
                                 : 1;
                  }),
                  0);
        EXPECT_EQ(tool.dir().exists("reg/registry.bin.damaged-1"), c.copied);
        if (c.copied) {
            EXPECT_EQ(tool.dir().read("reg/registry.bin").size(), static_cast<size_t>(first));
            EXPECT_EQ(tool.run({"verify"}).exitCode, 0);
        } else {
            EXPECT_EQ(tool.dir().read("reg/registry.bin"), image);
        }
    }
}

TEST_F(ToolVerifyTest, ATruncatedCommitMarkIsCaught) {
    const std::string mark = tool.dir().read("reg/commitmark.1");
    tool.dir().write("reg/commitmark.1", mark.substr(0, mark.size() - 1));
    const int64_t cut = end() / 10;
    expectProblem("registry.bin:" + std::to_string(cut),
                  "segment ending at " + std::to_string(cut));

    tool.dir().write("reg/commitmark.1", "");
    expectProblem("commitmark.1:0", "does not hold a length");
}

TEST_F(ToolVerifyTest, ARecordLongerThanItsSegmentIsCaught) {
    std::string image = bytes;
    const int64_t index = getI64(image, 8);
    putI64(image, 16, index);  // runs far past the index at `index`
    store(image);
    expectProblem("registry.bin:16", "record length " + std::to_string(index) +
                                         " runs past the record area, which ends at " +
                                         std::to_string(index));
}

TEST_F(ToolVerifyTest, TrailerFieldsAreCheckedOneByOne) {
    struct Field {
        int64_t at;     // where the change goes and the problem is reported
        int64_t value;  // written as a 64-bit word
        const char* what;
    };
    const Field fields[] = {
        {end() - 64, getI64(bytes, 8) + 1, "repeated index position"},
        {end() - 24, end(), "its start"},
        {8, end(), "index position"},
    };
    for (const Field& field : fields) {
        std::string image = bytes;
        putI64(image, static_cast<size_t>(field.at), field.value);
        store(image);
        expectProblem("registry.bin:" + std::to_string(field.at), field.what);
    }
    std::string image = bytes;
    image[end() - 1] = '?';  // the mark
    store(image);
    expectProblem("registry.bin:" + std::to_string(end() - 16), "@@@@SFBSMARK@@@@");

    tool.dir().write("reg/commitmark.1", std::to_string(end() + 10));
    store(bytes);
    expectProblem("registry.bin:" + std::to_string(end()), "before the committed length");
}

// Runs `change` in one committed transaction of a client in a child process
// (a process has one manager): the tool then reads what a client left.
int changeInChild(const ToolRunner& tool,
                  const std::function<void(orvane::IBucketManager&, const kel::Guid&,
                                           kel::StatusChain&)>& change) {
    return inChild([&] {
        setenv("ZQPUBAPPDATADIR", tool.dir().path().c_str(), 1);
        setenv("ZQKELTMPSHAREDFILEDIR", tool.dir().path().c_str(), 1);
        kel::StatusChain status;
        status.clear();
        kel::AutoRef<orvane::IBucketManager> m =
            orvane::publicInterface::GetInterface(2, status)->createBucketManager(
                kel::WString(tool.registry().c_str()), kel::WString(), status);
        if (!m) return 1;
        kel::Guid id;
        m->beginTransaction(id, status);
        m->beginUpdate(id, status);
        change(*m, id, status);
        m->commit(id, status);
        m->endTransaction(id, status);
        return status.isFatal() ? 2 : 0;
    });
}

TEST(ToolVerifyLinksTest, LinksToMissingBucketsAndUnlinkedBucketsAreCaught) {
    using kel::WString;
    ToolRunner tool;
    ASSERT_EQ(tool.run({"set", "-p", "/p/gone", "x", "int32", "1"}).exitCode, 0);
    // A copy of the parent taken with its link, put back after the child was
    // deleted: a client restores the link to a bucket that is not there.
    ASSERT_EQ(
        changeInChild(tool,
                      [](orvane::IBucketManager& m, const kel::Guid& id, kel::StatusChain& s) {
                          kel::AutoRef<orvane::IBucket> p = m.getBucket(WString(L"/p"), s);
                          m.deleteBucket(WString(L"/p/gone"), id, s);
                          m.putBucket(p, true, id, s);
                      }),
        0);
    ToolResult r = tool.run({"verify"});
    EXPECT_EQ(r.exitCode, 1);
    EXPECT_NE(r.out.find("bucket \"/p\" links the child \"/p/gone\", which does not exist"),
              std::string::npos)
        << r.out;

    // A parent deleted and made again has no link to the child it left.
    ToolRunner other;
    ASSERT_EQ(other.run({"set", "-p", "/p/c", "x", "int32", "1"}).exitCode, 0);
    ASSERT_EQ(
        changeInChild(other, [](orvane::IBucketManager& m, const kel::Guid& id,
                                kel::StatusChain& s) { m.deleteBucket(WString(L"/p"), id, s); }),
        0);
    ASSERT_EQ(other.run({"set", "/p", "y", "int32", "1"}).exitCode, 0);
    r = other.run({"verify"});
    EXPECT_EQ(r.exitCode, 1);
    EXPECT_NE(r.out.find("bucket \"/p/c\" is not linked from its parent \"/p\""), std::string::npos)
        << r.out;
}

}  // namespace
}  // namespace test
}  // namespace zq
