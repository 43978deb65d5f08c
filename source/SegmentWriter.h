#ifndef ZQ_ORVANE_SEGMENTWRITER_H
#define ZQ_ORVANE_SEGMENTWRITER_H

#include <cstdint>
#include <utility>
#include <vector>

#include "kel/osdep/File.h"
#include "source/RecordWriter.h"
#include "source/SegmentFormat.h"
#include "source/Sha256.h"

namespace zq {
namespace orvane {

// Writes one segment at the end of a file in pieces from a bounded buffer,
// hashing each piece as it goes out, so that a commit of a large value never
// holds a second copy of it. A segment that fits the buffer goes out in one
// write. The shape is fixed up front, as the header names where the index
// and the trailer will be. Nothing is synced: the caller syncs once, and
// cuts the file back when a write throws.
class SegmentWriter : private RecordSink {
  public:
    static constexpr size_t kPieceSize = 1 << 20;

    using Updates = std::vector<std::pair<DigestKey, int64_t>>;

    SegmentWriter(kel::osdep::File& file, int64_t start, int64_t previousIndex, size_t records,
                  int64_t recordBytes, size_t deletions, size_t pieceSize = kPieceSize);
    SegmentWriter(const SegmentWriter&) = delete;
    SegmentWriter& operator=(const SegmentWriter&) = delete;

    int64_t end() const { return end_; }
    SegmentDescriptor descriptor(uint32_t number) const;
    // Where the next record will be, were all before it `length` bytes long.
    static int64_t nextOffset(int64_t offset, int64_t length) {
        return offset + segment::kRecordLengthSize + length;
    }
    int64_t firstOffset() const { return start_ + segment::kHeaderSize; }

    // Writes a record of `length` bytes, which `fill` writes to the
    // RecordWriter it is given; returns where the record begins.
    template <class Fill>
    int64_t addRecord(uint32_t length, Fill&& fill) {
        const int64_t offset = beginRecord(length);
        fill(writer_);
        endRecord(offset, length);
        return offset;
    }
    // Writes the index, `updates` being the records' entries in the order
    // they are to be listed, and the trailer, and sends the last piece out.
    void finish(const Updates& updates, const std::vector<DigestKey>& deletions);
    // The trailer as written, once finished.
    const unsigned char* trailerEnd() const { return trailer_ + segment::kTrailerSize; }

  private:
    void makeRoom(unsigned char*& cursor, const unsigned char*& end, size_t bytes) override;
    int64_t beginRecord(uint32_t length);
    void endRecord(int64_t offset, uint32_t length);
    int64_t position() const;
    void putI64(int64_t value);
    void hashUpTo(int64_t limit);
    void flush();
    void writeTrailer();

    kel::osdep::File& file_;
    const int64_t start_;
    const int64_t previousIndex_;
    const size_t records_;
    const size_t deletions_;
    const int64_t indexPosition_;
    const int64_t trailerPosition_;
    const int64_t end_;
    std::vector<unsigned char> buffer_;
    unsigned char* cursor_;
    RecordWriter writer_;
    int64_t bufferAt_;  // where buffer_[0] goes in the file
    int64_t hashed_;    // the checksum has seen the bytes before this
    Sha256 checksum_;
    unsigned char trailer_[segment::kTrailerSize] = {};
};

}  // namespace orvane
}  // namespace zq

#endif  // ZQ_ORVANE_SEGMENTWRITER_H
