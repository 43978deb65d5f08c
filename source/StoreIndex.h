#ifndef ZQ_ORVANE_STOREINDEX_H
#define ZQ_ORVANE_STOREINDEX_H

#include <cstdint>
#include <functional>
#include <memory>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

#include "kel/osdep/File.h"
#include "source/SegmentFormat.h"

namespace zq {
namespace orvane {

// A segment whose update entries are in strictly ascending digest order,
// as a compaction writes them. Only every kBlock-th digest stays in memory:
// a lookup reads the one block of entries that may hold its digest, and
// checks it against the sample, since the file may have changed since.
struct SortedSample {
    static constexpr uint32_t kBlock = 32;

    std::vector<DigestKey> firsts;  // of each block
    uint32_t count = 0;
    int64_t entries = 0;  // where the first entry lies
    int64_t dataStart = 0;
    int64_t indexPosition = 0;

    // False for a verified segment until its order is checked: nothing
    // is sampled then, and only probe() serves.
    bool ordered = true;

    bool empty() const { return count == 0; }
    // Entry `k` of the segment, met in order while it is scanned.
    void note(uint32_t k, const unsigned char* entry);
    // The entry of `digest` (its number and record position), or false.
    // Throws DeserializationError when the block read disagrees.
    bool find(kel::osdep::File& file, const DigestKey& digest, uint32_t& k, int64_t& record) const;
    // The same by a search of the entries in the file, before their order
    // is known: true only for a hit whose block and its neighbours are in
    // order. A miss says nothing until the order is checked.
    bool probe(kel::osdep::File& file, const DigestKey& digest, uint32_t& k, int64_t& record) const;
    // Calls `use` with the digest and record offset of every entry, in order.
    template <class Use>
    void forEach(kel::osdep::File& file, Use use) const;

  private:
    static constexpr size_t kBlockBytes = kBlock * segment::kUpdateEntrySize;
    // Blocks read and checked stay, so that repeated lookups read the file
    // once per block: direct-mapped, up to this many (320 KiB).
    static constexpr uint32_t kCachedBlocks = 256;
    struct CachedBlock {
        uint32_t block = UINT32_MAX;
        uint32_t count = 0;
        std::vector<unsigned char> bytes;
    };

    bool blockInOrder(kel::osdep::File& file, uint32_t b) const;
    // Reads block `b`; its entry count.
    uint32_t readBlock(kel::osdep::File& file, uint32_t b, unsigned char* out) const;
    // Block `b` from the cache, read into it when missing.
    const CachedBlock& cachedBlock(kel::osdep::File& file, uint32_t b) const;

    mutable std::vector<CachedBlock> cache_;
};

// What one segment of "registry.bin" says, read from its trailer backwards.
struct SegmentScan {
    SegmentDescriptor descriptor;
    std::vector<DigestKey> deletions;
    std::vector<std::pair<DigestKey, int64_t>> updates;  // digest, record offset
    SortedSample sorted;  // instead of updates, when asked for and possible
};

// Reads the segment that ends at `end`. Any position outside its segment, or
// a read past the end of the file, throws DeserializationError: the file is
// damaged, and nothing of it is trusted. With `keepSorted`, a segment at
// offset 0 without deletions whose entries are in strictly ascending digest
// order gives them in `sorted` and leaves `updates` empty. With `verified`
// as well, such a segment's entries are left unread, their order unchecked.
SegmentScan scanSegment(kel::osdep::File& file, int64_t end, uint32_t number,
                        bool keepSorted = false, bool verified = false);

// True when the checksum in the trailer of the segment [start, end) is that
// of its bytes. Reads the whole segment; a short read is a mismatch.
bool segmentVerifies(kel::osdep::File& file, int64_t start, int64_t end);

// A prefix of a data file whose segments all had their checksums checked,
// or were written by this process. The checksum of its last segment tells
// the same bytes apart from a file cut and written again since, or another
// file on a reused inode.
struct VerifiedPrefix {
    kel::osdep::File::Identity file;  // its change time: when it was noted
    int64_t length = 0;
    DigestKey checksum{};

