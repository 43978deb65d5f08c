#include "zq/kel/StringBase.h"

#include <cstdint>
#include <cstring>
#include <type_traits>

#include "kel/CaseFold.h"
#include "kel/Endian.h"
#include "kel/Memory.h"
#include "kel/Throw.h"
#include "kel/Utf8.h"

namespace zq {
namespace kel {

namespace {

constexpr size_t kLengthField = 4;
constexpr wchar_t kDigits[] = L"0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZ";

template <class C>
size_t lengthOf(const C* text) {
    size_t count = 0;
    if (text != nullptr) {
        while (text[count] != 0) {
            ++count;
        }
    }
    return count;
}

template <class C>
constexpr size_t maxLength() {
    // Storage for the characters and the terminator must stay addressable.
    return static_cast<size_t>(PTRDIFF_MAX) / sizeof(C) - 1;
}

template <class C>
void checkLength(size_t a, size_t b) {
    if (a > maxLength<C>() || b > maxLength<C>() - a) {
        ZQ_THROW_DETAIL(BoundExceeded2, "Resulting string too large");
    }
}

// Code-unit order: units compare unsigned (narrow bytes like memcmp), a
// prefix first. Full names share long prefixes: those are passed a word at
// a time.
template <class C>
bool unitsBefore(const C* a, size_t aLength, const C* b, size_t bLength) {
    const size_t n = aLength < bLength ? aLength : bLength;
    constexpr size_t kWord = sizeof(uint64_t) / sizeof(C);
    size_t i = 0;
    for (; i + kWord <= n; i += kWord) {
        uint64_t x;
        uint64_t y;
        std::memcpy(&x, a + i, sizeof x);
        std::memcpy(&y, b + i, sizeof y);
        if (x != y) {
            break;
        }
    }
    for (; i < n; ++i) {
        if (a[i] != b[i]) {
            using Unit = typename std::make_unsigned<C>::type;
            return static_cast<Unit>(a[i]) < static_cast<Unit>(b[i]);
        }
    }
    return aLength < bLength;
}

[[noreturn]] void offsetOutOfRange() { ZQ_THROW_DETAIL(OutOfRange2, "String offset out of range"); }

int digitValue(wchar_t ch) {
    if (ch >= L'0' && ch <= L'9') return ch - L'0';
    if (ch >= L'a' && ch <= L'z') return ch - L'a' + 10;
    if (ch >= L'A' && ch <= L'Z') return ch - L'A' + 10;
    return 99;
}

}  // namespace

template <class C, class O, class W>
void StringBase<C, O, W>::allocate(size_t count) {
    checkLength<C>(count, 0);
    start_ = static_cast<C*>(kel::allocateArray(count + 1, sizeof(C)));
    end_ = start_;
    cap_ = start_ + count + 1;
    *end_ = 0;
}

template <class C, class O, class W>
C* StringBase<C, O, W>::emptyStorage() noexcept {
    // What an empty or moved-from string points at: never written.
    static C storage[1] = {0};
    return storage;
}

template <class C, class O, class W>
void StringBase<C, O, W>::becomeEmpty() noexcept {
    start_ = end_ = emptyStorage();
    cap_ = start_ + 1;
}

template <class C, class O, class W>
void StringBase<C, O, W>::release() noexcept {
    if (start_ != emptyStorage()) {
        kel::deallocate(start_);
    }
    becomeEmpty();
}

template <class C, class O, class W>
void StringBase<C, O, W>::assign(const C* text, size_t count) {
    if (count > capacity() || start_ == emptyStorage()) {
        StringBase fresh(text, count);
        *this = std::move(fresh);
        return;
    }
    std::memmove(start_, text, count * sizeof(C));
    end_ = start_ + count;
    *end_ = 0;
}

template <class C, class O, class W>
StringBase<C, O, W>::StringBase() {
    becomeEmpty();  // an empty string owns no block: most names start out empty
}

template <class C, class O, class W>
StringBase<C, O, W>::StringBase(const C* text) : StringBase(text, lengthOf(text)) {}

template <class C, class O, class W>
StringBase<C, O, W>::StringBase(const C* text, size_t count) {
    if (count == 0) {
        becomeEmpty();
        return;
    }
    allocate(count);
    if (count != 0) {
        std::memcpy(start_, text, count * sizeof(C));
    }
    end_ = start_ + count;
    *end_ = 0;
}

template <class C, class O, class W>
StringBase<C, O, W>::StringBase(const O* text) {
    const size_t count = lengthOf(text);
    if (count == 0) {
        becomeEmpty();
        return;
    }
    if constexpr (std::is_same<C, wchar_t>::value) {
        const auto* in = reinterpret_cast<const unsigned char*>(text);
        const size_t characters = utf8::countCharacters(in, in + count);
        allocate(characters);
        utf8::decodeText(in, in + count, start_);
        end_ = start_ + characters;
    } else {
        const size_t bytes = utf8::measure(text, count);
        allocate(bytes);
        utf8::encodeText(text, count, reinterpret_cast<unsigned char*>(start_));
        end_ = start_ + bytes;
    }
    *end_ = 0;
}

template <class C, class O, class W>
StringBase<C, O, W>::StringBase(const StringBase<O, C, W>& other) : StringBase(other.c_str()) {}

template <class C, class O, class W>
StringBase<C, O, W>::StringBase(const StringBase& other)
    : StringBase(other.start_, other.length()) {}

template <class C, class O, class W>
StringBase<C, O, W>::StringBase(StringBase&& other) noexcept
    : start_(other.start_), end_(other.end_), cap_(other.cap_) {
    other.becomeEmpty();
}

template <class C, class O, class W>
StringBase<C, O, W>::~StringBase() {
    release();
}

template <class C, class O, class W>
StringBase<C, O, W>& StringBase<C, O, W>::operator=(const StringBase& other) {
    if (this != &other) {
        assign(other.start_, other.length());
    }
    return *this;
}

template <class C, class O, class W>
StringBase<C, O, W>& StringBase<C, O, W>::operator=(StringBase&& other) noexcept {
    if (this != &other) {
        release();
        start_ = other.start_;
        end_ = other.end_;
        cap_ = other.cap_;
        other.becomeEmpty();
    }
    return *this;
}

template <class C, class O, class W>
StringBase<C, O, W>& StringBase<C, O, W>::operator=(const C* text) {
    *this = StringBase(text);
    return *this;
}

template <class C, class O, class W>
bool StringBase<C, O, W>::operator==(const StringBase& other) const {
    const size_t n = length();
    return n == other.length() && (n == 0 || std::memcmp(start_, other.start_, n * sizeof(C)) == 0);
}

template <class C, class O, class W>
bool StringBase<C, O, W>::operator<(const StringBase& other) const {
    return unitsBefore(start_, length(), other.start_, other.length());
}

template <class C, class O, class W>
void StringBase<C, O, W>::clear() {
    if (start_ != emptyStorage()) {
        end_ = start_;
        *end_ = 0;
    }
}

template <class C, class O, class W>
void StringBase<C, O, W>::reserve(size_t count) {
    if (start_ != emptyStorage() && count <= capacity()) {
        return;
    }
    StringBase grown;
    grown.release();
    grown.allocate(count);
    const size_t n = length();
    if (n != 0) {
        std::memcpy(grown.start_, start_, n * sizeof(C));
    }
    grown.end_ = grown.start_ + n;
    *grown.end_ = 0;
    *this = std::move(grown);
}

template <class C, class O, class W>
StringBase<C, O, W>& StringBase<C, O, W>::append(const C* text, size_t count) {
    const size_t n = length();
    checkLength<C>(n, count);
    if (count == 0) {
        return *this;
    }
    if (start_ == emptyStorage() || n + count > capacity()) {
        // Grow geometrically so repeated appends stay linear; copy `text`
        // first in case it points into this string.
        StringBase piece(text, count);
        const size_t doubled = n <= maxLength<C>() / 2 ? 2 * n : maxLength<C>();
        reserve(n + count > doubled ? n + count : doubled);
        std::memcpy(start_ + n, piece.start_, count * sizeof(C));
    } else {
        std::memmove(start_ + n, text, count * sizeof(C));
    }
    end_ = start_ + n + count;
    *end_ = 0;
    return *this;
}

template <class C, class O, class W>
StringBase<C, O, W>& StringBase<C, O, W>::operator+=(const C* text) {
    return append(text, lengthOf(text));
}

template <class C, class O, class W>
StringBase<C, O, W> StringBase<C, O, W>::substr(size_t offset, size_t count) const {
    const size_t n = length();
    if (offset > n) {
        offsetOutOfRange();
    }
    const size_t available = n - offset;
    return StringBase(start_ + offset, count < available ? count : available);
}

template <class C, class O, class W>
StringBase<C, O, W>& StringBase<C, O, W>::insert(size_t offset, const StringBase& other) {
    const size_t n = length();
    if (offset > n) {
        offsetOutOfRange();
    }
    checkLength<C>(n, other.length());
    StringBase result;
    result.reserve(n + other.length());
    result.append(start_, offset).append(other.start_, other.length());
    result.append(start_ + offset, n - offset);
    *this = std::move(result);
    return *this;
}

template <class C, class O, class W>
size_t StringBase<C, O, W>::find(C ch, size_t from) const {
    for (size_t i = from; i < length(); ++i) {
        if (start_[i] == ch) {
            return i;
        }
    }
    return npos;
}

template <class C, class O, class W>
size_t StringBase<C, O, W>::rfind(C ch) const {
    for (size_t i = length(); i > 0; --i) {
        if (start_[i - 1] == ch) {
            return i - 1;
        }
    }
    return npos;
}

template <class C, class O, class W>
bool StringBase<C, O, W>::startsWith(const StringBase& prefix) const {
    return prefix.length() <= length() &&
           (prefix.empty() || std::memcmp(start_, prefix.start_, prefix.length() * sizeof(C)) == 0);
}

template <class C, class O, class W>
bool StringBase<C, O, W>::toInt32(int32_t& out, int base) const {
    if (base < 2 || base > 36) {
        return false;
    }
    size_t i = 0;
    const size_t n = length();
    const bool negative = n > 0 && start_[0] == '-';
    if (n > 0 && (start_[0] == '-' || start_[0] == '+')) {
        i = 1;
    }
    if (i == n) {
        return false;
    }
    const int64_t limit = negative ? -static_cast<int64_t>(INT32_MIN) : INT32_MAX;
    int64_t value = 0;
    for (; i < n; ++i) {
        const int digit = digitValue(static_cast<wchar_t>(start_[i]));
        if (digit >= base) {
            return false;
        }
        value = value * base + digit;
        if (value > limit) {
            return false;
        }
    }
    out = static_cast<int32_t>(negative ? -value : value);
    return true;
}

template <class C, class O, class W>
StringBase<C, O, W> StringBase<C, O, W>::fromInt(int64_t value, int base) {
    if (base < 2 || base > 36) {
        ZQ_THROW_DETAIL(InvalidArgument2, "number base must lie in 2 to 36");
    }
    C digits[66];
    size_t at = sizeof digits / sizeof digits[0];
    uint64_t magnitude =
        value < 0 ? 0 - static_cast<uint64_t>(value) : static_cast<uint64_t>(value);
    do {
        digits[--at] = static_cast<C>(kDigits[magnitude % static_cast<uint64_t>(base)]);
        magnitude /= static_cast<uint64_t>(base);
    } while (magnitude != 0);
    if (value < 0) {
        digits[--at] = static_cast<C>('-');
    }
    return StringBase(digits + at, sizeof digits / sizeof digits[0] - at);
}

template <class C, class O, class W>
uint32_t StringBase<C, O, W>::serializationSize() const {
    size_t bytes;
    if constexpr (std::is_same<C, wchar_t>::value) {
        bytes = utf8::measure(start_, length());
    } else {
        bytes = length();
    }
    if (bytes > UINT32_MAX - kLengthField) {
        ZQ_THROW_DETAIL(BoundExceeded2, "string too large for its stored form");
    }
    return static_cast<uint32_t>(kLengthField + bytes);
}

template <class C, class O, class W>
void StringBase<C, O, W>::serialize(unsigned char*& cursor, const unsigned char* end) const {
    const uint32_t size = serializationSize();
    if (cursor > end || static_cast<size_t>(end - cursor) < size) {
        ZQ_THROW(BufferOverflow);
    }
    putU32(cursor, size - static_cast<uint32_t>(kLengthField));
    if constexpr (std::is_same<C, wchar_t>::value) {
        utf8::encodeText(start_, length(), cursor + kLengthField);
    } else if (length() != 0) {
        std::memcpy(cursor + kLengthField, start_, length());
    }
    cursor += size;
}

template <class C, class O, class W>
void StringBase<C, O, W>::deserialize(const unsigned char*& cursor, const unsigned char* end) {
    if (cursor > end || static_cast<size_t>(end - cursor) < kLengthField) {
        ZQ_THROW(DeserializationError);
    }
    const uint32_t bytes = getU32(cursor);
    if (static_cast<size_t>(end - cursor) - kLengthField < bytes) {
        ZQ_THROW(DeserializationError);
    }
    const unsigned char* text = cursor + kLengthField;
    if constexpr (std::is_same<C, wchar_t>::value) {
        const size_t characters = utf8::countCharacters(text, text + bytes);
        // Decoded straight into this string's storage (one allocation at
        // most): records hold many short names.
        if (characters == 0) {
            clear();  // the shared empty storage is never written
        } else {
            if (characters > capacity()) {
                release();
                allocate(characters);
            }
            utf8::decodeText(text, text + bytes, start_);
            end_ = start_ + characters;
            *end_ = 0;
        }
    } else {
        *this = StringBase(reinterpret_cast<const char*>(text), bytes);
    }
    cursor = text + bytes;
}

template class StringBase<wchar_t, char, wchar_t>;
template class StringBase<char, wchar_t, wchar_t>;

bool codeUnitsBefore(const wchar_t* a, size_t aLength, const wchar_t* b, size_t bLength) {
    return unitsBefore(a, aLength, b, bLength);
}

int compareNoCase(const wchar_t* a, const wchar_t* b) {
    for (;; ++a, ++b) {
        const wchar_t x = foldUpper(*a);
        const wchar_t y = foldUpper(*b);
        if (x != y) {
            return x < y ? -1 : 1;
        }
        if (x == 0) {
            return 0;
        }
    }
}

}  // namespace kel
}  // namespace zq
