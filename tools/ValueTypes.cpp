#include "ValueTypes.h"

#include "zq/orvane/ValueType.h"

namespace orvane_tool {

namespace {

using namespace zq::orvane;

// Indexed by tag.
const char* const kNames[kValueTypeCount] = {
    nullptr,    "digest",  "ansistring", "string",    "blob",         "bool",
    "int8",     "uint8",   "int16",      "uint16",    "int32",        "uint32",
    "int64",    "uint64",  "float32",    "float64",   "ansistring[]", "string[]",
    "bool[]",   "int8[]",  "uint8[]",    "int16[]",   "uint16[]",     "int32[]",
    "uint32[]", "int64[]", "uint64[]",   "float32[]", "float64[]"};

}  // namespace

const char* typeName(uint32_t tag) { return tag < kValueTypeCount ? kNames[tag] : nullptr; }

uint32_t typeTag(const std::string& name) {
    for (uint32_t tag = 1; tag < kValueTypeCount; ++tag) {
        if (name == kNames[tag]) return tag;
    }
    return kNOTSET;
}

std::string typeNameList() {
    std::string list;
    // Scalars first, as a user reads them.
    for (uint32_t tag : {kBOOL, kINT8, kUINT8, kINT16, kUINT16, kINT32, kUINT32, kINT64, kUINT64,
                         kFLOAT32, kFLOAT64, kANSISTRING, kSTRING, kBLOB, kDIGEST}) {
        list += std::string(kNames[tag]) + ", ";
    }
    for (uint32_t tag = kANSISTRINGARRAY; tag < kValueTypeCount; ++tag) {
        list += std::string(kNames[tag]) + (tag + 1 < kValueTypeCount ? ", " : "");
    }
    return list;
}

bool isArrayTag(uint32_t tag) { return tag >= kANSISTRINGARRAY && tag <= kFLOAT64ARRAY; }

}  // namespace orvane_tool
