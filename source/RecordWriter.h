#ifndef ZQ_ORVANE_RECORDWRITER_H
#define ZQ_ORVANE_RECORDWRITER_H

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "kel/Endian.h"
#include "kel/Throw.h"

namespace zq {
namespace orvane {

// Takes a writer's full buffer, e.g. to the file, and hands back room, so
// that a record larger than the buffer is written in pieces.
class RecordSink {
  public:
    // Afterwards [cursor, end) holds at least `bytes`.
    virtual void makeRoom(unsigned char*& cursor, const unsigned char*& end, size_t bytes) = 0;

  protected:
    ~RecordSink() = default;
};

// Appends little-endian fields at a caller's cursor, which it advances; a
// field that does not fit before `end` throws BufferOverflow and writes
// nothing of that field, unless a sink makes room for it.
class RecordWriter {
  public:
    RecordWriter(unsigned char*& cursor, const unsigned char* end, RecordSink* sink = nullptr)
        : cursor_(cursor), end_(end), sink_(sink) {}

    void require(size_t bytes) {
        if (cursor_ == nullptr || cursor_ > end_ || static_cast<size_t>(end_ - cursor_) < bytes) {
            if (sink_ == nullptr) {
                ZQ_THROW(BufferOverflow);
            }
            sink_->makeRoom(cursor_, end_, bytes);
        }
    }
    // A field that serializes itself, e.g. a string. A plain writer relies
    // on its caller having required the room.
    template <class T>
    void serialized(const T& field) {
        if (sink_ != nullptr) {
            require(field.serializationSize());
        }
        field.serialize(cursor_, end_);
    }
    void u32(uint32_t value) {
        require(4);
        kel::putU32(cursor_, value);
        cursor_ += 4;
    }
    void bytes(const void* data, size_t count) {
        if (sink_ != nullptr && room() < count) {
            bytesInPieces(static_cast<const unsigned char*>(data), count);
            return;
        }
        require(count);
        if (count != 0) {
            std::memcpy(cursor_, data, count);
        }
        cursor_ += count;
    }
    // Writes `count` numbers of T (integers or IEEE floats) little-endian.
    template <class T>
    void numbers(const T* values, size_t count) {
        if (sink_ != nullptr && count > 1 && room() < count * sizeof(T)) {
            for (size_t i = 0; i < count; ++i) {
                numbers(values + i, 1);
            }
            return;
        }
        require(count * sizeof(T));
        for (size_t i = 0; i < count; ++i) {
            putNumber(cursor_ + i * sizeof(T), values[i]);
        }
        cursor_ += count * sizeof(T);
    }

    unsigned char*& cursor() { return cursor_; }
    const unsigned char* end() const { return end_; }

  private:
    size_t room() const {
        return cursor_ != nullptr && cursor_ < end_ ? static_cast<size_t>(end_ - cursor_) : 0;
    }
    void bytesInPieces(const unsigned char* data, size_t count) {
        while (count != 0) {
            require(1);
            const size_t piece = std::min(room(), count);
            std::memcpy(cursor_, data, piece);
            cursor_ += piece;
            data += piece;
            count -= piece;
        }
    }

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
    RecordSink* sink_;
};

}  // namespace orvane
}  // namespace zq

#endif  // ZQ_ORVANE_RECORDWRITER_H
