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

// A record position must lie in the data of its segment.
int64_t recordOf(const unsigned char* entry, int64_t dataStart, int64_t indexPosition) {
    const int64_t record = getI64(entry + 32);
    if (record < dataStart || record > indexPosition - segment::kRecordLengthSize) {
        damaged();
    }
    return record;
}

// Hands the `count` entries of `size` bytes from `at` to `use` a chunk at a
// time through one buffer, a modest one: a fresh process pays a page fault
// for every page of a new buffer. Stops early when `use` returns false.
template <class Use>
bool forEachChunk(File& file, int64_t at, uint32_t count, size_t size, Use use) {
    constexpr uint32_t kPerChunk = 1024;
    std::unique_ptr<unsigned char[]> buffer(
        new unsigned char[std::min(count, kPerChunk) * size + 1]);
    for (uint32_t done = 0; done < count;) {
        const uint32_t n = std::min(count - done, kPerChunk);
        readExactly(file, at + static_cast<int64_t>(done) * static_cast<int64_t>(size),
                    buffer.get(), n * size);
        if (!use(buffer.get(), n)) {
            return false;
        }
        done += n;
    }
    return true;
}

uint64_t bigEndian64(const unsigned char* in) {
    uint64_t value = 0;
    for (int k = 0; k < 8; ++k) {
        value = value << 8 | in[k];
    }
    return value;
}

// Digests are evenly spread: their first eight bytes nearly always decide.
bool ascending(const unsigned char* lower, const unsigned char* higher) {
    const uint64_t low = bigEndian64(lower);
    const uint64_t high = bigEndian64(higher);
    if (low != high) {
        return low < high;
    }
    return std::memcmp(lower + 8, higher + 8, Digest::kSize - 8) < 0;
}

// Whether the `n` update entries at `at` are in strictly ascending order.
bool entriesAscend(const unsigned char* at, uint32_t n) {
    for (uint32_t k = 1; k < n; ++k) {
        if (!ascending(at + (k - 1) * segment::kUpdateEntrySize,
                       at + k * segment::kUpdateEntrySize)) {
            return false;
        }
    }
    return true;
}

// Checks the `n` update entries at `in`, which follow entry `k` - 1 of the
// segment, `last`, and samples them; false when they are not in strictly
// ascending order. Runs over every entry of a store at its open, so what
// the loop needs is kept in locals (the entries are bytes, which the
// compiler must assume alias everything else), and the first eight bytes of
// the digest before are kept as a number.
bool sampleChunk(const unsigned char* in, uint32_t n, const SegmentDescriptor& d, uint32_t& k,
                 const unsigned char* last, SortedSample& sample) {
    const int64_t dataStart = d.dataStart;
    const int64_t indexPosition = d.indexPosition;
    uint64_t before = bigEndian64(last);
    uint32_t ordinal = k;
    for (const unsigned char* at = in; at < in + n * segment::kUpdateEntrySize;
         last = at, at += segment::kUpdateEntrySize, ++ordinal) {
        recordOf(at, dataStart, indexPosition);
        const uint64_t head = bigEndian64(at);
        if (ordinal != 0 && (head < before || (head == before && !ascending(last, at)))) {
            return false;
        }
        before = head;
        sample.note(ordinal, at);
    }
    k = ordinal;
    return true;
}

// Where the update entries of `d` lie, for `sample`.
void placeSample(const SegmentDescriptor& d, SortedSample& sample) {
    sample.count = d.updates;
    sample.entries = d.indexPosition + segment::kIndexHeaderSize;
    sample.dataStart = d.dataStart;
    sample.indexPosition = d.indexPosition;
}

// Samples the update entries of `d`, checking them; false when they are not
// in strictly ascending order.
bool sampleSorted(File& file, const SegmentDescriptor& d, SortedSample& sample) {
    using namespace segment;
    placeSample(d, sample);
    sample.firsts.reserve((d.updates + SortedSample::kBlock - 1) / SortedSample::kBlock);
    DigestKey last{};  // of the chunk before
    uint32_t k = 0;
    return forEachChunk(file, sample.entries, d.updates, kUpdateEntrySize,
                        [&](const unsigned char* in, uint32_t n) {
                            if (!sampleChunk(in, n, d, k, last.data(), sample)) {
                                return false;
                            }
                            std::memcpy(last.data(), in + (n - 1) * kUpdateEntrySize, last.size());
                            return true;
                        });
}

