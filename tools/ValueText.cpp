#include "ValueText.h"

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>

#include "Session.h"
#include "Text.h"
#include "Tool.h"
#include "ValueAccess.h"
#include "ValueTypes.h"

namespace orvane_tool {

using zq::kel::AutoRef;
using zq::kel::NString;
using zq::kel::StatusChain;
using zq::kel::WString;
using zq::orvane::IBucketManager;
using zq::orvane::IBucketValue;

namespace {

bool allHex(const char* p) {
    if (*p == 0) return false;
    for (; *p != 0; ++p) {
        if (!std::isxdigit(static_cast<unsigned char>(*p))) return false;
    }
    return true;
}

bool allDigits(const char* p) {
    if (*p == 0) return false;
    for (; *p != 0; ++p) {
        if (*p < '0' || *p > '9') return false;
    }
    return true;
}

// Magnitude of "123" or "0x7b" without sign; false on anything else.
bool parseMagnitude(const char* p, uint64_t& out) {
    int base = 10;
    if (p[0] == '0' && (p[1] == 'x' || p[1] == 'X')) {
        p += 2;
        base = 16;
        if (!allHex(p)) return false;
    } else if (!allDigits(p)) {
        return false;
    }
    errno = 0;
    char* end = nullptr;
    out = std::strtoull(p, &end, base);
    return errno == 0 && *end == 0;
}

// A decimal number as JSON writes one; strtod alone would also take hex
// floats, "infinity", leading spaces.
bool isDecimal(const char* p) {
    if (*p == '-' || *p == '+') ++p;
    bool digits = false;
    while (*p >= '0' && *p <= '9')
        ++p, digits = true;
    if (*p == '.') {
        ++p;
        while (*p >= '0' && *p <= '9')
            ++p, digits = true;
    }
    if (!digits) return false;
    if (*p == 'e' || *p == 'E') {
        ++p;
        if (*p == '-' || *p == '+') ++p;
        if (!(*p >= '0' && *p <= '9')) return false;
        while (*p >= '0' && *p <= '9')
            ++p;
    }
    return *p == 0;
}

template <class Float, class Bits>
bool parseFloatText(const std::string& text, Float& out, Float (*convert)(const char*, char**)) {
    const char* p = text.c_str();
    if (text.size() == 2 + 2 * sizeof(Bits) && p[0] == '0' && p[1] == 'x' && allHex(p + 2)) {
        const Bits bits = static_cast<Bits>(std::strtoull(p + 2, nullptr, 16));
        std::memcpy(&out, &bits, sizeof out);
        return true;
    }
    if (text == "inf" || text == "-inf" || text == "nan" || text == "-nan") {
        out = text[0] == '-' ? -std::numeric_limits<Float>::infinity()
                             : std::numeric_limits<Float>::infinity();
        if (text.find("nan") != std::string::npos) {
            out = std::copysign(std::numeric_limits<Float>::quiet_NaN(), text[0] == '-' ? -1 : 1);
        }
        return true;
    }
    if (!isDecimal(p)) return false;
    errno = 0;
    char* end = nullptr;
    out = convert(p, &end);
    // Underflow to a tiny or zero value is rounding; overflow is not.
    return *end == 0 && !std::isinf(out);
}

template <class Float, class Bits>
std::string specialText(Float value) {
    Bits bits;
    std::memcpy(&bits, &value, sizeof bits);
    if (std::isinf(value)) return value < 0 ? "-inf" : "inf";
    Float plain = std::numeric_limits<Float>::quiet_NaN();
    Bits plainBits;
    std::memcpy(&plainBits, &plain, sizeof plainBits);
    const Bits sign = Bits(1) << (8 * sizeof(Bits) - 1);
    if (bits == plainBits) return "nan";
    if (bits == (plainBits | sign)) return "-nan";
    char out[24];
    std::snprintf(out, sizeof out, "0x%0*llx", static_cast<int>(2 * sizeof(Bits)),
                  static_cast<unsigned long long>(bits));
    return out;
}

template <class Float>
bool sameBits(Float a, Float b) {
    return std::memcmp(&a, &b, sizeof a) == 0;
}

// Shortest "%.*g" that reads back; for float32 it must read back through a
// double, as a JSON reader sees it.
template <class Float>
std::string shortest(Float value) {
    char text[40];
    for (int precision = 1; precision <= 17; ++precision) {
        std::snprintf(text, sizeof text, "%.*g", precision, static_cast<double>(value));
        if (sameBits(static_cast<Float>(std::strtod(text, nullptr)), value)) break;
    }
    return text;
}

}  // namespace

bool parseSigned(const std::string& text, int64_t min, int64_t max, int64_t& out) {
    const bool negative = !text.empty() && text[0] == '-';
    uint64_t magnitude = 0;
    if (!parseMagnitude(text.c_str() + (negative ? 1 : 0), magnitude)) return false;
    if (negative) {
        if (magnitude > static_cast<uint64_t>(-(min + 1)) + 1) return false;
        out = magnitude == 0 ? 0 : -static_cast<int64_t>(magnitude - 1) - 1;
    } else {
        if (magnitude > static_cast<uint64_t>(max)) return false;
        out = static_cast<int64_t>(magnitude);
    }
    return true;
}

bool parseUnsigned(const std::string& text, uint64_t max, uint64_t& out) {
    return parseMagnitude(text.c_str(), out) && out <= max;
}

bool parseFloat(const std::string& text, float& out) {
    return parseFloatText<float, uint32_t>(text, out, std::strtof);
}

bool parseFloat(const std::string& text, double& out) {
    return parseFloatText<double, uint64_t>(text, out, std::strtod);
}

std::string floatText(float value) {
    return std::isfinite(value) ? shortest(value) : specialText<float, uint32_t>(value);
}

std::string floatText(double value) {
    return std::isfinite(value) ? shortest(value) : specialText<double, uint64_t>(value);
}

double float32AsDouble(float value) { return std::strtod(shortest(value).c_str(), nullptr); }

bool parseBool(const std::string& text, bool& out) {
    if (text == "true" || text == "1") return out = true, true;
    if (text == "false" || text == "0") return out = false, true;
    return false;
}

// ---------------------------------------------------------------- rendering

namespace {

std::string narrowText(const NString& text, bool raw) {
    const std::string bytes(text.c_str(), text.length());
    if (raw) return bytes;
    return isUtf8(bytes)
               ? quotedText(bytes)
               : "hex:" + toHex(reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size());
}

std::string wideText(const WString& text, bool raw) {
    if (isScalarText(text)) return raw ? toUtf8(text) : quotedText(toUtf8(text));
    std::string out = "codepoints:";
    for (size_t i = 0; i < text.length(); ++i) {
        out += (i ? "," : "") + std::to_string(static_cast<uint32_t>(text[i]));
    }
    return out;
}

template <class T>
std::string elementText(T value) {
    if constexpr (std::is_same<T, bool>::value) {
        return value ? "true" : "false";
    } else if constexpr (std::is_floating_point<T>::value) {
        return floatText(value);
    } else {
        return std::to_string(value);
    }
}

std::string bracketed(const std::vector<std::string>& items) {
    std::string out = "[";
    for (size_t i = 0; i < items.size(); ++i)
        out += (i ? ", " : "") + items[i];
    return out + "]";
}

}  // namespace

std::string valueText(const IBucketValue& value, bool raw) {
    StatusChain status;
    status.clear();
    std::string text;
    const uint32_t tag = value.getType();
    switch (tag) {
        case zq::orvane::kDIGEST: {
            const zq::orvane::Digest digest = value.getDigest(status);
            text = toHex(digest.bytes(), zq::orvane::Digest::kSize);
            break;
        }
        case zq::orvane::kANSISTRING:
            text = narrowText(value.getAnsiString(status), raw);
            break;
        case zq::orvane::kSTRING:
            text = wideText(value.getString(status), raw);
            break;
        case zq::orvane::kBLOB: {
            const std::vector<unsigned char> bytes = blobOf(value, status);
            text = toHex(bytes.data(), bytes.size());
            break;
        }
        case zq::orvane::kANSISTRINGARRAY:
        case zq::orvane::kSTRINGARRAY: {
            std::vector<std::string> items;
            for (uint32_t i = 0; i < value.getArraySize(); ++i) {
                items.push_back(tag == zq::orvane::kANSISTRINGARRAY
                                    ? narrowText(value.getAnsiStringArrayElement(i, status), false)
                                    : wideText(value.getStringArrayElement(i, status), false));
            }
            text = bracketed(items);
            break;
        }
        default:
            if (!visitPlainKind(tag, [&](auto kind, bool isArray) {
                    using K = decltype(kind);
                    if (!isArray) {
                        text = elementText(K::get(value, status));
                        return;
                    }
                    std::vector<std::string> items;
                    for (typename K::type element : arrayElements<K>(value, status)) {
                        items.push_back(elementText(element));
                    }
                    text = bracketed(items);
                })) {
                text = "<unset>";
            }
    }
    checkStatus(status, "reading a value");
    return text;
}

// ---------------------------------------------------------------- parsing

namespace {

[[noreturn]] void badWord(uint32_t tag, const std::string& word) {
    throw ToolError(kExitUsage,
                    "not a valid " + std::string(typeName(tag)) + ": " + quotedText(word));
}

template <class T>
T parseElement(uint32_t tag, const std::string& word) {
    T value{};
    bool good;
    if constexpr (std::is_same<T, bool>::value) {
        good = parseBool(word, value);
    } else if constexpr (std::is_floating_point<T>::value) {
        good = parseFloat(word, value);
    } else {
        good = parseInteger(word, value);
    }
    if (!good) badWord(tag, word);
    return value;
}

}  // namespace

// The parts of a value in its command-line words, each checked as parsed.
struct WordSource {
    uint32_t tag;
    const std::vector<std::string>& words;

