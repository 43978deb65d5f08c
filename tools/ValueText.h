#ifndef ORVANE_TOOLS_VALUETEXT_H
#define ORVANE_TOOLS_VALUETEXT_H

#include <cstdint>
#include <limits>
#include <string>
#include <type_traits>
#include <vector>

#include "ValueAccess.h"
#include "zq/orvane/Orvane.h"

namespace orvane_tool {

// Strict numbers: the whole text, decimal or "0x" hex for integers, no
// sign on unsigned ones, no spaces, within the type's range.
bool parseSigned(const std::string& text, int64_t min, int64_t max, int64_t& out);
bool parseUnsigned(const std::string& text, uint64_t max, uint64_t& out);

template <class T>
bool parseInteger(const std::string& text, T& out) {
    static_assert(std::is_integral<T>::value && !std::is_same<T, bool>::value, "integers only");
    if constexpr (std::is_signed<T>::value) {
        int64_t v = 0;
        if (!parseSigned(text, std::numeric_limits<T>::min(), std::numeric_limits<T>::max(), v))
            return false;
        out = static_cast<T>(v);
    } else {
        uint64_t v = 0;
        if (!parseUnsigned(text, std::numeric_limits<T>::max(), v)) return false;
        out = static_cast<T>(v);
    }
    return true;
}

// Floats: a decimal number, "inf", "-inf", "nan", "-nan", or "0x" and the
// exact bit pattern (8 hex digits for float32, 16 for float64). A finite
// number too large for the type is refused.
bool parseFloat(const std::string& text, float& out);
bool parseFloat(const std::string& text, double& out);
// The shortest text that reads back to the same bits; NaNs other than the
// two plain ones are written as their bit pattern.
std::string floatText(float value);
std::string floatText(double value);
// A finite float32 as the double whose shortest form reads back to it.
double float32AsDouble(float value);

bool parseBool(const std::string& text, bool& out);

// One line of text for a value: numbers as typed, strings quoted, blobs and
// digests in hex, arrays in brackets. `raw` leaves a string value unquoted.
std::string valueText(const zq::orvane::IBucketValue& value, bool raw = false);

// A value of type `tag` from the command line's words; ToolError (usage)
// naming the bad word otherwise.
ValueMaker valueFromArguments(uint32_t tag, const std::vector<std::string>& words);

}  // namespace orvane_tool

#endif  // ORVANE_TOOLS_VALUETEXT_H
