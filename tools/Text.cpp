#include "Text.h"

#include <cstdio>
#include <fstream>
#include <iterator>

#include "Tool.h"
#include "zq/orvane/StatusCodes.h"

namespace orvane_tool {

namespace {

bool isScalar(uint32_t c) { return c <= 0x10FFFF && (c < 0xD800 || c > 0xDFFF); }

}  // namespace

bool isScalarText(const zq::kel::WString& text) {
    for (wchar_t c : text) {
        if (!isScalar(static_cast<uint32_t>(c))) return false;
    }
    return true;
}

std::string toUtf8(const zq::kel::WString& text) {
    std::string out;
    out.reserve(text.length());
    for (wchar_t wc : text) {
        const uint32_t c = static_cast<uint32_t>(wc);
        if (c < 0x80) {
            out += static_cast<char>(c);
        } else if (c < 0x800) {
            out += static_cast<char>(0xC0 | (c >> 6));
            out += static_cast<char>(0x80 | (c & 0x3F));
        } else if (c < 0x10000) {
            out += static_cast<char>(0xE0 | (c >> 12));
            out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
            out += static_cast<char>(0x80 | (c & 0x3F));
        } else {
            out += static_cast<char>(0xF0 | (c >> 18));
            out += static_cast<char>(0x80 | ((c >> 12) & 0x3F));
            out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
            out += static_cast<char>(0x80 | (c & 0x3F));
        }
    }
    return out;
}

namespace {

// Decodes one strict sequence; 0 when malformed.
size_t decodeOne(const unsigned char* in, const unsigned char* end, uint32_t& c) {
    const unsigned char lead = in[0];
    size_t length;
    uint32_t min;
    if (lead < 0x80) {
        c = lead;
        return 1;
    } else if (lead >= 0xC2 && lead <= 0xDF) {
        length = 2, min = 0x80, c = lead & 0x1F;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
        length = 3, min = 0x800, c = lead & 0x0F;
    } else if (lead >= 0xF0 && lead <= 0xF4) {
        length = 4, min = 0x10000, c = lead & 0x07;
    } else {
        return 0;
    }
    if (static_cast<size_t>(end - in) < length) return 0;
    for (size_t i = 1; i < length; ++i) {
        if ((in[i] & 0xC0) != 0x80) return 0;
        c = (c << 6) | (in[i] & 0x3F);
    }
    return (c >= min && isScalar(c)) ? length : 0;
}

}  // namespace

bool isUtf8(const std::string& bytes) {
    zq::kel::WString ignored;
    return fromUtf8(bytes, ignored);
}

bool fromUtf8(const std::string& bytes, zq::kel::WString& out) {
    const auto* in = reinterpret_cast<const unsigned char*>(bytes.data());
    const unsigned char* end = in + bytes.size();
    std::vector<wchar_t> chars;
    chars.reserve(bytes.size());
    while (in < end) {
        uint32_t c = 0;
        const size_t length = decodeOne(in, end, c);
        if (length == 0) return false;
        chars.push_back(static_cast<wchar_t>(c));
        in += length;
    }
    out = zq::kel::WString(chars.data(), chars.size());
    return true;
}

zq::kel::WString argumentText(const std::string& bytes, const char* what) {
    zq::kel::WString text;
    if (!fromUtf8(bytes, text)) {
        throw ToolError(kExitUsage,
                        std::string(what) + " is not valid UTF-8: " + quotedText(bytes));
    }
    return text;
}

std::string toHex(const unsigned char* bytes, size_t size) {
    static const char kDigits[] = "0123456789abcdef";
    std::string out(size * 2, '0');
    for (size_t i = 0; i < size; ++i) {
        out[2 * i] = kDigits[bytes[i] >> 4];
        out[2 * i + 1] = kDigits[bytes[i] & 15];
    }
    return out;
}

bool fromHex(const std::string& text, std::vector<unsigned char>& out) {
    auto digit = [](char c) -> int {
        if (c >= '0' && c <= '9') return c - '0';
        if (c >= 'a' && c <= 'f') return c - 'a' + 10;
        if (c >= 'A' && c <= 'F') return c - 'A' + 10;
        return -1;
    };
    if (text.size() % 2 != 0) return false;
    std::vector<unsigned char> bytes(text.size() / 2);
    for (size_t i = 0; i < bytes.size(); ++i) {
        const int high = digit(text[2 * i]);
        const int low = digit(text[2 * i + 1]);
        if (high < 0 || low < 0) return false;
        bytes[i] = static_cast<unsigned char>(high * 16 + low);
    }
    out.swap(bytes);
    return true;
}

std::string quotedText(const std::string& text) {
    std::string out = "\"";
    for (unsigned char c : text) {
        switch (c) {
            case '"':
                out += "\\\"";
                break;
            case '\\':
                out += "\\\\";
                break;
            case '\n':
                out += "\\n";
                break;
            case '\r':
                out += "\\r";
                break;
            case '\t':
                out += "\\t";
                break;
            default:
                if (c < 0x20 || c == 0x7F) {
                    char escape[8];
                    std::snprintf(escape, sizeof escape, "\\u%04x", c);
                    out += escape;
                } else {
                    out += static_cast<char>(c);
                }
        }
    }
    return out + "\"";
}

std::string describeStatus(int32_t code) {
    const char* text = zq::orvane::status::describe(code);
    return std::to_string(code) + ": " + (text != nullptr ? text : "unknown status code");
}

zq::kel::WString bucketPath(const std::string& text) {
    const zq::kel::WString path = argumentText(text, "the bucket path");
    bool good = !path.empty() && path[0] == L'/';
    for (size_t i = 1; good && i < path.length(); ++i) {
        good = !(path[i] == L'/' && path[i - 1] == L'/');
    }
    if (good && path.length() > 1 && path[path.length() - 1] == L'/') good = false;
    if (!good) {
        throw ToolError(kExitUsage, "bad bucket path " + quotedText(text) +
                                        ": a path is \"/\" or \"/name/name...\"");
    }
    return path;
}

std::string readUserFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) throw ToolError(kExitNotFound, "cannot read " + path);
    std::string bytes{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    if (in.bad()) throw ToolError(kExitStore, "cannot read " + path);
    return bytes;
}

}  // namespace orvane_tool
