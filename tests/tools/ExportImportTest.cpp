// export and import: a document that carries every value exactly, checked
// whole before one transaction writes it.
#include <gtest/gtest.h>

#include <cstdlib>
#include <functional>
#include <nlohmann/json.hpp>

#include "support/Child.h"
#include "tools/ToolRunner.h"
#include "zq/orvane/Orvane.h"

namespace zq {
namespace test {
namespace {

using kel::AutoRef;
using kel::WString;

// Runs `use` in a client of the tool's registry in a child process (a
// process has one manager), in one committed transaction: 0 when it
// returned true and all succeeded.
int inClient(
    const ToolRunner& tool,
    const std::function<bool(orvane::IBucketManager&, const kel::Guid&, kel::StatusChain&)>& use) {
    return inChild([&] {
        setenv("ZQPUBAPPDATADIR", tool.dir().path().c_str(), 1);
        setenv("ZQKELTMPSHAREDFILEDIR", tool.dir().path().c_str(), 1);
        kel::StatusChain status;
        status.clear();
        AutoRef<orvane::IBucketManager> m =
            orvane::publicInterface::GetInterface(2, status)->createBucketManager(
                WString(tool.registry().c_str()), WString(), status);
        if (!m) return 1;
        kel::Guid id;
        m->beginTransaction(id, status);
        m->beginUpdate(id, status);
        const bool good = use(*m, id, status);
        m->commit(id, status);
        m->endTransaction(id, status);
        return good && status.isNotFatal() ? 0 : 2;
    });
}

// Values no plain JSON number or string could carry: NaN payloads, signed
// zeros, 64-bit extremes, bytes that are not UTF-8, characters that are not
// Unicode.
const char kAwkward[] = R"({
  "format": "orvane-registry",
  "version": 1,
  "buckets": [
    {"name": "/", "values": {"top": {"type": "bool", "value": true}}},
    {"name": "/odd", "values": {
      "nan32": {"type": "float32", "value": "0x7fc00123"},
      "nan64": {"type": "float64", "value": "0xfff0000000000001"},
      "negzero": {"type": "float64", "value": -0.0},
      "inf": {"type": "float32", "value": "-inf"},
      "tiny": {"type": "float64", "value": 5e-324},
      "third": {"type": "float32", "value": 0.3333333432674408},
      "u64": {"type": "uint64", "value": "18446744073709551615"},
      "i64": {"type": "int64[]", "value": ["-9223372036854775808", "9223372036854775807"]},
      "bytes": {"type": "ansistring", "value": {"hex": "00ff80"}},
      "narrow": {"type": "ansistring[]", "value": ["ok", {"hex": "c3"}]},
      "wide": {"type": "string", "value": {"codepoints": [55296, 1114112, 65]}},
      "nul": {"type": "string", "value": "a\u0000b"},
      "empty": {"type": "blob", "value": ""},
      "d": {"type": "digest", "value": "ffeeddccbbaa99887766554433221100ffeeddccbbaa99887766554433221100"},
      "a/b": {"type": "uint8[]", "value": []}
    }},
    {"name": "/odd/child", "values": {}},
    {"name": "/\u00e9t\u00e9", "values": {"s": {"type": "string[]", "value": ["\u20ac", ""]}}}
  ]
})";

TEST(ToolExportImportTest, ExportThenImportIntoAnEmptyRegistryGivesTheSameExport) {
    ToolRunner first;
    ASSERT_EQ(first.run({"set", "-p", "/x/y", "n", "int32", "5"}).exitCode, 0);
    ASSERT_EQ(first.run({"import", "-"}, kAwkward).exitCode, 0);
    const ToolResult exported = first.run({"export"});
    ASSERT_EQ(exported.exitCode, 0) << exported.err;

    ToolRunner second;
    second.dir().write("doc.json", exported.out);
    const ToolResult imported = second.run({"import", second.dir().file("doc.json")});
    ASSERT_EQ(imported.exitCode, 0) << imported.err;
    EXPECT_EQ(second.run({"export"}).out, exported.out);
    EXPECT_EQ(second.run({"verify"}).exitCode, 0);

    // The awkward values survived both trips bit for bit.
    const auto doc = nlohmann::json::parse(exported.out);
    const auto& odd = doc["buckets"][1]["values"];
    EXPECT_EQ(doc["buckets"][1]["name"], "/odd");
    EXPECT_EQ(odd["nan32"]["value"], "0x7fc00123");
    EXPECT_EQ(odd["nan64"]["value"], "0xfff0000000000001");
    EXPECT_EQ(odd["negzero"]["value"].dump(), "-0.0");
    EXPECT_EQ(odd["inf"]["value"], "-inf");
    EXPECT_EQ(odd["tiny"]["value"].dump(), "5e-324");
    EXPECT_EQ(odd["third"]["value"].dump(), "0.33333334");
    EXPECT_EQ(odd["u64"]["value"], "18446744073709551615");
    EXPECT_EQ(odd["i64"]["value"][0], "-9223372036854775808");
    EXPECT_EQ(odd["bytes"]["value"]["hex"], "00ff80");
    EXPECT_EQ(odd["narrow"]["value"][1]["hex"], "c3");
    EXPECT_EQ(odd["wide"]["value"]["codepoints"].dump(), "[55296,1114112,65]");
    EXPECT_EQ(odd["nul"]["value"], std::string("a\0b", 3));
    EXPECT_FALSE(odd.contains("/odd/child")) << "child links are not values";
    EXPECT_EQ(second.run({"get", "/odd", "a/b"}).out, "[]\n");
}

// Names a client stored that are not Unicode text: a lone surrogate, a
// value past U+10FFFF. A second registry built from the export holds the
// very same names, and a narrow string's stray bytes come back as they were.
TEST(ToolExportImportTest, NamesThatAreNotUnicodeTextRoundTrip) {
    const WString bucket(L"/odd\xD800");
    const WString named(L"v\xDC00");
    const WString far(L"w\x110000");
    const auto store = [&](orvane::IBucketManager& m, const kel::Guid& id, kel::StatusChain& s) {
        AutoRef<orvane::IBucket> b = m.createBucket(bucket, true, s);
        b->setInt32Value(named, 7, s, true);
        b->setAnsiStringValue(far, kel::NString("\xff\xfe"), s, true);
        m.putBucket(b, true, id, s);
    };
    const auto check = [&](orvane::IBucketManager& m, const kel::Guid&, kel::StatusChain& s) {
        AutoRef<orvane::IBucket> b = m.getBucket(bucket, s);
        if (!b || b->getFullName() != bucket) return false;
        AutoRef<orvane::IBucketValue> v = b->getValue(named, s);
        AutoRef<orvane::IBucketValue> w = b->getValue(far, s);
        return v && v->getInt32(s) == 7 && w && w->getAnsiString(s) == kel::NString("\xff\xfe") &&
               s.isNotFatal();
    };
    ToolRunner first;
    ASSERT_EQ(inClient(first,
                       [&](auto& m, const auto& id, auto& s) {
                           store(m, id, s);
                           return true;
                       }),
              0);
    const ToolResult exported = first.run({"export"});
    ASSERT_EQ(exported.exitCode, 0) << exported.err;
    const auto doc = nlohmann::json::parse(exported.out);
    EXPECT_EQ(doc["buckets"][1]["name"]["codepoints"].dump(), "[47,111,100,100,55296]");

    ToolRunner second;
    const ToolResult imported = second.run({"import", "-"}, exported.out);
    ASSERT_EQ(imported.exitCode, 0) << imported.err;
    EXPECT_EQ(inClient(second, check), 0);
    EXPECT_EQ(second.run({"export"}).out, exported.out);
}

TEST(ToolExportImportTest, ExportOfASubtreeAndToAFile) {
    ToolRunner tool;
    ASSERT_EQ(tool.run({"set", "-p", "/a/b", "x", "int8", "1"}).exitCode, 0);
    ASSERT_EQ(tool.run({"set", "/c", "y", "int8", "2"}).exitCode, 0);
    ASSERT_EQ(tool.run({"export", "/a", "-o", tool.dir().file("a.json")}).exitCode, 0);
    const auto doc = nlohmann::json::parse(tool.dir().read("a.json"));
    ASSERT_EQ(doc["buckets"].size(), 2u);
    EXPECT_EQ(doc["buckets"][0]["name"], "/a");
    EXPECT_EQ(doc["buckets"][1]["name"], "/a/b");
    EXPECT_EQ(tool.run({"export", "/nope"}).exitCode, 3);
}

TEST(ToolExportImportTest, ImportReplacesTheValuesOfTheBucketsItNames) {
    ToolRunner tool;
    ASSERT_EQ(tool.run({"set", "-p", "/a/kid", "k", "int8", "1"}).exitCode, 0);
    ASSERT_EQ(tool.run({"set", "/a", "old", "int8", "1"}).exitCode, 0);
    ASSERT_EQ(tool.run({"set", "/other", "z", "int8", "3"}).exitCode, 0);
    const char doc[] =
        R"({"format": "orvane-registry", "version": 1, "buckets": [
             {"name": "/a", "values": {"new": {"type": "int8", "value": 2}}}]})";
    ASSERT_EQ(tool.run({"import", "-"}, doc).exitCode, 0);
    EXPECT_EQ(tool.run({"get", "/a"}).out, "new (int8) = 2\n");
    EXPECT_EQ(tool.run({"ls", "-r"}).out, "/a\n/a/kid\n/other\n") << "children and others stay";
}