    // The length still vouched for in `f`, which is the file `identity`,
    // up to `limit`: `length` when the segment ending there still carries
    // `checksum`, else 0.
    int64_t holdsFor(kel::osdep::File& f, const kel::osdep::File::Identity& identity,
                     int64_t limit) const;
    // The first `length` bytes of `f`, whose segments verified.
    static VerifiedPrefix of(kel::osdep::File& f, const kel::osdep::File::Identity& identity,
                             int64_t length);
    // The same for a segment ending at `length` whose trailer is at hand.
    static VerifiedPrefix of(const kel::osdep::File::Identity& identity, int64_t length,
                             const unsigned char* trailerEnd);
};

// Whether a segment ends at `end`: its trailer's mark is in place and its
// start word names a segment whose header names this trailer. Checks no
// checksum; an end of 0 ends the empty prefix.
bool segmentEndsAt(kel::osdep::File& file, int64_t end);
// Whether a commit mark that says `length` may be trusted for a file of
// `size` bytes: it ends a segment there. A mark is a hint; the data file is
// the truth.
bool markEndsSegment(kel::osdep::File& file, int64_t length, int64_t size);
// The end of the segment at `start` as its header and trailer tell it,
// within `limit`, without its checksum; 0 when they do not agree.
int64_t segmentShapeAt(kel::osdep::File& file, int64_t start, int64_t limit);

// The end of the segment that starts at `start`, when it is whole: it ends
// within `limit`, its trailer names its start and repeats its index
// position, its mark is in place and its checksum matches. 0 otherwise.
int64_t wholeSegmentEnd(kel::osdep::File& file, int64_t start, int64_t limit);

// The end of the longest run of whole segments from `start` (`start` when
// there is none): how far a file can be trusted past a point known good.
int64_t wholeSegmentsEnd(kel::osdep::File& file, int64_t start, int64_t limit);

// The same from offset 0: what a file can be trusted for when no commit mark
// says how much was committed.
inline int64_t longestWholePrefix(kel::osdep::File& file, int64_t limit) {
    return wholeSegmentsEnd(file, 0, limit);
}

// Where the newest record of each bucket lies in "registry.bin", which buckets
// a newer segment deleted, and the segments themselves. Built by walking the
// file from its committed end back to offset 0, so the first event met for a
// digest is its newest and wins.
//
// The segment at offset 0 is kept as a sample of its entries when they are
// in strictly ascending digest order, as a compaction writes them: a lookup
// searches them after the map of newer segments, so an open neither builds a
// map of the whole store nor holds its index. Other orders go into the map
// like every newer segment. A base whose checksum was verified before is
// not read at the open: its order is checked at the first lookup that a
// search of its entries cannot answer, or the first walk over every bucket.
//
// Not synchronised: the store's lock guards it.
class StoreIndex {
  public:
    struct Location {
        uint32_t segment;
        uint32_t ordinal;
        int64_t offset;
    };

    void clear();
    // Replaces the index with the one of the file's first `committedLength`
    // bytes. Every segment that ends above `verifiedBelow` has its checksum
    // checked first. The walk stops at the newest segment that fails, or
    // whose positions do not fit: that segment and everything older are
    // damaged, and a bucket the newer segments do not settle cannot be
    // known (find throws DeserializationError) - an older record might be
    // one the damaged segment replaced. Other failures (a read error) leave
    // the index empty and the exception goes on.
    void load(kel::osdep::File& file, int64_t committedLength, int64_t verifiedBelow);
    // Null when the bucket does not exist. Resumes an unfinished walk first.
    const Location* find(kel::osdep::File& file, const DigestKey& digest);
    // Where the newest damaged segment ends, or 0 when none is.
    int64_t damagedEnd() const { return damagedEnd_; }

    // A commit's changes to the index with every allocation already made.
    class Staged {
        friend class StoreIndex;
        std::unordered_map<DigestKey, Location, DigestKeyHash> locations;
        std::unordered_set<DigestKey, DigestKeyHash> deleted;
        SegmentDescriptor segment;
    };
    // Before a commit's segment is written: its changes, `updates` in the
    // order of its index entries, and room for them here. May throw.
    Staged stage(const SegmentDescriptor& segment,
                 const std::vector<std::pair<DigestKey, int64_t>>& updates,
                 const std::vector<DigestKey>& deletions);
    // Once the segment is committed: records it without allocating.
    void apply(Staged& staged) noexcept;
    // Takes in the segments a file that this index describes up to `from`
    // has grown by, up to `to`, checking the checksum of each that ends above
    // `verifiedBelow`. False, and the index as it was, when they are not
    // whole segments from `from` to `to` that verify; read errors throw,
    // also with the index as it was.
    bool extend(kel::osdep::File& file, int64_t from, int64_t to, int64_t verifiedBelow);
    // After a compaction: one segment whose entries are in digest order.
    void replaceBySingleSegment(const SegmentDescriptor& segment,
                                const std::vector<std::pair<DigestKey, int64_t>>& updates);

    uint32_t segmentCount() const { return segmentCount_; }
    const std::vector<SegmentDescriptor>& segments() const { return segments_; }
    size_t liveBuckets(kel::osdep::File* file);
    // Calls `use` with the digest and record offset of every bucket that
    // may exist: a record whose length is 0 or less says it does not.
    void forEachLive(kel::osdep::File& file,
                     const std::function<void(const DigestKey&, int64_t)>& use);
    // The index position of the segment a new commit links back to, or 0.
    int64_t previousIndexForNextCommit() const;

  private:
    Staged prepare(const SegmentDescriptor& segment,
                   const std::vector<std::pair<DigestKey, int64_t>>& updates,
                   const std::vector<DigestKey>& deletions);
    void makeRoomFor(size_t locations, size_t deletions, size_t segments);
    void absorb(SegmentScan& scan);
    void takeUpdates(const SegmentScan& scan);
    void checkBaseOrder(kel::osdep::File& file);
    void resumeWalk(kel::osdep::File& file);
    const Location* findInBase(kel::osdep::File& file, const DigestKey& digest);
    bool shadowed(const DigestKey& digest) const;

    std::unordered_map<DigestKey, Location, DigestKeyHash> locations_;
    SortedSample base_;  // of the segment at offset 0, when sorted
    uint32_t baseSegment_ = 0;
    Location found_{};  // what findInBase hands out
    std::unordered_set<DigestKey, DigestKeyHash> deleted_;
    std::vector<SegmentDescriptor> segments_;
    uint32_t segmentCount_ = 0;
    int64_t walkPosition_ = 0;
    int64_t damagedEnd_ = 0;
};

}  // namespace orvane
}  // namespace zq

#endif  // ZQ_ORVANE_STOREINDEX_H