bool recordsAscend(const std::vector<std::pair<DigestKey, int64_t>>& updates) {
    for (size_t k = 1; k < updates.size(); ++k) {
        if (updates[k].second <= updates[k - 1].second) {
            return false;
        }
    }
    return true;
}

void readEntries(File& file, const SegmentDescriptor& d, SegmentScan& scan) {
    using namespace segment;
    const int64_t at = d.indexPosition + kIndexHeaderSize;
    scan.updates.reserve(d.updates);
    forEachChunk(file, at, d.updates, kUpdateEntrySize, [&](const unsigned char* in, uint32_t n) {
        for (const unsigned char* end = in + n * kUpdateEntrySize; in < end;
             in += kUpdateEntrySize) {
            scan.updates.emplace_back(digestAt(in), recordOf(in, d.dataStart, d.indexPosition));
        }
        return true;
    });
    scan.deletions.reserve(d.deletes);
    forEachChunk(file, at + kUpdateEntrySize * static_cast<int64_t>(d.updates), d.deletes,
                 kDeletionEntrySize, [&](const unsigned char* in, uint32_t n) {
                     for (uint32_t k = 0; k < n; ++k, in += kDeletionEntrySize) {
                         scan.deletions.push_back(digestAt(in));
                     }
                     return true;
                 });
}

}  // namespace

void SortedSample::note(uint32_t k, const unsigned char* entry) {
    if (k % kBlock == 0) {
        firsts.push_back(digestAt(entry));
    }
}

uint32_t SortedSample::readBlock(File& file, uint32_t b, unsigned char* out) const {
    using namespace segment;
    const uint32_t first = b * kBlock;
    const uint32_t n = std::min(kBlock, count - first);
    readExactly(file, entries + static_cast<int64_t>(first) * kUpdateEntrySize, out,
                n * kUpdateEntrySize);
    // What the open checked may have changed on disk since.
    if (std::memcmp(out, firsts[b].data(), Digest::kSize) != 0) {
        damaged();
    }
    for (uint32_t k = 0; k < n; ++k) {
        recordOf(out + k * kUpdateEntrySize, dataStart, indexPosition);
    }
    if (!entriesAscend(out, n)) {
        damaged();
    }
    const unsigned char* last = out + (n - 1) * kUpdateEntrySize;
    if (b + 1 < firsts.size() && !ascending(last, firsts[b + 1].data())) {
        damaged();
    }
    return n;
}

const SortedSample::CachedBlock& SortedSample::cachedBlock(File& file, uint32_t b) const {
    if (cache_.empty()) {
        cache_.resize(std::min<size_t>(kCachedBlocks, firsts.size()));
    }
    CachedBlock& slot = cache_[b % cache_.size()];
    if (slot.block != b) {
        slot.block = UINT32_MAX;  // until the read below is complete and checked
        slot.bytes.resize(kBlockBytes);
        slot.count = readBlock(file, b, slot.bytes.data());
        slot.block = b;
    }
    return slot;
}

// Digests are evenly spread, so the first guesses are where the digest's
// head falls between the heads that bound the range, and few pages of the
// index are touched; halving takes over when guessing stops paying.
bool SortedSample::probe(File& file, const DigestKey& digest, uint32_t& k, int64_t& record) const {
    constexpr int kGuesses = 4;
    const uint64_t head = bigEndian64(digest.data());
    uint64_t lowHead = 0;  // bounds of the heads in [low, high)
    uint64_t highHead = UINT64_MAX;
    unsigned char entry[segment::kUpdateEntrySize];
    uint32_t low = 0;
    uint32_t high = count;
    for (int step = 0; low < high; ++step) {
        uint32_t middle = low + (high - low) / 2;
        if (step < kGuesses && lowHead <= head && head <= highHead && lowHead < highHead) {
            const double share =
                static_cast<double>(head - lowHead) / static_cast<double>(highHead - lowHead);
            middle = low + std::min(high - low - 1,
                                    static_cast<uint32_t>(share * static_cast<double>(high - low)));
        }
        readExactly(file, entries + static_cast<int64_t>(middle) * segment::kUpdateEntrySize, entry,
                    sizeof entry);
        const int order = std::memcmp(entry, digest.data(), digest.size());
        if (order == 0) {
            k = middle;
            record = recordOf(entry, dataStart, indexPosition);
            return blockInOrder(file, middle / kBlock);
        }
        if (order < 0) {
            low = middle + 1;
            lowHead = bigEndian64(entry);
        } else {
            high = middle;
            highHead = bigEndian64(entry);
        }
    }
    return false;
}

