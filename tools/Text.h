#ifndef ORVANE_TOOLS_TEXT_H
#define ORVANE_TOOLS_TEXT_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "zq/kel/StringBase.h"

namespace orvane_tool {

// A wide string holds any 32-bit values; only Unicode scalar values have a
// standard UTF-8 form.
bool isScalarText(const zq::kel::WString& text);
// UTF-8 of a wide string that isScalarText accepts.
std::string toUtf8(const zq::kel::WString& text);
// Strict UTF-8 (no surrogates, no overlong forms); false on anything else.
bool isUtf8(const std::string& bytes);
bool fromUtf8(const std::string& bytes, zq::kel::WString& out);
// Throws ToolError (usage) naming `what` when `bytes` is not UTF-8.
zq::kel::WString argumentText(const std::string& bytes, const char* what);

std::string toHex(const unsigned char* bytes, size_t size);
// Whole-text hex, either case, even length; false otherwise.
bool fromHex(const std::string& text, std::vector<unsigned char>& out);

// A string in double quotes with JSON escapes, for one-line display of text
// that may hold anything.
std::string quotedText(const std::string& utf8OrBytes);

// The message of a library status: "-314528: the parent bucket does not exist".
std::string describeStatus(int32_t code);

// The bytes of a file the user named (a value, a document): the user's
// own file, read with standard streams, not through the store's file layer.
// ToolError: not found when it cannot be opened, a store error when a read fails.
std::string readUserFile(const std::string& path);

// A bucket path as the user typed it, checked: "/" or "/a/b".
zq::kel::WString bucketPath(const std::string& text);

}  // namespace orvane_tool

#endif  // ORVANE_TOOLS_TEXT_H
