#include "source/SegmentWriter.h"

#include <algorithm>
#include <cstring>

#include "kel/Endian.h"
#include "kel/Throw.h"

namespace zq {
namespace orvane {

using namespace segment;

SegmentWriter::SegmentWriter(kel::osdep::File& file, int64_t start, int64_t previousIndex,
                             size_t records, int64_t recordBytes, size_t deletions,
                             size_t pieceSize)
    : file_(file),
      start_(start),
      previousIndex_(previousIndex),
      records_(records),
      deletions_(deletions),
      indexPosition_(start + kHeaderSize + recordBytes +
                     kRecordLengthSize * static_cast<int64_t>(records)),
      trailerPosition_(indexPosition_ + kIndexHeaderSize +
                       kUpdateEntrySize * static_cast<int64_t>(records) +
                       kDeletionEntrySize * static_cast<int64_t>(deletions)),
      end_(trailerPosition_ + kTrailerSize),
      buffer_(
          static_cast<size_t>(std::min<int64_t>(end_ - start, std::max<size_t>(pieceSize, 64)))),
      cursor_(buffer_.data()),
      writer_(cursor_, buffer_.data() + buffer_.size(), this),
      bufferAt_(start),
      hashed_(start) {
    putI64(end_ - kStartFromEnd);
    putI64(indexPosition_);
}

SegmentDescriptor SegmentWriter::descriptor(uint32_t number) const {
    SegmentDescriptor d;
    d.number = number;
    d.start = start_;
    d.indexPosition = indexPosition_;
    d.trailerPosition = end_ - kStartFromEnd;
    d.dataStart = start_ + kHeaderSize;
    d.checksumPosition = end_ - kChecksumFromEnd;
    d.length = end_ - start_;
    d.previousIndex = previousIndex_;
    d.updates = static_cast<uint32_t>(records_);
    d.deletes = static_cast<uint32_t>(deletions_);
    d.indexAgain = indexPosition_;
    return d;
}

int64_t SegmentWriter::beginRecord(uint32_t length) {
    const int64_t offset = position();
    if (nextOffset(offset, length) > indexPosition_) {
        ZQ_THROW(BufferOverflow);
    }
    putI64(length);
    return offset;
}

// A bucket changed between being measured and written would shift every
// position the header and index name.
void SegmentWriter::endRecord(int64_t offset, uint32_t length) {
    if (position() != nextOffset(offset, length)) {
        ZQ_THROW(BufferOverflow);
    }
}

void SegmentWriter::finish(const Updates& updates, const std::vector<DigestKey>& deletions) {
    if (position() != indexPosition_ || updates.size() != records_ ||
        deletions.size() != deletions_) {
        ZQ_THROW(BufferOverflow);
    }
    putI64(previousIndex_);
    writer_.u32(static_cast<uint32_t>(updates.size()));
    writer_.u32(static_cast<uint32_t>(deletions.size()));
    for (const auto& [digest, offset] : updates) {
        writer_.bytes(digest.data(), digest.size());
        putI64(offset);
    }
    for (const DigestKey& digest : deletions) {
        writer_.bytes(digest.data(), digest.size());
    }
    writeTrailer();
    flush();
}

// The checksum ends inside the trailer's first word, so that word goes
// into the hash before the checksum can be taken.
void SegmentWriter::writeTrailer() {
    kel::putU64(trailer_, static_cast<uint64_t>(indexPosition_));
    writer_.bytes(trailer_, 8);
    hashUpTo(position());
    checksum_.finish(trailer_ + kTrailerSize - kChecksumFromEnd);
    kel::putU64(trailer_ + kTrailerSize - kStartFromEnd, static_cast<uint64_t>(start_));
    std::memcpy(trailer_ + kTrailerSize - kMarkSize, kMark, kMarkSize);
    writer_.bytes(trailer_ + 8, kTrailerSize - 8);
}

int64_t SegmentWriter::position() const { return bufferAt_ + (cursor_ - buffer_.data()); }

void SegmentWriter::putI64(int64_t value) {
    unsigned char bytes[8];
    kel::putU64(bytes, static_cast<uint64_t>(value));
    writer_.bytes(bytes, sizeof bytes);
}

// Hashes what the buffer holds below `limit`, within the checksummed range.
void SegmentWriter::hashUpTo(int64_t limit) {
    limit = std::min(limit, end_ - kUncheckedTail);
    if (hashed_ < limit) {
        checksum_.update(buffer_.data() + (hashed_ - bufferAt_),
                         static_cast<size_t>(limit - hashed_));
        hashed_ = limit;
    }
}

void SegmentWriter::flush() {
    const int64_t at = position();
    if (at > end_) {
        ZQ_THROW(BufferOverflow);
    }
    hashUpTo(at);
    if (at != bufferAt_) {
        file_.writeAt(bufferAt_, buffer_.data(), static_cast<size_t>(at - bufferAt_));
    }
    bufferAt_ = at;
    cursor_ = buffer_.data();
}

// A field written whole that is larger than the buffer, e.g. a long string,
// grows the buffer for once.
void SegmentWriter::makeRoom(unsigned char*& cursor, const unsigned char*& end, size_t bytes) {
    flush();
    if (buffer_.size() < bytes) {
        buffer_.resize(bytes);
    }
    cursor = buffer_.data();
    end = buffer_.data() + buffer_.size();
}

}  // namespace orvane
}  // namespace zq