    const std::string& word(size_t i) const { return words[i == kWhole ? 0 : i]; }

    size_t count() const { return words.size(); }
    zq::orvane::Digest digest() const {
        std::vector<unsigned char> bytes;
        if (words[0].size() != 64 || !fromHex(words[0], bytes)) badWord(tag, words[0]);
        const unsigned char* cursor = bytes.data();
        return zq::orvane::Digest(cursor, cursor + bytes.size());
    }
    std::vector<unsigned char> blob() const {
        std::vector<unsigned char> bytes;
        if (!fromHex(words[0], bytes)) badWord(tag, words[0]);
        return bytes;
    }
    // Narrow strings take the argument's bytes as they are.
    NString narrow(size_t i) const { return NString(word(i).data(), word(i).size()); }
    WString wide(size_t i) const {
        return argumentText(word(i), i == kWhole ? "the string value" : "a string element");
    }
    template <class T>
    T element(size_t i) const {
        return parseElement<T>(tag, word(i));
    }
};

ValueMaker valueFromArguments(uint32_t tag, const std::vector<std::string>& words) {
    if (!isArrayTag(tag) && words.size() != 1) {
        throw ToolError(kExitUsage, "a " + std::string(typeName(tag)) +
                                        " value takes exactly one word, got " +
                                        std::to_string(words.size()));
    }
    WordSource source{tag, words};
    const RawValueMaker maker = makerFor(tag, source);
    return checkedMaker(maker);
}

}  // namespace orvane_tool
