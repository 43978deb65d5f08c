#include "Assignments.h"

#include <iostream>
#include <iterator>

#include "Text.h"
#include "Tool.h"
#include "ValueText.h"
#include "ValueTypes.h"
#include "zq/orvane/ValueType.h"

namespace orvane_tool {

using zq::kel::WString;

const char kAssignmentRules[] =
    "A VALUE of - reads standard input, @FILE reads FILE (a blob: the file's bytes; a string: "
    "its bytes exactly; other types: its text less trailing whitespace), and @@TEXT is the "
    "literal @TEXT (a value that is just - comes from a file or standard input). An array type "
    "takes the words up to a lone @ or the end: "
    "set /p list int32[] 1 2 @ mtu uint16 1500.";

namespace {

const char kArrayEnd[] = "@";

// Reads what a VALUE word names, once per command for standard input.
class WordReader {
  public:
    std::string read(const std::string& word, uint32_t tag) {
        if (word == "-") return fitted(standardInput(), tag);
        if (word.size() < 2 || word[0] != '@') return word;
        if (word[1] == '@') return word.substr(1);
        return fitted(readUserFile(word.substr(1)), tag);
    }

  private:
    std::string standardInput() {
        if (readInput_) throw ToolError(kExitUsage, "standard input (-) can give one value only");
        readInput_ = true;
        return std::string(std::istreambuf_iterator<char>(std::cin),
                           std::istreambuf_iterator<char>());
    }

    // Blobs are typed in hex but read as bytes; text values keep every byte.
    static std::string fitted(const std::string& bytes, uint32_t tag) {
        using namespace zq::orvane;
        if (tag == kBLOB) {
            return toHex(reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size());
        }
        if (tag == kSTRING || tag == kANSISTRING || tag == kSTRINGARRAY ||
            tag == kANSISTRINGARRAY) {
            return bytes;
        }
        const size_t end = bytes.find_last_not_of(" \t\r\n");
        return bytes.substr(0, end == std::string::npos ? 0 : end + 1);
    }

    bool readInput_ = false;
};

WString checkedValueName(const std::string& name) {
    const WString valueName = argumentText(name, "the value name");
    if (valueName.empty()) throw ToolError(kExitUsage, "the value name is empty");
    if (valueName[0] == L'/') {
        throw ToolError(kExitUsage, "the value name " + quotedText(name) +
                                        " begins with \"/\": such names are the links to "
                                        "child buckets");
    }
    return valueName;
}

uint32_t checkedType(const std::string& type) {
    const uint32_t tag = typeTag(type);
    if (tag == 0) {
        throw ToolError(kExitUsage,
                        "unknown type " + quotedText(type) + "; types: " + typeNameList());
    }
    return tag;
}

}  // namespace

std::vector<Assignment> parseAssignments(const std::vector<std::string>& words) {
    std::vector<Assignment> assignments;
    WordReader reader;
    size_t i = 0;
    while (i < words.size()) {
        if (words.size() - i < 2) {
            throw ToolError(kExitUsage, "the value " + quotedText(words[i]) + " has no TYPE");
        }
        Assignment a{words[i], checkedValueName(words[i]), checkedType(words[i + 1]), {}};
        for (const Assignment& earlier : assignments) {
            if (zq::kel::equalsNoCase(earlier.valueName.c_str(), a.valueName.c_str())) {
                throw ToolError(kExitUsage, "the value " + quotedText(a.name) +
                                                " is named twice (value names ignore case)");
            }
        }
        i += 2;
        std::vector<std::string> values;
        if (isArrayTag(a.tag)) {
            for (; i < words.size() && words[i] != kArrayEnd; ++i) {
                values.push_back(reader.read(words[i], a.tag));
            }
            if (i < words.size()) ++i;
        } else {
            if (i == words.size() || words[i] == kArrayEnd) {
                throw ToolError(kExitUsage, "the value " + quotedText(a.name) + " has no VALUE");
            }
            values.push_back(reader.read(words[i++], a.tag));
        }
        a.make = valueFromArguments(a.tag, values);
        assignments.push_back(std::move(a));
    }
    return assignments;
}

}  // namespace orvane_tool
