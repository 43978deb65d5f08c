#include "source/SegmentFormat.h"

#include <algorithm>

#include "kel/Endian.h"
#include "source/Sha256.h"

namespace zq {
namespace orvane {

namespace {

void putI64(unsigned char* out, int64_t value) { kel::putU64(out, static_cast<uint64_t>(value)); }

}  // namespace

SegmentBuilder::SegmentBuilder(int64_t start, int64_t previousIndex)
    : start_(start),
      previousIndex_(previousIndex),
      recordsEnd_(segment::kHeaderSize),
      bytes_(segment::kHeaderSize, 0) {}

void SegmentBuilder::reserve(size_t records, size_t recordBytes, size_t deletions) {
    using namespace segment;
    bytes_.reserve(bytes_.size() + recordBytes +
                   static_cast<size_t>(kRecordLengthSize + kUpdateEntrySize) * records +
                   static_cast<size_t>(kDeletionEntrySize) * deletions + kIndexHeaderSize +
                   kTrailerSize);
    updates_.reserve(records);
    deletions_.reserve(deletions);
}

int64_t SegmentBuilder::addRecord(const DigestKey& digest, uint32_t length, unsigned char*& bytes) {
    const size_t at = bytes_.size();
    bytes_.resize(at + segment::kRecordLengthSize + length, 0);
    recordsEnd_ = bytes_.size();
    putI64(&bytes_[at], length);
    bytes = &bytes_[at + segment::kRecordLengthSize];
    const int64_t offset = start_ + static_cast<int64_t>(at);
    updates_.push_back(Update{digest, offset});
    return offset;
}

void SegmentBuilder::addDeletion(const DigestKey& digest) { deletions_.push_back(digest); }

void SegmentBuilder::sortUpdatesByDigest() {
    std::sort(updates_.begin(), updates_.end(),
              [](const Update& a, const Update& b) { return a.digest < b.digest; });
}

int64_t SegmentBuilder::indexPosition() const { return start_ + static_cast<int64_t>(recordsEnd_); }

int64_t SegmentBuilder::trailerPosition() const {
    return indexPosition() + segment::kIndexHeaderSize +
           segment::kUpdateEntrySize * static_cast<int64_t>(updates_.size()) +
           segment::kDeletionEntrySize * static_cast<int64_t>(deletions_.size());
}

int64_t SegmentBuilder::end() const { return trailerPosition() + segment::kTrailerSize; }

const std::vector<unsigned char>& SegmentBuilder::finish() {
    const int64_t index = indexPosition();
    const int64_t x = trailerPosition();
    bytes_.resize(static_cast<size_t>(end() - start_), 0);

    putI64(&bytes_[0], x + 40);
    putI64(&bytes_[8], index);
    unsigned char* out = &bytes_[recordsEnd_];
    putI64(out, previousIndex_);
    kel::putU32(out + 8, static_cast<uint32_t>(updates_.size()));
    kel::putU32(out + 12, static_cast<uint32_t>(deletions_.size()));
    out += segment::kIndexHeaderSize;
    for (const Update& update : updates_) {
        std::memcpy(out, update.digest.data(), update.digest.size());
        putI64(out + 32, update.offset);
        out += segment::kUpdateEntrySize;
    }
    for (const DigestKey& deletion : deletions_) {
        std::memcpy(out, deletion.data(), deletion.size());
        out += segment::kDeletionEntrySize;
    }
    putI64(out, index);
    const Digest checksum = segmentChecksum(bytes_.data(), static_cast<int64_t>(bytes_.size()));
    std::memcpy(out + 8, checksum.bytes(), Digest::kSize);
    putI64(out + 40, start_);
    std::memcpy(out + 48, segment::kMark, segment::kMarkSize);
    return bytes_;
}

SegmentDescriptor SegmentBuilder::descriptor(uint32_t number) const {
    SegmentDescriptor d;
    d.number = number;
    d.start = start_;
    d.indexPosition = indexPosition();
    d.trailerPosition = trailerPosition() + 40;
    d.dataStart = start_ + segment::kHeaderSize;
    d.checksumPosition = trailerPosition() + 8;
    d.length = end() - start_;
    d.previousIndex = previousIndex_;
    d.updates = static_cast<uint32_t>(updates_.size());
    d.deletes = static_cast<uint32_t>(deletions_.size());
    d.indexAgain = indexPosition();
    return d;
}

Digest segmentChecksum(const unsigned char* segmentStart, int64_t length) {
    unsigned char hash[Sha256::kDigestSize];
    Sha256::hash(segmentStart, static_cast<size_t>(length - segment::kUncheckedTail), hash);
    const unsigned char* cursor = hash;
    return Digest(cursor, hash + sizeof hash);
}

}  // namespace orvane
}  // namespace zq
