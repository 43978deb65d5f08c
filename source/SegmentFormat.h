#ifndef ZQ_ORVANE_SEGMENTFORMAT_H
#define ZQ_ORVANE_SEGMENTFORMAT_H

#include <array>
#include <cstdint>
#include <cstring>

#include "kel/Throw.h"
#include "source/DigestKey.h"
#include "zq/orvane/Digest.h"

namespace zq {
namespace orvane {

// The layout of "registry.bin": segments laid end to end, each
//   [trailer position][index position][records...]
//   [previous index][U][D][U update entries][D deletion entries]
//   [index position][checksum][segment start]["@@@@SFBSMARK@@@@"]
// with every integer little-endian and every position absolute.
namespace segment {

constexpr int64_t kHeaderSize = 16;
constexpr int64_t kIndexHeaderSize = 16;
constexpr int64_t kUpdateEntrySize = 40;
constexpr int64_t kDeletionEntrySize = 32;
constexpr int64_t kTrailerSize = 64;
constexpr int64_t kRecordLengthSize = 8;
// A serialized bucket begins with its format and version words; what follows
// (name and values) is its content, which a store of equal values repeats.
constexpr size_t kBucketContentOffset = 8;
constexpr char kMark[] = "@@@@SFBSMARK@@@@";
constexpr size_t kMarkSize = 16;
// Offsets counted back from the segment end.
constexpr int64_t kStartFromEnd = 24;
constexpr int64_t kChecksumFromEnd = 56;
// The checksum covers [start, end - kUncheckedTail): up to X + 7, X being
// where the trailer begins. The range stops one byte short on purpose: files
// written so far all carry this checksum.
constexpr int64_t kUncheckedTail = kTrailerSize - 7;
// The file is positioned with 32-bit offsets on the target.
constexpr int64_t kMaxFileSize = INT32_MAX;

// A length read from the file as a size in memory. No store writes more than
// kMaxFileSize; a damaged length past it would wrap in a 32-bit size_t (or a
// record's 32-bit length) and overrun a buffer, so it is damage instead.
inline size_t lengthInMemory(int64_t length) {
    if (length < 0 || length > kMaxFileSize) {
        ZQ_THROW(DeserializationError);
    }
    return static_cast<size_t>(length);
}

}  // namespace segment

// What the store remembers of each segment of the open file.
struct SegmentDescriptor {
    uint32_t number = 0;
    int64_t start = 0;
    int64_t trailerPosition = 0;
    int64_t indexPosition = 0;
    int64_t dataStart = 0;
    int64_t checksumPosition = 0;
    int64_t length = 0;
    int64_t previousIndex = 0;
    uint32_t updates = 0;
    uint32_t deletes = 0;
    int64_t indexAgain = 0;
};

}  // namespace orvane
}  // namespace zq

#endif  // ZQ_ORVANE_SEGMENTFORMAT_H
