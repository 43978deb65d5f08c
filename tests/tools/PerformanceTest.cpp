// import of 10,000 buckets of 10 values each, and their export, timed as a
// user would time them. The limits hold for release builds.
#include <gtest/gtest.h>

#include <cstdio>

#include "tools/ToolRunner.h"

namespace zq {
namespace test {
namespace {

std::string bigDocument() {
    std::string doc = R"({"format": "orvane-registry", "version": 1, "buckets": [)";
    doc += R"({"name": "/perf", "values": {}})";
    for (int group = 0; group < 100; ++group) {
        const std::string g = "/perf/g" + std::to_string(group);
        doc += R"(, {"name": ")" + g + R"(", "values": {}})";
    }
    for (int i = 0; i < 10000; ++i) {
        doc += R"(, {"name": "/perf/g)" + std::to_string(i % 100) + "/b" + std::to_string(i) +
               R"(", "values": {)";
        doc += R"("count": {"type": "uint32", "value": )" + std::to_string(i) + "}";
        doc +=
            R"(, "name": {"type": "string", "value": "bucket number )" + std::to_string(i) + "\"}";
        doc += R"(, "ratio": {"type": "float64", "value": 0.125})";
        doc += R"(, "on": {"type": "bool", "value": true})";
        doc += R"(, "serial": {"type": "uint64", "value": "18446744073709551615"})";
        doc += R"(, "list": {"type": "int32[]", "value": [1, 2, 3, 4]})";
        doc += R"(, "raw": {"type": "blob", "value": "00112233445566778899"})";
        doc += R"(, "tag": {"type": "ansistring", "value": "t"})";
        doc += R"(, "small": {"type": "int8", "value": -1})";
        doc += R"(, "names": {"type": "string[]", "value": ["a", "b"]})";
        doc += "}}";
    }
    return doc + "]}";
}

TEST(ToolPerformanceTest, ImportAndExportOfTenThousandBuckets) {
    ToolRunner tool;
    tool.dir().write("big.json", bigDocument());
    // About 4 MB once stored, past the default limit of 1 MiB.
    tool.dir().write("Orvane.ini", "[Orvane]\nDiskMaxRegistryFileSizeKB=16384\n");
    const ToolResult imported = tool.run(
        {"--options", tool.dir().file("Orvane.ini"), "import", tool.dir().file("big.json")});
    ASSERT_EQ(imported.exitCode, 0) << imported.err;
    EXPECT_EQ(imported.err,
              "orvane: created " + tool.registry() + "\nimported 10101 buckets, 100000 values\n");
    const ToolResult exported = tool.run({"export", "/perf", "-o", tool.dir().file("out.json")});
    ASSERT_EQ(exported.exitCode, 0) << exported.err;
    std::printf("import of 10,000 buckets x 10 values: %.3f s; export: %.3f s\n", imported.seconds,
                exported.seconds);
    RecordProperty("import_seconds", std::to_string(imported.seconds));
    RecordProperty("export_seconds", std::to_string(exported.seconds));
    EXPECT_EQ(tool.run({"ls", "/perf/g7"}).out.substr(0, 17), "/perf/g7/b1007\n/p");
#if ORVANE_TOOL_TIMED
    EXPECT_LT(imported.seconds, 3.0);
    EXPECT_LT(exported.seconds, 1.0);
#endif
}

}  // namespace
}  // namespace test
}  // namespace zq
