#ifndef ORVANE_TOOLS_VALUETYPES_H
#define ORVANE_TOOLS_VALUETYPES_H

#include <cstdint>
#include <string>

namespace orvane_tool {

// The names users type for the 28 value tags ("int32", "string[]", ...).
// Null for a tag that is not a real type.
const char* typeName(uint32_t tag);
// The tag of a name, or 0 (kNOTSET) when the name is unknown.
uint32_t typeTag(const std::string& name);
// "bool, int8, ..." for messages and help.
std::string typeNameList();

bool isArrayTag(uint32_t tag);

}  // namespace orvane_tool

#endif  // ORVANE_TOOLS_VALUETYPES_H
