#ifndef ZQ_ORVANE_RECORDWRITER_H
#define ZQ_ORVANE_RECORDWRITER_H

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "kel/Endian.h"
#include "kel/Throw.h"

namespace zq {
namespace orvane {

// Appends little-endian fields at a caller's cursor, which it advances; a
// field that does not fit before `end` throws BufferOverflow and writes
// nothing of that field.
class RecordWriter {
  public:
    RecordWriter(unsigned char*& cursor, const unsigned char* end) : cursor_(cursor), end_(end) {}

    void require(size_t bytes) const {
        if (cursor_ == nullptr || cursor_ > end_ || static_cast<size_t>(end_ - cursor_) < bytes) {
            ZQ_THROW(BufferOverflow);
        }
    }
    void u32(uint32_t value) {
        require(4);
        kel::putU32(cursor_, value);
        cursor_ += 4;
    }
    void bytes(const void* data, size_t count) {
        require(count);
        if (count != 0) {
            std::memcpy(cursor_, data, count);
        }
        cursor_ += count;
    }
    // Writes `count` numbers of T (integers or IEEE floats) little-endian.
    template <class T>
    void numbers(const T* values, size_t count) {
        require(count * sizeof(T));
        for (size_t i = 0; i < count; ++i) {
            putNumber(cursor_ + i * sizeof(T), values[i]);
        }
        cursor_ += count * sizeof(T);
    }

    unsigned char*& cursor() { return cursor_; }
    const unsigned char* end() const { return end_; }

  private:
    template <class T>
    static void putNumber(unsigned char* out, T value) {
        unsigned char raw[sizeof(T)];
        std::memcpy(raw, &value, sizeof(T));
#if __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__
        for (size_t i = 0; i < sizeof(T); ++i) {
            out[i] = raw[sizeof(T) - 1 - i];
        }
#else
        std::memcpy(out, raw, sizeof(T));
#endif
    }

    unsigned char*& cursor_;
    const unsigned char* end_;
};

}  // namespace orvane
}  // namespace zq

#endif  // ZQ_ORVANE_RECORDWRITER_H
