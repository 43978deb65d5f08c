// An administrator's rebuild of a file damaged in the middle, from what
// verifies on either side of the damage.
#include <unordered_set>

#include "kel/Endian.h"
#include "source/SingleFileBucketStore.h"
#include "source/StoreOperation.h"
#include "zq/orvane/StatusCodes.h"

namespace zq {
namespace orvane {

namespace {

using kel::StatusChain;
using kel::osdep::File;
using store::Lock;
using store::storeOperation;

// Where the segment that ends at `end` says it starts; -1 when unreadable.
int64_t startOfSegmentEndingAt(File& file, int64_t end) {
    unsigned char bytes[8];
    if (end < segment::kStartFromEnd ||
        file.readAt(end - segment::kStartFromEnd, bytes, sizeof bytes) != sizeof bytes) {
        return -1;
    }
    return static_cast<int64_t>(kel::getU64(bytes));
}

}  // namespace

void SingleFileBucketStore::repair(Repair& repair, StatusChain& status) {
    if (status.isFatal()) {
        return;
    }
    Lock lock(mutex_);
    if (!open_ || !file_) {
        status.setCode(status::kStoreNotOpen);
        return;
    }
    storeOperation(status, [&] { repairLocked(repair); });
    if (status.isFatal() && !file_) {
        open_ = false;  // as after a failed compaction's swap
        index_.clear();
    }
    rememberSignature(true);
}

// The damage lies between the longest run of whole segments from the start
// and the longest run of whole segments back from the committed end.
void SingleFileBucketStore::repairLocked(Repair& repair) {
    const int64_t older = wholeSegmentsEnd(*file_, 0, committedLength_);
    if (older == committedLength_) {
        return;
    }
    int64_t newer = committedLength_;
    for (;;) {
        const int64_t start = startOfSegmentEndingAt(*file_, newer);
        if (start < older || start >= newer || wholeSegmentEnd(*file_, start, newer) != newer) {
            break;
        }
        newer = start;
    }
    repair.droppedFrom = older;
    repair.droppedTo = newer;
    std::vector<DigestKey> unnamed;
    readDropped(repair, unnamed);
    keepCopy(livePath_, false);
    repair.copy = copyKept_;
    std::vector<LiveRecord> live;
    std::unordered_set<DigestKey, DigestKeyHash> settled;
    // Both runs are checked again as they are copied: nothing unverified
    // gets the new file's checksum.
    collectLive(committedLength_, newer, 0, settled, live);
    collectLive(older, 0, 0, settled, live);
    writeCompacted(live);
    nameFromRebuilt(repair, unnamed);
}

// The buckets whose records lie in the dropped bytes, segment by segment
// from their start while the segments' shapes hold: named by the record
// when it still decodes, else by the record the rebuilt file holds.
// Nothing read there is kept.
void SingleFileBucketStore::readDropped(Repair& repair, std::vector<DigestKey>& unnamed) {
    for (int64_t at = repair.droppedFrom; at < repair.droppedTo;) {
        const int64_t end = segmentShapeAt(*file_, at, repair.droppedTo);
        if (end == 0) {
            return;
        }
        try {
            const SegmentScan scan = scanSegment(*file_, end, 0);
            repair.deletions += static_cast<uint32_t>(scan.deletions.size());
            for (const auto& [digest, offset] : scan.updates) {
                kel::AutoRef<IBucket> bucket;
                try {
                    bucket = readRecord(offset, nullptr, nullptr);
                } catch (const std::exception&) {
                    // A damaged record names nothing.
                }
                if (bucket && keyOf(bucket->getDigest()) == digest) {
                    repair.buckets.push_back(bucket->getFullName());
                } else {
                    unnamed.push_back(digest);
                }
            }
        } catch (const kel::exception::DeserializationError&) {
            // Its index is damaged: nothing of it can be named.
        }
        at = end;
    }
}

void SingleFileBucketStore::nameFromRebuilt(Repair& repair, const std::vector<DigestKey>& unnamed) {
    for (const DigestKey& digest : unnamed) {
        const StoreIndex::Location* location = index_.find(*file_, digest);
        const kel::AutoRef<IBucket> bucket =
            location != nullptr ? readRecord(location->offset, nullptr, nullptr) : nullptr;
        if (bucket) {
            repair.buckets.push_back(bucket->getFullName());
        } else {
            ++repair.unnamed;
        }
    }
}

}  // namespace orvane
}  // namespace zq
