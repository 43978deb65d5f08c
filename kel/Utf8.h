#ifndef ZQ_KEL_UTF8_H
#define ZQ_KEL_UTF8_H

#include <cstddef>
#include <cstdint>

namespace zq {
namespace kel {
namespace utf8 {

// The encoder writes up to six bytes (0 to 0x7FFFFFFF); values with the top
// bit set have no encoding and are written as "?" by the string conversions.
constexpr size_t kMaxSequence = 6;

// Bytes that `encode` writes for `codePoint`: 1 to 6, or 0 when it has no
// encoding.
size_t encodedLength(uint32_t codePoint);

// Writes `codePoint` into [out, out + space); returns the bytes written, or 0
// when it has no encoding or does not fit (nothing is written then).
size_t encode(uint32_t codePoint, unsigned char* out, size_t space);

// Reads one sequence at `in`; returns its length and stores the value through
// `codePoint` when that is not null. Throws InvalidSequence on a malformed or
// cut-off sequence. Six-byte leads (0xF8 to 0xFD) are the only long form: the
// encoder's five-byte sequences do not read back.
size_t decode(const unsigned char* in, const unsigned char* end, uint32_t* codePoint);

// UTF-8 length of a wide text, counting "?" for values without an encoding.
size_t measure(const wchar_t* text, size_t count);

// Encodes a wide text into exactly `measure(text, count)` bytes at `out`.
void encodeText(const wchar_t* text, size_t count, unsigned char* out);

// Number of characters in [in, end), validating every sequence.
size_t countCharacters(const unsigned char* in, const unsigned char* end);

// Decodes [in, end) into `out`, which has room for countCharacters() values.
void decodeText(const unsigned char* in, const unsigned char* end, wchar_t* out);

}  // namespace utf8
}  // namespace kel
}  // namespace zq

#endif  // ZQ_KEL_UTF8_H
