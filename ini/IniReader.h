#ifndef ZQ_INI_INIREADER_H
#define ZQ_INI_INIREADER_H

// A small reader of ini files in the manner of the C library: plain functions
// over an opaque reader, negative errno-style return codes, no exceptions.
// Section and key names compare without regard to ASCII case.
//
// A reader is not safe for concurrent use; distinct readers are independent.

namespace zq {
namespace ini {

struct IniReader;

// Behaviour flags given to iniCreate.
constexpr unsigned kIniKeepEmptyValues = 0x1;  // "key=" is kept with an empty value
constexpr unsigned kIniColonSeparates = 0x8;   // ":" (or ":=") separates like "="

// Return codes of iniParseFile besides plain negative errno values.
constexpr int kIniNoFile = -22;         // missing file, or a null path
constexpr int kIniCannotOpen = -5001;   // exists but cannot be opened or read as a file
constexpr int kIniUnsupportedBom = -3;  // a UTF-16 or UTF-32 byte-order mark
constexpr int kIniOutOfMemory = -12;

// Null when memory runs out.
IniReader* iniCreate(unsigned flags);

// Replaces the reader's content with the file's. Returns the number of keys
// held (0 or more) or a negative code; on failure the reader is left empty.
int iniParseFile(IniReader* reader, const char* path);

// The path last parsed successfully, or "" when none.
const char* iniPath(const IniReader* reader);

bool iniHasSection(const IniReader* reader, const char* section);

// 1 and the unescaped value in `out` (owned by the reader until iniDiscard)
// when the key exists in the section; otherwise 0, or a negative code for bad
// arguments or lack of memory, with `out` null.
int iniGetString(IniReader* reader, const char* section, const char* key, const char** out);

void iniDiscard(IniReader* reader);

}  // namespace ini
}  // namespace zq

#endif  // ZQ_INI_INIREADER_H