TEST(ToolExportImportTest, BadDocumentsNameTheFirstBadElementAndWriteNothing) {
    ToolRunner tool;
    ASSERT_EQ(tool.run({"set", "/keep", "x", "int32", "1"}).exitCode, 0);
    const std::string before = tool.snapshot();
    const std::string head = R"({"format": "orvane-registry", "version": 1, "buckets": [)";
    const std::string good = R"({"name": "/ok", "values": {"a": {"type": "int8", "value": 1}}}, )";
    const std::vector<std::pair<std::string, std::string>> cases = {
        {head + good + R"({"name": "/b", "values": {"speed": {"type": "uint8", "value": 256}}}]})",
         "/buckets/1/values/speed/value"},
        {head + good +
             R"({"name": "/b", "values": {"a/b": {"type": "int8[]", "value": [1, "x"]}}}]})",
         "/buckets/1/values/a~1b/value/1"},
        {head + good + R"({"name": "/b", "values": {"s": {"type": "strnig", "value": ""}}}]})",
         "/buckets/1/values/s/type"},
        {head + good + R"({"name": "b", "values": {}}]})", "/buckets/1/name"},
        {head + good + R"({"name": "/b", "values": {"/zzz": {"type": "int8", "value": 1}}}]})",
         "/buckets/1/values/~1zzz"},
        {head + good + R"({"name": "/OK", "values": {}}]})", "/buckets/1/name"},
        {head + R"({"name": "/p/q", "values": {}}]})", "/buckets/0/name"},
        {head + R"({"name": "/b", "values": {"/s": {"name": {"codepoints": [47, 120]},
                                               "type": "bool", "value": true}}}]})",
         "/buckets/0/values/~1s/name"},
        {head + R"({"name": "/b", "values": {"X": {"type": "bool", "value": true},
                                               "x": {"type": "bool", "value": true}}}]})",
         "/buckets/0/values/x"},
        {head + R"({"name": "/b", "values": {"x": {"type": "bool", "value": true},
                                               "x": {"type": "bool", "value": false}}}]})",
         "/buckets/0/values/x"},
        {head + R"({"name": "/b", "value": {}}]})", "/buckets/0/value"},
        {head + R"({"name": "/b", "values": {"d": {"type": "digest", "value": "00"}}}]})",
         "/buckets/0/values/d/value"},
        {head + R"({"name": "/b", "values": {"f": {"type": "float32", "value": 1e39}}}]})",
         "/buckets/0/values/f/value"},
        {head + R"({"name": "/b", "values": {"i": {"type": "int64", "value": 1.5}}}]})",
         "/buckets/0/values/i/value"},
        {R"({"format": "orvane-registry", "version": 2, "buckets": []})", "/version"},
        {R"([])", "/"},
    };
    for (const auto& [document, pointer] : cases) {
        const ToolResult r = tool.run({"import", "-"}, document);
        EXPECT_EQ(r.exitCode, 2) << pointer;
        EXPECT_NE(r.err.find(": " + pointer + ": "), std::string::npos) << pointer << "\n" << r.err;
    }
    const ToolResult syntax = tool.run({"import", "-"}, head + "{");
    EXPECT_EQ(syntax.exitCode, 2);
    EXPECT_NE(syntax.err.find("not JSON"), std::string::npos) << syntax.err;
    EXPECT_EQ(tool.run({"import", tool.dir().file("missing.json")}).exitCode, 3);
    EXPECT_EQ(tool.snapshot(), before);
    EXPECT_EQ(tool.run({"ls"}).out, "/keep\n");
}

}  // namespace
}  // namespace test
}  // namespace zq
