#ifndef ZQ_ORVANE_RECORDREADER_H
#define ZQ_ORVANE_RECORDREADER_H

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "kel/Endian.h"
#include "kel/Throw.h"

namespace zq {
namespace orvane {

// Reads little-endian fields at a caller's cursor, which it advances. Any
// field that would run past `end` throws DeserializationError before anything
// is read, so a corrupt length can never make a caller allocate for bytes that
// are not there.
class RecordReader {
  public:
    RecordReader(const unsigned char*& cursor, const unsigned char* end)
        : cursor_(cursor), end_(end) {
        if (cursor_ == nullptr || end_ == nullptr || cursor_ > end_) {
            ZQ_THROW(DeserializationError);
        }
    }

    size_t remaining() const { return static_cast<size_t>(end_ - cursor_); }
    // Throws unless `count` items of at least `each` bytes could still follow.
    void requireItems(size_t count, size_t each) const {
        if (each != 0 && count > remaining() / each) {
            ZQ_THROW(DeserializationError);
        }
    }
    const unsigned char* take(size_t count) {
        requireItems(count, 1);
        const unsigned char* at = cursor_;
        cursor_ += count;
        return at;
    }
    uint32_t u32() { return kel::getU32(take(4)); }
    // Reads `count` numbers of T, already checked to fit, into `out`.
    template <class T>
    void numbers(T* out, size_t count) {
        requireItems(count, sizeof(T));
        const unsigned char* in = take(count * sizeof(T));
        for (size_t i = 0; i < count; ++i) {
            unsigned char raw[sizeof(T)];
#if __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__
            for (size_t b = 0; b < sizeof(T); ++b) {
                raw[b] = in[i * sizeof(T) + sizeof(T) - 1 - b];
            }
#else
            std::memcpy(raw, in + i * sizeof(T), sizeof(T));
#endif
            std::memcpy(out + i, raw, sizeof(T));
        }
    }

    // A narrow string's stored form: its byte count with the closing 0, then
    // the bytes and the 0. Its text and length without the 0; a form without
    // its 0 is damage.
    const unsigned char* narrowText(uint32_t& length) {
        const uint32_t counted = u32();
        if (counted == 0) {
            ZQ_THROW(DeserializationError);
        }
        const unsigned char* bytes = take(counted);
        if (bytes[counted - 1] != 0) {
            ZQ_THROW(DeserializationError);
        }
        length = counted - 1;
        return bytes;
    }

    const unsigned char*& cursor() { return cursor_; }
    const unsigned char* end() const { return end_; }

  private:
    const unsigned char*& cursor_;
    const unsigned char* end_;
};

}  // namespace orvane
}  // namespace zq

#endif  // ZQ_ORVANE_RECORDREADER_H
