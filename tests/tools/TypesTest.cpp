// Every value type by name through set, get and get --json, and the values
// that set must refuse without writing anything.
#include <gtest/gtest.h>

#include "tools/ToolRunner.h"

namespace zq {
namespace test {
namespace {

struct TypeCase {
    const char* type;
    std::vector<std::string> words;
    const char* text;  // what `get PATH NAME` prints
    const char* json;  // the "value" member of `get --json`, compact
};

const std::string kDigest = "00112233445566778899aabbccddeeff00112233445566778899aabbccddeeff";

std::vector<TypeCase> typeCases() {
    return {
        {"bool", {"true"}, "true", "true"},
        {"int8", {"-128"}, "-128", "-128"},
        {"uint8", {"255"}, "255", "255"},
        {"int16", {"-32768"}, "-32768", "-32768"},
        {"uint16", {"0xffff"}, "65535", "65535"},
        {"int32", {"-2147483648"}, "-2147483648", "-2147483648"},
        {"uint32", {"4294967295"}, "4294967295", "4294967295"},
        {"int64", {"-9223372036854775808"}, "-9223372036854775808", "\"-9223372036854775808\""},
        {"uint64", {"18446744073709551615"}, "18446744073709551615", "\"18446744073709551615\""},
        {"float32", {"0.1"}, "0.1", "0.1"},
        {"float64", {"-0.0"}, "-0", "-0.0"},
        {"ansistring", {"caf\xc3\xa9"}, "caf\xc3\xa9", "\"caf\xc3\xa9\""},
        {"string", {"\xe2\x82\xac 5"}, "\xe2\x82\xac 5", "\"\xe2\x82\xac 5\""},
        {"blob", {"00FF10"}, "00ff10", "\"00ff10\""},
        {"digest", {kDigest}, kDigest.c_str(), nullptr},
        {"ansistring[]", {"a", "", "b c"}, "[\"a\", \"\", \"b c\"]", "[\"a\",\"\",\"b c\"]"},
        {"string[]", {"x"}, "[\"x\"]", "[\"x\"]"},
        {"bool[]", {"1", "0", "false"}, "[true, false, false]", "[true,false,false]"},
        {"int8[]", {"-1", "127"}, "[-1, 127]", "[-1,127]"},
        {"uint8[]", {}, "[]", "[]"},
        {"int16[]", {"-2"}, "[-2]", "[-2]"},
        {"uint16[]", {"7", "8"}, "[7, 8]", "[7,8]"},
        {"int32[]", {"1", "-2", "3"}, "[1, -2, 3]", "[1,-2,3]"},
        {"uint32[]", {"0x10"}, "[16]", "[16]"},
        {"int64[]", {"-1", "4294967296"}, "[-1, 4294967296]", "[\"-1\",\"4294967296\"]"},
        {"uint64[]",
         {"18446744073709551615"},
         "[18446744073709551615]",
         "[\"18446744073709551615\"]"},
        {"float32[]",
         {"inf", "-nan", "0x7fc00001"},
         "[inf, -nan, 0x7fc00001]",
         "[\"inf\",\"-nan\",\"0x7fc00001\"]"},
        {"float64[]", {"1e300", "nan", "2.5"}, "[1e+300, nan, 2.5]", "[1e+300,\"nan\",2.5]"},
    };
}

std::string compact(const std::string& json) {
    std::string out;
    bool inString = false;
    for (size_t i = 0; i < json.size(); ++i) {
        const char c = json[i];
        if (c == '"' && (i == 0 || json[i - 1] != '\\')) inString = !inString;
        if (!inString && (c == ' ' || c == '\n')) continue;
        out += c;
    }
    return out;
}

TEST(ToolTypesTest, EveryTypeByNameStoresAndReadsBack) {
    ToolRunner tool;
    const std::vector<TypeCase> cases = typeCases();
    ASSERT_EQ(cases.size(), 28u);
    for (const TypeCase& c : cases) {
        std::vector<std::string> args{"set",  "-p", "/types", std::string("v_") + c.type,
                                      c.type, "--"};
        args.insert(args.end(), c.words.begin(), c.words.end());
        const ToolResult set = tool.run(args);
        ASSERT_EQ(set.exitCode, 0) << c.type << ": " << set.err;
    }
    for (const TypeCase& c : cases) {
        const std::string name = std::string("v_") + c.type;
        EXPECT_EQ(tool.run({"get", "/types", name}).out, std::string(c.text) + "\n") << c.type;
        const std::string json = compact(tool.run({"get", "/types", name, "--json"}).out);
        const std::string expected = std::string("{\"type\":\"") + c.type + "\",\"value\":" +
                                     (c.json != nullptr ? c.json : "\"" + kDigest + "\"") + "}";
        EXPECT_EQ(json, expected) << c.type;
    }
    EXPECT_EQ(tool.run({"verify"}).exitCode, 0);
}

TEST(ToolTypesTest, NarrowStringsKeepAnyBytes) {
    ToolRunner tool;
    const std::string bytes("\xff\x01 raw", 6);
    ASSERT_EQ(tool.run({"set", "/n", "x", "ansistring", bytes}).exitCode, 0);
    EXPECT_EQ(tool.run({"get", "/n", "x"}).out, bytes + "\n");
    EXPECT_EQ(tool.run({"get", "/n"}).out, "x (ansistring) = hex:ff0120726177\n");
    EXPECT_EQ(compact(tool.run({"get", "/n", "x", "--json"}).out),
              "{\"type\":\"ansistring\",\"value\":{\"hex\":\"ff0120726177\"}}");
}

TEST(ToolTypesTest, BadValuesAreUsageErrorsAndWriteNothing) {
    ToolRunner tool;
    ASSERT_EQ(tool.run({"set", "/t", "keep", "int32", "1"}).exitCode, 0);
    const std::string before = tool.snapshot();
    const std::vector<std::vector<std::string>> refused = {
        {"int8", "128"},
        {"int8", "-129"},
        {"uint8", "-1"},
        {"uint8", "256"},
        {"int16", "1.5"},
        {"uint16", "65536"},
        {"int32", "2147483648"},
        {"uint32", " 1"},
        {"int64", "9223372036854775808"},
        {"uint64", "18446744073709551616"},
        {"uint64", "+1"},
        {"int32", "12abc"},
        {"int32", ""},
        {"float32", "1e39"},
        {"float64", "1e309"},
        {"float64", "0x1p3"},
        {"float32", "fast"},
        {"bool", "yes"},
        {"blob", "abc"},
        {"blob", "zz"},
        {"digest", "00ff"},
        {"string", std::string("\xff", 1)},
        {"int32", "1", "2"},
        {"int32[]", "1", "x"},
        {"float64[]", "nan", "1e999"},
        {"bool[]", "true", "2"},
        {"int33", "1"},
        {"string"},
    };
    for (const auto& words : refused) {
        std::vector<std::string> args{"set", "/t", "keep", words[0], "--"};
        args.insert(args.end(), words.begin() + 1, words.end());
        const ToolResult r = tool.run(args);
        EXPECT_EQ(r.exitCode, 2) << words[0] << " " << (words.size() > 1 ? words[1] : "");
        EXPECT_FALSE(r.err.empty());
    }
    EXPECT_EQ(tool.snapshot(), before);
    EXPECT_EQ(tool.run({"get", "/t", "keep"}).out, "1\n");
}

}  // namespace
}  // namespace test
}  // namespace zq