// With the entry either side: a change since the open shows here, as a
// sampled block's does.
bool SortedSample::blockInOrder(File& file, uint32_t b) const {
    using namespace segment;
    const uint32_t first = b * kBlock;
    const uint32_t from = first == 0 ? 0 : first - 1;
    const uint32_t to = std::min(count, first + kBlock + 1);
    unsigned char bytes[(kBlock + 2) * kUpdateEntrySize];
    readExactly(file, entries + static_cast<int64_t>(from) * kUpdateEntrySize, bytes,
                (to - from) * kUpdateEntrySize);
    // Each record position of the block itself is checked, as a read of it is.
    for (uint32_t i = first; i < std::min(count, first + kBlock); ++i) {
        recordOf(bytes + (i - from) * kUpdateEntrySize, dataStart, indexPosition);
    }
    return entriesAscend(bytes, to - from);
}

bool SortedSample::find(File& file, const DigestKey& digest, uint32_t& k, int64_t& record) const {
    const auto after = std::upper_bound(firsts.begin(), firsts.end(), digest);
    if (after == firsts.begin()) {
        return false;
    }
    const uint32_t b = static_cast<uint32_t>(after - firsts.begin() - 1);
    const CachedBlock& cached = cachedBlock(file, b);
    const unsigned char* block = cached.bytes.data();
    uint32_t low = 0;
    uint32_t high = cached.count;
    while (low < high) {
        const uint32_t middle = low + (high - low) / 2;
        const unsigned char* at = block + middle * segment::kUpdateEntrySize;
        const int order = std::memcmp(at, digest.data(), digest.size());
        if (order == 0) {
            k = b * kBlock + middle;
            record = getI64(at + 32);
            return true;
        }
        if (order < 0) {
            low = middle + 1;
        } else {
            high = middle;
        }
    }
    return false;
}

template <class Use>
void SortedSample::forEach(File& file, Use use) const {
    unsigned char block[kBlock * segment::kUpdateEntrySize];
    for (uint32_t b = 0; b < firsts.size(); ++b) {
        const uint32_t n = readBlock(file, b, block);
        for (const unsigned char* entry = block; entry < block + n * segment::kUpdateEntrySize;
             entry += segment::kUpdateEntrySize) {
            use(digestAt(entry), getI64(entry + Digest::kSize));
        }
    }
}

SegmentScan scanSegment(File& file, int64_t end, uint32_t number, bool keepSorted, bool verified) {
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

    if (keepSorted && start == 0 && deletes == 0) {
        if (verified) {
            placeSample(d, scan.sorted);
            scan.sorted.ordered = false;
            return scan;
        }
        if (sampleSorted(file, d, scan.sorted)) {
            return scan;
        }
    }
    scan.sorted = SortedSample();
    readEntries(file, d, scan);
    return scan;
}

bool segmentVerifies(File& file, int64_t start, int64_t end) {
    using namespace segment;
    // No store writes past kMaxFileSize: hashing a damaged length's worth
    // of a sparse file would take minutes to say no.
    if (end - start < kHeaderSize + kIndexHeaderSize + kTrailerSize || end > kMaxFileSize) {
        return false;
    }
    unsigned char stored[Sha256::kDigestSize];
    if (file.readAt(end - kChecksumFromEnd, stored, sizeof stored) != sizeof stored) {
        return false;
    }
    Sha256 sha;
    const int64_t stop = end - kUncheckedTail;
    std::vector<unsigned char> chunk(
        static_cast<size_t>(std::min<int64_t>(stop - start, 64 * 1024)));
    for (int64_t at = start; at < stop;) {
        const size_t want = static_cast<size_t>(std::min<int64_t>(stop - at, chunk.size()));
        if (file.readAt(at, chunk.data(), want) != want) {
            return false;
        }
        sha.update(chunk.data(), want);
        at += static_cast<int64_t>(want);
    }
    unsigned char checksum[Sha256::kDigestSize];
    sha.finish(checksum);
    return std::memcmp(checksum, stored, sizeof checksum) == 0;
}

