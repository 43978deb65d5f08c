#ifndef ORVANE_TOOLS_ASSIGNMENTS_H
#define ORVANE_TOOLS_ASSIGNMENTS_H

#include <cstdint>
#include <string>
#include <vector>

#include "ValueAccess.h"
#include "zq/kel/StringBase.h"

namespace orvane_tool {

// One "NAME TYPE VALUE" group of `set`.
struct Assignment {
    std::string name;  // as typed, for messages
    zq::kel::WString valueName;
    uint32_t tag;
    ValueMaker make;
};

// The groups after set's PATH, every value read and checked before the
// registry is opened; ToolError (usage) names the first bad word.
//
// A VALUE word is taken as typed, except that "-" reads standard input,
// "@FILE" reads FILE and "@@TEXT" is the text "@TEXT". A blob read so is
// the file's bytes (typed, it is hex); a string takes the bytes exactly;
// any other type drops the whitespace that ends the text. An array type
// takes the words up to a lone "@" or the end.
std::vector<Assignment> parseAssignments(const std::vector<std::string>& words);

// For --help: the rules above, for the user.
extern const char kAssignmentRules[];

}  // namespace orvane_tool

#endif  // ORVANE_TOOLS_ASSIGNMENTS_H
