#include "ini/IniReader.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>

#include "support/TempDir.h"

namespace zq {
namespace ini {
namespace {

class IniReaderTest : public ::testing::Test {
  protected:
    ~IniReaderTest() override { iniDiscard(reader_); }

    int parse(const std::string& text, unsigned flags = 0) {
        iniDiscard(reader_);
        reader_ = iniCreate(flags);
        dir_.write("Orvane.ini", text);
        return iniParseFile(reader_, dir_.file("Orvane.ini").c_str());
    }
    // The value of a key, or "<none>".
    std::string get(const char* section, const char* key) {
        const char* out = reinterpret_cast<const char*>(1);
        const int result = iniGetString(reader_, section, key, &out);
        if (result <= 0) {
            EXPECT_EQ(out, nullptr);
            return "<none>";
        }
        return out;
    }

    test::TempDir dir_;
    IniReader* reader_ = nullptr;
};

TEST_F(IniReaderTest, ByteOrderMarks) {
    const std::string body = "[Orvane]\nDBMode=0640\n";
    EXPECT_EQ(parse("\xEF\xBB\xBF" + body), 1);
    EXPECT_EQ(get("Orvane", "DBMode"), "0640");
    const std::string wide[] = {"\xFF\xFE", "\xFE\xFF", std::string("\xFF\xFE\0\0", 4),
                                std::string("\0\0\xFE\xFF", 4)};
    for (const std::string& mark : wide) {
        EXPECT_EQ(parse(mark + body), kIniUnsupportedBom);
        EXPECT_FALSE(iniHasSection(reader_, "Orvane"));
    }
    EXPECT_EQ(parse("x"), 0);  // shorter than any mark
}

TEST_F(IniReaderTest, SectionsAndKeys) {
    ASSERT_EQ(parse("top=1\n"
                    "  [  Orvane  ]  \n"
                    "a = one \n"
                    "; b=comment\n"
                    "[]\n"
                    "[broken\n"
                    "b=two\n"
                    "a=three\n"
                    "[Other]\n"
                    "a=other\n"
                    "[orvane]\n"
                    "c=x=y\r\n"
                    "noseparator\n"
                    " = nokey\n"
                    "empty=\n"
                    "colon: ignored\n"),
              5);
    EXPECT_EQ(get("(null)", "top"), "1");
    EXPECT_EQ(get("Orvane", "a"), "three");  // last value wins
    EXPECT_EQ(get("Orvane", "b"), "two");    // malformed headers change nothing
    EXPECT_EQ(get("ORVANE", "C"), "x=y");    // repeated section merged; names fold case
    EXPECT_EQ(get("Other", "a"), "other");
    EXPECT_EQ(get("Orvane", "empty"), "<none>");
    EXPECT_EQ(get("Orvane", "colon"), "<none>");
    EXPECT_EQ(get("Orvane", ""), "<none>");
    EXPECT_FALSE(iniHasSection(reader_, "broken"));
    EXPECT_EQ(get("Missing", "a"), "<none>");
}

TEST_F(IniReaderTest, Flags) {
    ASSERT_EQ(parse("[s]\nempty=\ncolon: v\nboth:=w\n", kIniKeepEmptyValues | kIniColonSeparates),
              3);
    EXPECT_EQ(get("s", "empty"), "");
    EXPECT_EQ(get("s", "colon"), "v");
    EXPECT_EQ(get("s", "both"), "w");
}

TEST_F(IniReaderTest, Unescaping) {
    ASSERT_EQ(parse("[s]\nv=a\\tb\\nc\\x41\\x4g\\\\d\\qe\"q\"\\\n"), 1);
    EXPECT_EQ(get("s", "v"),
              "a\tb\ncA"
              "x4g\\dqe\"q\"\\");
    EXPECT_EQ(get("s", "v"),
              "a\tb\ncA"
              "x4g\\dqe\"q\"\\");  // asking again is stable
}

TEST_F(IniReaderTest, FailuresReportTheirCodes) {
    reader_ = iniCreate(0);
    EXPECT_EQ(iniParseFile(reader_, nullptr), kIniNoFile);
    EXPECT_EQ(iniParseFile(reader_, dir_.file("missing.ini").c_str()), kIniNoFile);
    EXPECT_EQ(iniParseFile(reader_, dir_.file("missing/x.ini").c_str()), kIniNoFile);
    EXPECT_EQ(iniParseFile(reader_, dir_.path().c_str()), kIniCannotOpen);
    EXPECT_EQ(iniParseFile(nullptr, "x"), -22);
    const char* out = nullptr;
    EXPECT_EQ(iniGetString(nullptr, "s", "k", &out), -22);
    if (geteuid() != 0) {  // root opens anything
        dir_.write("locked.ini", "[s]\n");
        chmod(dir_.file("locked.ini").c_str(), 0);
        EXPECT_EQ(iniParseFile(reader_, dir_.file("locked.ini").c_str()), kIniCannotOpen);
    }
}

TEST_F(IniReaderTest, ReparsingReplacesContentAndRemembersPath) {
    ASSERT_EQ(parse("[a]\nk=1\n"), 1);
    const std::string path = dir_.file("Orvane.ini");
    EXPECT_EQ(iniPath(reader_), path);
    dir_.write("second.ini", std::string(3000, ' ') + "\n[b]\nk=" + std::string(5000, 'v') + "\n");
    ASSERT_EQ(iniParseFile(reader_, dir_.file("second.ini").c_str()), 1);
    EXPECT_FALSE(iniHasSection(reader_, "a"));
    EXPECT_EQ(get("b", "k"), std::string(5000, 'v'));  // long lines are not cut
    EXPECT_EQ(iniParseFile(reader_, dir_.file("none.ini").c_str()), kIniNoFile);
    EXPECT_FALSE(iniHasSection(reader_, "b"));
}

}  // namespace
}  // namespace ini
}  // namespace zq