int64_t VerifiedPrefix::holdsFor(File& f, const File::Identity& identity, int64_t limit) const {
    if (length == 0 || length > limit || identity != file) {
        return 0;
    }
    unsigned char stored[Digest::kSize];
    if (f.readAt(length - segment::kChecksumFromEnd, stored, sizeof stored) != sizeof stored ||
        std::memcmp(stored, checksum.data(), sizeof stored) != 0) {
        return 0;
    }
    return length;
}

VerifiedPrefix VerifiedPrefix::of(File& f, const File::Identity& identity, int64_t length) {
    VerifiedPrefix prefix;
    if (length == 0) {
        return prefix;
    }
    unsigned char trailer[segment::kTrailerSize];
    readExactly(f, length - segment::kTrailerSize, trailer, sizeof trailer);
    return of(identity, length, trailer + sizeof trailer);
}

VerifiedPrefix VerifiedPrefix::of(const File::Identity& identity, int64_t length,
                                  const unsigned char* trailerEnd) {
    VerifiedPrefix prefix;
    prefix.file = identity;
    prefix.length = length;
    std::memcpy(prefix.checksum.data(), trailerEnd - segment::kChecksumFromEnd,
                prefix.checksum.size());
    return prefix;
}

int64_t segmentShapeAt(File& file, int64_t start, int64_t limit) {
    using namespace segment;
    constexpr int64_t kSmallest = kHeaderSize + kIndexHeaderSize + kTrailerSize;
    unsigned char header[kHeaderSize];
    if (start < 0 || limit - start < kSmallest ||
        file.readAt(start, header, sizeof header) != sizeof header) {
        return 0;
    }
    const int64_t trailerPosition = getI64(header);
    if (trailerPosition < start + kSmallest - kStartFromEnd ||
        trailerPosition > limit - kStartFromEnd) {
        return 0;
    }
    const int64_t end = trailerPosition + kStartFromEnd;
    unsigned char trailer[kTrailerSize];
    if (file.readAt(end - kTrailerSize, trailer, sizeof trailer) != sizeof trailer ||
        getI64(trailer) != getI64(header + 8) || getI64(trailer + 40) != start ||
        std::memcmp(trailer + 48, kMark, kMarkSize) != 0) {
        return 0;
    }
    return end;
}

bool segmentEndsAt(File& file, int64_t end) {
    using namespace segment;
    if (end == 0) {
        return true;
    }
    unsigned char trailer[kTrailerSize];
    if (end < kTrailerSize ||
        file.readAt(end - kTrailerSize, trailer, sizeof trailer) != sizeof trailer) {
        return false;
    }
    return segmentShapeAt(file, getI64(trailer + 40), end) == end;
}

bool markEndsSegment(File& file, int64_t length, int64_t size) {
    return length <= size && length <= segment::kMaxFileSize && segmentEndsAt(file, length);
}

int64_t wholeSegmentEnd(File& file, int64_t start, int64_t limit) {
    const int64_t end = segmentShapeAt(file, start, limit);
    if (end == 0) {
        return 0;
    }
    if (!segmentVerifies(file, start, end)) {
        return 0;
    }
    // Only damage makes a segment not whole: a failing disk is reported, or
    // an open would cut committed data for a read error.
    try {
        scanSegment(file, end, 0);
    } catch (const kel::exception::DeserializationError&) {
        return 0;
    }
    return end;
}

int64_t wholeSegmentsEnd(File& file, int64_t start, int64_t limit) {
    int64_t end = start;
    for (int64_t next; (next = wholeSegmentEnd(file, end, limit)) != 0;) {
        end = next;
    }
    return end;
}

