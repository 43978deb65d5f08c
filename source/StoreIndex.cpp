#include "source/StoreIndex.h"

#include <algorithm>
#include <memory>

#include "kel/Endian.h"
#include "kel/Throw.h"
#include "source/Sha256.h"

namespace zq {
namespace orvane {

namespace {

using kel::osdep::File;

int64_t getI64(const unsigned char* in) { return static_cast<int64_t>(kel::getU64(in)); }

[[noreturn]] void damaged() { ZQ_THROW(DeserializationError); }

void readExactly(File& file, int64_t offset, void* buffer, size_t count) {
    if (offset < 0 || file.readAt(offset, buffer, count) != count) {
        damaged();
    }
}

DigestKey digestAt(const unsigned char* in) {
    DigestKey key;
    std::memcpy(key.data(), in, key.size());
    return key;
}

}  // namespace

const unsigned char* SortedEntries::digestAt(uint32_t k) const {
    return bytes.get() + segment::kUpdateEntrySize * k;
}

int64_t SortedEntries::offsetAt(uint32_t k) const { return getI64(digestAt(k) + 32); }

uint32_t SortedEntries::search(const DigestKey& digest) const {
    uint32_t low = 0;
    uint32_t high = count;
    while (low < high) {
        const uint32_t middle = low + (high - low) / 2;
        const int order = std::memcmp(digestAt(middle), digest.data(), digest.size());
        if (order == 0) {
            return middle;
        }
        if (order < 0) {
            low = middle + 1;
        } else {
            high = middle;
        }
    }
    return count;
}

SegmentScan scanSegment(File& file, int64_t end, uint32_t number, bool keepSorted) {
    using namespace segment;
    constexpr int64_t kSmallest = kHeaderSize + kIndexHeaderSize + kTrailerSize;
    if (end < kSmallest) {
        damaged();
    }
    unsigned char trailer[kTrailerSize];
    readExactly(file, end - kTrailerSize, trailer, sizeof trailer);
    const int64_t start = getI64(trailer + kTrailerSize - kStartFromEnd);
    if (start < 0 || start > end - kSmallest) {
        damaged();
    }
    unsigned char header[kHeaderSize];
    readExactly(file, start, header, sizeof header);
    const int64_t x = end - kTrailerSize;
    const int64_t index = getI64(header + 8);
    if (index < start + kHeaderSize || index > x - kIndexHeaderSize) {
        damaged();
    }
    unsigned char indexHeader[kIndexHeaderSize];
    readExactly(file, index, indexHeader, sizeof indexHeader);
    const int64_t previous = getI64(indexHeader);
    const uint32_t updates = kel::getU32(indexHeader + 8);
    const uint32_t deletes = kel::getU32(indexHeader + 12);
    // Checked before anything is allocated: the entries must fit the segment.
    const int64_t entryBytes = kUpdateEntrySize * updates + kDeletionEntrySize * deletes;
    if (previous < 0 || previous > start || index + kIndexHeaderSize + entryBytes > x) {
        damaged();
    }
    // Not zeroed: every byte is read over at once.
    std::unique_ptr<unsigned char[]> entries(new unsigned char[lengthInMemory(entryBytes) + 1]);
    if (entryBytes != 0) {
        readExactly(file, index + kIndexHeaderSize, entries.get(), static_cast<size_t>(entryBytes));
    }

    SegmentScan scan;
    SegmentDescriptor& d = scan.descriptor;
    d.number = number;
    d.start = start;
    d.trailerPosition = getI64(header);
    d.indexPosition = index;
    d.dataStart = start + kHeaderSize;
    d.checksumPosition = end - kChecksumFromEnd;
    d.length = end - start;
    d.previousIndex = previous;
    d.updates = updates;
    d.deletes = deletes;
    d.indexAgain = getI64(trailer);

    const unsigned char* at = entries.get();
    bool ascending = true;
    for (uint32_t k = 0; k < updates; ++k, at += kUpdateEntrySize) {
        const int64_t record = getI64(at + 32);
        if (record < d.dataStart || record > index - kRecordLengthSize) {
            damaged();
        }
        ascending = ascending && (k == 0 || std::memcmp(at - kUpdateEntrySize, at, 32) < 0);
    }
    if (keepSorted && ascending && start == 0 && deletes == 0) {
        scan.sorted.bytes.reset(entries.release());
        scan.sorted.count = updates;
        return scan;
    }
    at = entries.get();
    scan.updates.reserve(updates);
    for (uint32_t k = 0; k < updates; ++k, at += kUpdateEntrySize) {
        scan.updates.emplace_back(digestAt(at), getI64(at + 32));
    }
    scan.deletions.reserve(deletes);
    for (uint32_t k = 0; k < deletes; ++k, at += kDeletionEntrySize) {
        scan.deletions.push_back(digestAt(at));
    }
    return scan;
}

int64_t wholeSegmentEnd(File& file, int64_t start, int64_t limit) {
    using namespace segment;
    constexpr int64_t kSmallest = kHeaderSize + kIndexHeaderSize + kTrailerSize;
    unsigned char header[kHeaderSize];
    if (limit - start < kSmallest || file.readAt(start, header, sizeof header) != sizeof header) {
        return 0;
    }
    const int64_t end = getI64(header) + kStartFromEnd;
    if (end < start + kSmallest || end > limit) {
        return 0;
    }
    unsigned char trailer[kTrailerSize];
    if (file.readAt(end - kTrailerSize, trailer, sizeof trailer) != sizeof trailer ||
        getI64(trailer) != getI64(header + 8) || getI64(trailer + 40) != start ||
        std::memcmp(trailer + 48, kMark, kMarkSize) != 0) {
        return 0;
    }
    // The checksum covers [start, X + 7), X being where the trailer begins.
    Sha256 sha;
    std::vector<unsigned char> chunk(64 * 1024);
    for (int64_t at = start, stop = end - kTrailerSize + 7; at < stop;) {
        const size_t want = static_cast<size_t>(std::min<int64_t>(stop - at, chunk.size()));
        if (file.readAt(at, chunk.data(), want) != want) return 0;
        sha.update(chunk.data(), want);
        at += static_cast<int64_t>(want);
    }
    unsigned char checksum[Sha256::kDigestSize];
    sha.finish(checksum);
    if (std::memcmp(checksum, trailer + 8, sizeof checksum) != 0) {
        return 0;
    }
    try {
        scanSegment(file, end, 0);
    } catch (const kel::exception::Exception&) {
        return 0;
    }
    return end;
}

int64_t longestWholePrefix(File& file, int64_t limit) {
    int64_t end = 0;
    for (int64_t next; (next = wholeSegmentEnd(file, end, limit)) != 0;) {
        end = next;
    }
    return end;
}

void StoreIndex::clear() {
    locations_.clear();
    base_ = SortedEntries();
    baseSegment_ = 0;
    deleted_.clear();
    segments_.clear();
    segmentCount_ = 0;
    walkPosition_ = 0;
}

void StoreIndex::load(File& file, int64_t committedLength) {
    clear();
    try {
        walkPosition_ = committedLength;
        uint32_t number = 0;
        while (walkPosition_ > 0) {
            SegmentScan scan = scanSegment(file, walkPosition_, number++, true);
            absorb(scan);
        }
        segmentCount_ = number;
    } catch (...) {
        clear();
        throw;
    }
}

// Deletions before updates: a bucket both written and deleted by one commit
// is deleted. An older deletion never hides a newer record.
void StoreIndex::absorb(SegmentScan& scan) {
    if (scan.sorted.bytes) {
        base_ = std::move(scan.sorted);
        baseSegment_ = scan.descriptor.number;
    }
    for (const DigestKey& digest : scan.deletions) {
        if (locations_.count(digest) == 0) {
            deleted_.insert(digest);
        }
    }
    uint32_t ordinal = 0;
    for (const auto& [digest, offset] : scan.updates) {
        if (deleted_.count(digest) == 0) {
            locations_.emplace(digest, Location{scan.descriptor.number, ordinal, offset});
        }
        ++ordinal;
    }
    segments_.push_back(scan.descriptor);
    walkPosition_ = scan.descriptor.start;
}

void StoreIndex::resumeWalk(File& file) {
    SegmentScan scan =
        scanSegment(file, walkPosition_, static_cast<uint32_t>(segments_.size()), true);
    absorb(scan);
    if (walkPosition_ <= 0) {
        segmentCount_ = static_cast<uint32_t>(segments_.size());
    }
}

const StoreIndex::Location* StoreIndex::find(File& file, const DigestKey& digest) {
    for (;;) {
        if (deleted_.count(digest) != 0) {
            return nullptr;
        }
        const auto found = locations_.find(digest);
        if (found != locations_.end()) {
            return &found->second;
        }
        if (walkPosition_ <= 0) {
            return findInBase(digest);
        }
        resumeWalk(file);
    }
}

const StoreIndex::Location* StoreIndex::findInBase(const DigestKey& digest) {
    const uint32_t k = base_.search(digest);
    if (k == base_.count) {
        return nullptr;
    }
    found_ = Location{baseSegment_, k, base_.offsetAt(k)};
    return &found_;
}

bool StoreIndex::shadowed(const DigestKey& digest) const {
    return locations_.count(digest) != 0 || deleted_.count(digest) != 0;
}

size_t StoreIndex::liveBuckets() const {
    size_t live = locations_.size();
    for (uint32_t k = 0; k < base_.count; ++k) {
        live += shadowed(digestAt(base_.digestAt(k))) ? 0 : 1;
    }
    return live;
}

int64_t StoreIndex::previousIndexForNextCommit() const {
    for (const SegmentDescriptor& segment : segments_) {
        if (segment.number == segmentCount_) {
            return segment.indexPosition;
        }
    }
    return 0;
}

namespace {

// Room for `more` elements in a hash container, doubling as its own growth
// does so that a commit after commit stays cheap.
template <class Hashed>
void makeRoom(Hashed& hashed, size_t more) {
    const size_t needed = hashed.size() + more;
    if (needed > hashed.bucket_count() * hashed.max_load_factor()) {
        hashed.reserve(std::max(needed, 2 * hashed.size()));
    }
}

}  // namespace

StoreIndex::Staged StoreIndex::stage(const SegmentDescriptor& segment,
                                     const std::vector<std::pair<DigestKey, int64_t>>& updates,
                                     const std::vector<DigestKey>& deletions) {
    Staged staged;
    staged.segment = segment;
    staged.deleted.insert(deletions.begin(), deletions.end());
    uint32_t ordinal = 0;
    for (const auto& [digest, offset] : updates) {
        staged.locations[digest] = Location{segment.number, ordinal++, offset};
    }
    // With this room no insert in apply rehashes or reallocates.
    makeRoom(locations_, staged.locations.size());
    makeRoom(deleted_, staged.deleted.size());
    if (segments_.size() == segments_.capacity()) {
        segments_.reserve(2 * segments_.size() + 1);
    }
    return staged;
}

// The staged nodes move over as they are.
void StoreIndex::apply(Staged& staged) noexcept {
    while (!staged.deleted.empty()) {
        auto node = staged.deleted.extract(staged.deleted.begin());
        locations_.erase(node.value());
        deleted_.insert(std::move(node));
    }
    while (!staged.locations.empty()) {
        auto node = staged.locations.extract(staged.locations.begin());
        deleted_.erase(node.key());
        const auto held = locations_.find(node.key());
        if (held != locations_.end()) {
            held->second = node.mapped();
        } else {
            locations_.insert(std::move(node));
        }
    }
    segments_.push_back(staged.segment);
    ++segmentCount_;
}

void StoreIndex::replaceBySingleSegment(const SegmentDescriptor& segment,
                                        const std::vector<std::pair<DigestKey, int64_t>>& updates) {
    clear();
    // The entries as the new file holds them: a compaction sorts them.
    base_.bytes.reset(new unsigned char[segment::kUpdateEntrySize * updates.size() + 1]);
    base_.count = static_cast<uint32_t>(updates.size());
    unsigned char* out = base_.bytes.get();
    for (const auto& [digest, offset] : updates) {
        std::memcpy(out, digest.data(), digest.size());
        kel::putU64(out + 32, static_cast<uint64_t>(offset));
        out += segment::kUpdateEntrySize;
    }
    segments_.push_back(segment);
}

}  // namespace orvane
}  // namespace zq
