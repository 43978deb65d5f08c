#ifndef ZQ_KEL_STRINGBASE_H
#define ZQ_KEL_STRINGBASE_H

#include <cstddef>
#include <cstdint>

#include "zq/kel/Export.h"

namespace zq {
namespace kel {

// A string of C code units. Wide strings (C = wchar_t) hold one code point per
// element; narrow strings hold UTF-8. Conversions between the two go through
// UTF-8. The characters are always followed by a terminating zero.
//
// Instantiated only for the two aliases below; the members are defined in the
// library.
template <class C, class Other, class Wide>
class ZQ_EXPORT StringBase {
  public:
    static constexpr size_t npos = static_cast<size_t>(-1);

    StringBase();
    StringBase(const C* text);  // NOLINT(google-explicit-constructor): null gives ""
    StringBase(const C* text, size_t count);
    explicit StringBase(const Other* text);
    explicit StringBase(const StringBase<Other, C, Wide>& other);
    StringBase(const StringBase& other);
    StringBase(StringBase&& other) noexcept;
    ~StringBase();

    StringBase& operator=(const StringBase& other);
    StringBase& operator=(StringBase&& other) noexcept;
    StringBase& operator=(const C* text);

    size_t length() const { return static_cast<size_t>(end_ - start_); }
    bool empty() const { return end_ == start_; }
    size_t capacity() const { return static_cast<size_t>(cap_ - start_) - 1; }
    const C* c_str() const { return start_; }
    const C* begin() const { return start_; }
    const C* end() const { return end_; }
    C operator[](size_t index) const { return start_[index]; }
    C& operator[](size_t index) { return start_[index]; }

    bool operator==(const StringBase& other) const;
    bool operator!=(const StringBase& other) const { return !(*this == other); }
    // Plain code-unit order.
    bool operator<(const StringBase& other) const;

    void clear();
    void reserve(size_t count);
    StringBase& append(const C* text, size_t count);
    StringBase& operator+=(const StringBase& other) { return append(other.start_, other.length()); }
    StringBase& operator+=(const C* text);
    StringBase& operator+=(C ch) { return append(&ch, 1); }

    // Offsets beyond the length throw OutOfRange2; a result too long to
    // represent throws BoundExceeded2.
    StringBase substr(size_t offset, size_t count = npos) const;
    StringBase& insert(size_t offset, const StringBase& other);
    size_t find(C ch, size_t from = 0) const;
    size_t rfind(C ch) const;
    bool startsWith(const StringBase& prefix) const;

    // Parses the whole text as a signed 32-bit integer in `base` (2 to 36):
    // optional sign, then digits only. False, leaving `out` alone, on anything
    // else or on overflow.
    bool toInt32(int32_t& out, int base = 10) const;
    static StringBase fromInt(int64_t value, int base = 10);

    // Stored form: 4-byte little-endian byte count, then the UTF-8 bytes.
    uint32_t serializationSize() const;
    void serialize(unsigned char*& cursor, const unsigned char* end) const;
    void deserialize(const unsigned char*& cursor, const unsigned char* end);

  private:
    void allocate(size_t count);
    void assign(const C* text, size_t count);
    void release() noexcept;
    void becomeEmpty() noexcept;
    static C* emptyStorage() noexcept;

    C* start_;
    C* end_;
    C* cap_;  // one past the end of the storage, terminator included
};

using WString = StringBase<wchar_t, char, wchar_t>;
using NString = StringBase<char, wchar_t, wchar_t>;

extern template class StringBase<wchar_t, char, wchar_t>;
extern template class StringBase<char, wchar_t, wchar_t>;

// The order of WString::operator< for two wide texts given by their units.
ZQ_EXPORT bool codeUnitsBefore(const wchar_t* a, size_t aLength, const wchar_t* b, size_t bLength);

// Case-insensitive order of two wide C strings, each character folded to its
// simple Unicode upper case (the same in every locale): negative, 0 or
// positive; a prefix sorts first.
ZQ_EXPORT int compareNoCase(const wchar_t* a, const wchar_t* b);
inline bool equalsNoCase(const wchar_t* a, const wchar_t* b) { return compareNoCase(a, b) == 0; }

}  // namespace kel
}  // namespace zq

#endif  // ZQ_KEL_STRINGBASE_H