void StoreIndex::clear() {
    locations_.clear();
    base_ = SortedSample();
    baseSegment_ = 0;
    deleted_.clear();
    segments_.clear();
    segmentCount_ = 0;
    walkPosition_ = 0;
    damagedEnd_ = 0;
}

void StoreIndex::load(File& file, int64_t committedLength, int64_t verifiedBelow) {
    clear();
    try {
        walkPosition_ = committedLength;
        uint32_t number = 0;
        while (walkPosition_ > 0) {
            const int64_t end = walkPosition_;
            SegmentScan scan;
            try {
                scan = scanSegment(file, end, number, true, end <= verifiedBelow);
            } catch (const kel::exception::DeserializationError&) {
                damagedEnd_ = end;
                break;
            }
            if (end > verifiedBelow && !segmentVerifies(file, scan.descriptor.start, end)) {
                damagedEnd_ = end;
                break;
            }
            absorb(scan);
            ++number;
        }
        walkPosition_ = 0;
        segmentCount_ = number;
    } catch (...) {
        clear();
        throw;
    }
}

// Deletions before updates: a bucket both written and deleted by one commit
// is deleted. An older deletion never hides a newer record.
void StoreIndex::absorb(SegmentScan& scan) {
    if (!scan.sorted.empty()) {
        base_ = std::move(scan.sorted);
        baseSegment_ = scan.descriptor.number;
    }
    for (const DigestKey& digest : scan.deletions) {
        if (locations_.count(digest) == 0) {
            deleted_.insert(digest);
        }
    }
    takeUpdates(scan);
    segments_.push_back(scan.descriptor);
    walkPosition_ = scan.descriptor.start;
}

// Under what newer segments say: older than all of them.
void StoreIndex::takeUpdates(const SegmentScan& scan) {
    uint32_t ordinal = 0;
    for (const auto& [digest, offset] : scan.updates) {
        if (deleted_.count(digest) == 0) {
            locations_.emplace(digest, Location{scan.descriptor.number, ordinal, offset});
        }
        ++ordinal;
    }
}

// Its checksum vouches for the bytes of a verified base, not for their
// order: a first commit writes its entries in name order, and those join the
// map like a newer segment's. Such a commit writes its records in the order
// of its entries; a base in neither order changed since it verified, unless
// it verifies still.
void StoreIndex::checkBaseOrder(File& file) {
    const auto d =
        std::find_if(segments_.begin(), segments_.end(),
                     [&](const SegmentDescriptor& s) { return s.number == baseSegment_; });
    if (d == segments_.end()) {
        damaged();
    }
    SortedSample sample;
    if (sampleSorted(file, *d, sample)) {
        base_ = std::move(sample);
        return;
    }
    SegmentScan scan;
    scan.descriptor = *d;
    readEntries(file, *d, scan);
    if (!recordsAscend(scan.updates) && !segmentVerifies(file, d->start, d->start + d->length)) {
        damaged();
    }
    locations_.reserve(locations_.size() + scan.updates.size());
    takeUpdates(scan);
    base_ = SortedSample();
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
            if (damagedEnd_ != 0) {
                damaged();
            }
            return findInBase(file, digest);
        }
        resumeWalk(file);
    }
}

// A hit in a base of unchecked order is one all the same; a miss is one
// only once its order is known.
const StoreIndex::Location* StoreIndex::findInBase(File& file, const DigestKey& digest) {
    uint32_t k = 0;
    int64_t record = 0;
    if (!base_.ordered && !base_.probe(file, digest, k, record)) {
        checkBaseOrder(file);
        if (base_.empty()) {
            const auto found = locations_.find(digest);
            return found == locations_.end() ? nullptr : &found->second;
        }
    }
    if (base_.ordered && !base_.find(file, digest, k, record)) {
        return nullptr;
    }
    found_ = Location{baseSegment_, k, record};
    return &found_;
}

bool StoreIndex::shadowed(const DigestKey& digest) const {
    return locations_.count(digest) != 0 || deleted_.count(digest) != 0;
}

size_t StoreIndex::liveBuckets(File* file) {
    if (file == nullptr) {
        return locations_.size();
    }
    size_t live = 0;
    forEachLive(*file, [&live](const DigestKey&, int64_t) { ++live; });
    return live;
}

