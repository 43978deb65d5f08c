// Large values: one size limit for the tool and for a long-running client,
// a blob imported without copies of it beyond the two a commit needs, and
// long strings that look like a blob's hex but are not one.
#include <gtest/gtest.h>

#include <cstdlib>
#include <nlohmann/json.hpp>
#include <random>

#include "support/Child.h"
#include "tools/ToolRunner.h"
#include "zq/orvane/Orvane.h"

namespace zq {
namespace test {
namespace {

using kel::AutoRef;
using kel::StatusChain;
using kel::WString;

std::string randomHex(size_t bytes) {
    static const char kDigits[] = "0123456789abcdef";
    std::mt19937 random(7);
    std::string hex(2 * bytes, '0');
    for (char& c : hex)
        c = kDigits[random() & 15];
    return hex;
}

std::string document(const std::string& values) {
    return R"({"format": "orvane-registry", "version": 1, "buckets": [{"name": "/big", "values": {)" +
           values + "}}]}";
}

std::string blobDocument(size_t bytes) {
    return document(R"("b": {"type": "blob", "value": ")" + randomHex(bytes) + "\"}");
}

// Commits /client with a blob of `bytes` bytes from a client that first
// committed something small, as a service that has run for a while: 0 when
// the blob's commit succeeds, 2 when it is refused for the size limit.
int commitBlobInClient(const ToolRunner& tool, size_t bytes, const std::string& options = "") {
    return inChild([&] {
        setenv("ZQPUBAPPDATADIR", tool.dir().path().c_str(), 1);
        setenv("ZQKELTMPSHAREDFILEDIR", tool.dir().path().c_str(), 1);
        StatusChain status;
        status.clear();
        AutoRef<orvane::IBucketManager> m =
            orvane::publicInterface::GetInterface(2, status)->createBucketManager(
                WString(tool.registry().c_str()), WString(options.c_str()), status);
        if (!m) return 100;
        const auto commit = [&](const wchar_t* name, size_t size) {
            kel::Guid id;
            status.clear();
            m->beginTransaction(id, status);
            m->beginUpdate(id, status);
            AutoRef<orvane::IBucket> bucket = m->createBucket(WString(name), true, status);
            const std::vector<unsigned char> blob(size, 0x5a);
            bucket->setBlobValue(WString(L"b"), blob.data(), static_cast<uint32_t>(size), status,
                                 true);
            m->putBucket(bucket, true, id, status);
            m->commit(id, status);
            const int32_t code = status.getCode();
            StatusChain end;
            end.clear();
            m->endTransaction(id, end);
            return code;
        };
        if (commit(L"/small", 10) != 0) return 101;
        const int32_t code = commit(L"/client", bytes);
        return code == orvane::status::kOverSizeLimit ? 2 : code == 0 ? 0 : 102;
    });
}

TEST(ToolLargeValueTest, OneSizeLimitForTheToolAndALongRunningClient) {
    constexpr size_t kBlob = 2 << 20;  // past the default limit of 1 MiB
    ToolRunner tool;
    ASSERT_EQ(tool.run({"set", "/keep", "x", "int8", "1"}).exitCode, 0);
    ASSERT_EQ(tool.run({"compact"}).exitCode, 0);  // else the next open compacts
    const std::string before = tool.snapshot();
    const ToolResult imported = tool.run({"import", "-"}, blobDocument(kBlob));
    EXPECT_EQ(imported.exitCode, 4);
    EXPECT_NE(imported.err.find("-314529"), std::string::npos) << imported.err;
    EXPECT_NE(imported.err.find("DiskMaxRegistryFileSizeKB"), std::string::npos) << imported.err;
    EXPECT_EQ(tool.snapshot(), before) << "refused before anything was written";

    EXPECT_EQ(commitBlobInClient(tool, kBlob), 2) << "-314529, as for the tool";
    EXPECT_EQ(tool.run({"get", "/client"}).exitCode, 3);
    EXPECT_EQ(tool.run({"get", "/small"}).exitCode, 0) << "its earlier commit stands";
    EXPECT_EQ(tool.run({"set", "/keep", "y", "int8", "2"}).exitCode, 0)
        << "a small change still fits";

    // Raised in the options file, the limit lets both through.
    tool.dir().write("Orvane.ini", "[Orvane]\nDiskMaxRegistryFileSizeKB=8192\n");
    const std::string options = tool.dir().file("Orvane.ini");
    EXPECT_EQ(tool.run({"--options", options, "import", "-"}, blobDocument(kBlob)).exitCode, 0);
    EXPECT_EQ(commitBlobInClient(tool, kBlob, options), 0);
    EXPECT_EQ(tool.run({"verify"}).exitCode, 0);
}

TEST(ToolLargeValueTest, ImportingABlobHoldsItTwiceAtMost) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "a sanitizer's shadow memory is no measure";
#endif
    constexpr size_t kBlob = 20 << 20;
    ToolRunner tool;
    tool.dir().write("Orvane.ini", "[Orvane]\nDiskMaxRegistryFileSizeKB=65536\n");
    const std::string options = tool.dir().file("Orvane.ini");
    tool.dir().write("tiny.json", blobDocument(1));
    tool.dir().write("big.json", blobDocument(kBlob));
    ToolRunner other;
    const ToolResult tiny =
        other.run({"--options", options, "import", tool.dir().file("tiny.json")});
    ASSERT_EQ(tiny.exitCode, 0) << tiny.err;
    const ToolResult big = tool.run({"--options", options, "import", tool.dir().file("big.json")});
    ASSERT_EQ(big.exitCode, 0) << big.err;
    const double ratio =
        static_cast<double>(big.peakKilobytes - tiny.peakKilobytes) / (kBlob / 1024);
    std::printf("import of a 20 MiB blob: peak %ld KB, %ld KB without a blob: %.2f x the blob\n",
                big.peakKilobytes, tiny.peakKilobytes, ratio);
    RecordProperty("peak_ratio", std::to_string(ratio));
    EXPECT_LE(big.peakKilobytes - tiny.peakKilobytes, 2 * static_cast<long>(kBlob / 1024) + 1024);
    EXPECT_EQ(tool.run({"verify"}).exitCode, 0);
}

// A reader that decodes long hex as it reads must give back any long string
// that is not a blob's hex exactly as it was.
TEST(ToolLargeValueTest, LongStringsThatAreNotABlobsHexPassUnchanged) {
    const std::string hex = randomHex(35000);  // 70,000 digits
    std::string upper = hex;
    for (char& c : upper)
        c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    std::string ff;
    for (int i = 0; i < 35000; ++i)
        ff += "ff";
    const struct {
        const char* what;
        std::string member;    // as imported
        std::string exported;  // the value's JSON as export writes it
    } cases[] = {
        {"blob", R"({"type": "blob", "value": ")" + hex + "\"}", '"' + hex + '"'},
        {"upper-case blob", R"({"type": "blob", "value": ")" + upper + "\"}", '"' + hex + '"'},
        {"hex digits as text", R"({"type": "ansistring", "value": ")" + hex + "\"}",
         '"' + hex + '"'},
        {"narrow bytes as hex", R"({"type": "ansistring", "value": {"hex": ")" + ff + "\"}}",
         R"({"hex":")" + ff + "\"}"},
        {"text after hex digits", R"({"type": "string", "value": ")" + hex + " and\\\"more\"}",
         '"' + hex + " and\\\"more\""},
        {"value before type", R"({"value": ")" + hex + R"(", "type": "blob"})", '"' + hex + '"'},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        ToolRunner tool;
        const ToolResult imported = tool.run({"import", "-"}, document("\"v\": " + c.member));
        ASSERT_EQ(imported.exitCode, 0) << imported.err;
        const auto exported = nlohmann::json::parse(tool.run({"export", "/big"}).out);
        EXPECT_EQ(exported["buckets"][0]["values"]["v"]["value"].dump(), c.exported);
    }
    ToolRunner tool;
    const ToolResult odd =
        tool.run({"import", "-"}, document(R"("v": {"type": "blob", "value": ")" + hex + "0\"}"));
    EXPECT_EQ(odd.exitCode, 2);
    EXPECT_NE(odd.err.find("/buckets/0/values/v/value: expected a hex string"), std::string::npos)
        << odd.err;
}

}  // namespace
}  // namespace test
}  // namespace zq
