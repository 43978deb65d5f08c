#ifndef ZQ_ORVANE_STOREINDEX_H
#define ZQ_ORVANE_STOREINDEX_H

#include <cstdint>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

#include "kel/osdep/File.h"
#include "source/SegmentFormat.h"

namespace zq {
namespace orvane {

// What one segment of "registry.bin" says, read from its trailer backwards.
struct SegmentScan {
    SegmentDescriptor descriptor;
    std::vector<DigestKey> deletions;
    std::vector<std::pair<DigestKey, int64_t>> updates;  // digest, record offset
};

// Reads the segment that ends at `end`. Any position outside its segment, or
// a read past the end of the file, throws DeserializationError: the file is
// damaged, and nothing of it is trusted.
SegmentScan scanSegment(kel::osdep::File& file, int64_t end, uint32_t number);

// The end of the segment that starts at `start`, when it is whole: it ends
// within `limit`, its trailer names its start and repeats its index
// position, its mark is in place and its checksum matches. 0 otherwise.
int64_t wholeSegmentEnd(kel::osdep::File& file, int64_t start, int64_t limit);

// The length of the longest run of whole segments from offset 0: what a
// file can be trusted for when no commit mark says how much was committed.
int64_t longestWholePrefix(kel::osdep::File& file, int64_t limit);

// Where the newest record of each bucket lies in "registry.bin", which buckets
// a newer segment deleted, and the segments themselves. Built by walking the
// file from its committed end back to offset 0, so the first event met for a
// digest is its newest and wins.
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
    // bytes; on failure the index is left empty and the exception goes on.
    void load(kel::osdep::File& file, int64_t committedLength);
    // Null when the bucket does not exist. Resumes an unfinished walk first.
    const Location* find(kel::osdep::File& file, const DigestKey& digest);

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
    // After a compaction: one segment whose entries are in digest order.
    void replaceBySingleSegment(const SegmentDescriptor& segment,
                                const std::vector<std::pair<DigestKey, int64_t>>& updates);

    uint32_t segmentCount() const { return segmentCount_; }
    const std::vector<SegmentDescriptor>& segments() const { return segments_; }
    size_t liveBuckets() const { return locations_.size(); }
    // The index position of the segment a new commit links back to, or 0.
    int64_t previousIndexForNextCommit() const;

    template <class Visit>
    void forEachLocation(Visit&& visit) const {
        for (const auto& entry : locations_) {
            visit(entry.first, entry.second);
        }
    }

  private:
    void absorb(const SegmentScan& scan);
    void resumeWalk(kel::osdep::File& file);

    std::unordered_map<DigestKey, Location, DigestKeyHash> locations_;
    std::unordered_set<DigestKey, DigestKeyHash> deleted_;
    std::vector<SegmentDescriptor> segments_;
    uint32_t segmentCount_ = 0;
    int64_t walkPosition_ = 0;
};

}  // namespace orvane
}  // namespace zq

#endif  // ZQ_ORVANE_STOREINDEX_H