void StoreIndex::forEachLive(File& file,
                             const std::function<void(const DigestKey&, int64_t)>& use) {
    if (damagedEnd_ != 0) {
        damaged();
    }
    if (!base_.ordered) {
        checkBaseOrder(file);
    }
    for (const auto& [digest, location] : locations_) {
        use(digest, location.offset);
    }
    base_.forEach(file, [&](const DigestKey& digest, int64_t offset) {
        if (!shadowed(digest)) use(digest, offset);
    });
}

// From the back: after a commit, the segment it wrote is the last one.
int64_t StoreIndex::previousIndexForNextCommit() const {
    for (auto segment = segments_.rbegin(); segment != segments_.rend(); ++segment) {
        if (segment->number == segmentCount_) {
            return segment->indexPosition;
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
    Staged staged = prepare(segment, updates, deletions);
    makeRoomFor(staged.locations.size(), staged.deleted.size(), 1);
    return staged;
}

StoreIndex::Staged StoreIndex::prepare(const SegmentDescriptor& segment,
                                       const std::vector<std::pair<DigestKey, int64_t>>& updates,
                                       const std::vector<DigestKey>& deletions) {
    Staged staged;
    staged.segment = segment;
    staged.deleted.insert(deletions.begin(), deletions.end());
    uint32_t ordinal = 0;
    for (const auto& [digest, offset] : updates) {
        staged.locations[digest] = Location{segment.number, ordinal++, offset};
    }
    return staged;
}

// With this room no insert in apply rehashes or reallocates.
void StoreIndex::makeRoomFor(size_t locations, size_t deletions, size_t segments) {
    makeRoom(locations_, locations);
    makeRoom(deleted_, deletions);
    if (segments_.size() + segments > segments_.capacity()) {
        segments_.reserve(2 * segments_.size() + segments);
    }
}

// Everything that can fail comes before the first change: the scans, the
// checks and the room; the staged segments then apply oldest first.
bool StoreIndex::extend(File& file, int64_t from, int64_t to, int64_t verifiedBelow) {
    if (walkPosition_ > 0 || from <= 0 || to <= from) {
        return false;
    }
    std::vector<SegmentScan> scans;  // newest first
    int64_t end = to;
    while (end > from) {
        scans.push_back(scanSegment(file, end, 0));
        if (end > verifiedBelow && !segmentVerifies(file, scans.back().descriptor.start, end)) {
            return false;
        }
        end = scans.back().descriptor.start;
    }
    if (end != from) {
        return false;
    }
    std::vector<Staged> staged;
    staged.reserve(scans.size());
    size_t locations = 0;
    size_t deletions = 0;
    for (auto scan = scans.rbegin(); scan != scans.rend(); ++scan) {
        scan->descriptor.number = segmentCount_ + static_cast<uint32_t>(staged.size()) + 1;
        // A bucket both written and deleted by one segment is deleted, as a load reads it.
        const std::unordered_set<DigestKey, DigestKeyHash> gone(scan->deletions.begin(),
                                                                scan->deletions.end());
        std::vector<std::pair<DigestKey, int64_t>> kept;
        kept.reserve(scan->updates.size());
        for (const auto& update : scan->updates) {
            if (gone.count(update.first) == 0) kept.push_back(update);
        }
        staged.push_back(prepare(scan->descriptor, kept, scan->deletions));
        locations += staged.back().locations.size();
        deletions += staged.back().deleted.size();
    }
    makeRoomFor(locations, deletions, staged.size());
    for (Staged& segment : staged) {
        apply(segment);
    }
    return true;
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
    // A compaction writes its entries in digest order, where the sample expects them.
    base_.count = static_cast<uint32_t>(updates.size());
    base_.entries = segment.indexPosition + segment::kIndexHeaderSize;
    base_.dataStart = segment.dataStart;
    base_.indexPosition = segment.indexPosition;
    base_.firsts.reserve((updates.size() + SortedSample::kBlock - 1) / SortedSample::kBlock);
    for (size_t k = 0; k < updates.size(); k += SortedSample::kBlock) {
        base_.firsts.push_back(updates[k].first);
    }
    baseSegment_ = segment.number;
    segments_.push_back(segment);
}

}  // namespace orvane
}  // namespace zq
