#include "source/SingleFileBucketStore.h"

#include <algorithm>
#include <cstring>
#include <unordered_set>

#include "kel/Endian.h"
#include "kel/Throw.h"
#include "kel/osdep/Path.h"
#include "source/Options.h"
#include "source/StoreOperation.h"
#include "source/TouchFile.h"
#include "zq/orvane/Bucket.h"
#include "zq/orvane/StatusCodes.h"

namespace zq {
namespace orvane {

namespace {

using kel::AutoRef;
using kel::StatusChain;
using kel::WString;
using kel::osdep::File;
using kel::osdep::FileSystem;
using store::Lock;
using store::storeOperation;

int64_t readI64(File& file, int64_t offset) {
    unsigned char bytes[8];
    if (file.readAt(offset, bytes, sizeof bytes) != sizeof bytes) {
        ZQ_THROW(DeserializationError);
    }
    return static_cast<int64_t>(kel::getU64(bytes));
}

void readExactly(File& file, int64_t offset, void* buffer, size_t count) {
    if (count != 0 && file.readAt(offset, buffer, count) != count) {
        ZQ_THROW(DeserializationError);
    }
}

}  // namespace

SingleFileBucketStore::SingleFileBucketStore(const WString& directory, const Options* options,
                                             FileSystem& fs)
    : fs_(fs),
      options_(options),
      directory_(directory),
      livePath_(kel::osdep::join(directory, WString(L"registry.bin"))),
      newPath_(kel::osdep::join(directory, WString(L"registry.bin.1"))),
      previousPath_(kel::osdep::join(directory, WString(L"registry.bin.2"))),
      marks_(fs, directory, options) {}

SingleFileBucketStore::~SingleFileBucketStore() = default;

void SingleFileBucketStore::loadIndex() {
    const File::Identity identity = file_->identity();
    index_.load(*file_, committedLength_, verifiedBelow(*file_, identity, committedLength_));
    fileIdentity_ = identity;
    verified_ = index_.damagedEnd() == 0 ? VerifiedPrefix::of(*file_, identity, committedLength_)
                                         : VerifiedPrefix();
    noteVerified();
}

std::unique_ptr<File> SingleFileBucketStore::openData(const WString& path, uint32_t flags) const {
    return std::unique_ptr<File>(new kel::osdep::MappedFile(fs_.open(path, flags), mapLimit_));
}

void SingleFileBucketStore::rename(const WString& from, const WString& to) {
    fs_.rename(from, to);
    fs_.syncDirectory(directory_);
}

// A look first: the file is usually not there, and a failed unlink costs
// an exception.
void SingleFileBucketStore::removeIfPresent(const WString& path) {
    if (fs_.stat(path).exists) {
        fs_.removeFile(path, FileSystem::kRemoveIfPresent);
    }
}

void SingleFileBucketStore::close(StatusChain& status) {
    if (status.isFatal()) {
        return;
    }
    Lock lock(mutex_);
    file_.reset();
    index_.clear();
    generation_ = 0;
    committedLength_ = 0;
    signature_.reset();
    open_ = false;
    opened_ = false;
    viewChanged();
}

// ---------------------------------------------------------------- reading

AutoRef<IBucket> SingleFileBucketStore::readBucket(const WString& name, StatusChain& status) {
    return storeOperation(status, [&] { return readBucketAt(Digest(name), &name, status); });
}

AutoRef<IBucket> SingleFileBucketStore::readBucketByDigest(const Digest& digest,
                                                           StatusChain& status) {
    return storeOperation(status, [&] { return readBucketAt(digest, nullptr, status); });
}

AutoRef<IBucket> SingleFileBucketStore::readBucketAt(const Digest& digest, const WString* name,
                                                     StatusChain& status) {
    return storeOperation(status, [&]() -> AutoRef<IBucket> {
        Lock lock(mutex_);
        if (!open_) {
            status.setCode(status::kStoreNotOpen);
            return AutoRef<IBucket>();
        }
        if (!file_) {
            return AutoRef<IBucket>();  // read-only, and no store made yet
        }
        const StoreIndex::Location* location = index_.find(*file_, keyOf(digest));
        return location == nullptr ? AutoRef<IBucket>()
                                   : readRecord(location->offset, name, &digest);
    });
}

// Every byte read lies inside the committed length: past it nothing is
// trusted.
AutoRef<IBucket> SingleFileBucketStore::readRecord(int64_t offset, const WString* name,
                                                   const Digest* digest) {
    if (offset + segment::kRecordLengthSize > committedLength_) {
        ZQ_THROW(DeserializationError);
    }
    // One read takes the length and, for most records, the whole record.
    constexpr size_t kFirstRead = 1024;
    unsigned char first[kFirstRead];
    const int64_t available = committedLength_ - offset;
    const size_t read = static_cast<size_t>(std::min<int64_t>(kFirstRead, available));
    readExactly(*file_, offset, first, read);
    const int64_t length = static_cast<int64_t>(kel::getU64(first));
    if (length <= 0) {
        return AutoRef<IBucket>();
    }
    if (length > available - segment::kRecordLengthSize) {
        ZQ_THROW(DeserializationError);
    }
    const size_t total = segment::kRecordLengthSize + segment::lengthInMemory(length);
    std::vector<unsigned char> rest;
    const unsigned char* bytes = first;
    if (total > read) {
        rest.resize(total);
        std::memcpy(rest.data(), first, read);
        readExactly(*file_, offset + static_cast<int64_t>(read), rest.data() + read, total - read);
        bytes = rest.data();
    }
    AutoRef<Bucket> bucket(new Bucket());
    const unsigned char* cursor = bytes + segment::kRecordLengthSize;
    if (name != nullptr) {
        bucket->deserializeFound(cursor, bytes + total, *name, *digest);
    } else {
        bucket->deserialize(cursor, bytes + total);
    }
    return AutoRef<IBucket>(std::move(bucket));
}

bool SingleFileBucketStore::exists(const WString& name, StatusChain& status) {
    return storeOperation(status, [&] {
        Lock lock(mutex_);
        if (!open_) {
            status.setCode(status::kStoreNotOpen);
            return false;
        }
        return file_ && index_.find(*file_, keyOf(Digest(name))) != nullptr;
    });
}

bool SingleFileBucketStore::containsBucket(const AutoRef<IBucket>& bucket, StatusChain& status) {
    if (status.isFatal()) {
        return false;
    }
    if (!bucket) {
        status.setCode(status::kNullArgument);
        return false;
    }
    return exists(bucket->getFullName(), status);
}

// ---------------------------------------------------------------- commit

void SingleFileBucketStore::commit(const UpdatedBuckets& updated, const DeletedNames& deleted,
                                   StatusChain& status) {
    if (status.isFatal()) {
        return;
    }
    Lock lock(mutex_);
    if (!open_) {
        status.setCode(status::kStoreNotOpen);
        return;
    }
    if (updated.empty() && deleted.empty()) {
        return;
    }
    const bool committed = storeOperation(status, [&] {
        CommitPlan plan;
        planCommit(updated, deleted, plan);
        SegmentWriter writer(*file_, committedLength_, index_.previousIndexForNextCommit(),
                             plan.buckets.size(), plan.recordBytes, plan.deletions.size());
        const SegmentDescriptor descriptor = writer.descriptor(index_.segmentCount() + 1);
        const int64_t end = writer.end();
        if (end > segment::kMaxFileSize) {
            status.setCode(status::kOverSizeLimit);
            return false;
        }
        if (overSize(end)) {
            const int64_t after = sizeOnceCompacted(descriptor, plan);
            if (overSize(after)) {
                refuseOverLimit(after, status);
                return false;
            }
        }
        StoreIndex::Staged staged = index_.stage(descriptor, plan.updates, plan.deletions);
        appendSegment(writer, plan);
        // Memory follows the disk only once the segment is synced and its
        // mark written, and nothing from here on can fail: the commit is made.
        index_.apply(staged);
        ++generation_;
        committedLength_ = end;
        rememberSignature();
        viewChanged();
        return true;
    });
    if (committed && overSize(committedLength_) && index_.segmentCount() != 0) {
        // The commit stands whatever the compaction does: a failed one leaves
        // the file as it was, and the next commit tries again.
        StatusChain compaction;
        compaction.clear();
        compact(compaction);
        if (!file_) {
            passOnError(status, compaction);
        }
        rememberSignature(true);
    }
}

// Records in name order, then the deletions. A bucket that is also deleted
// by this commit gets no record, so every position is computed from what is
// really written.
void SingleFileBucketStore::planCommit(const UpdatedBuckets& updated, const DeletedNames& deleted,
                                       CommitPlan& plan) {
    std::unordered_set<DigestKey, DigestKeyHash> deletedKeys;
    for (const WString& name : deleted) {
        const DigestKey key = keyOf(Digest(name));
        if (deletedKeys.insert(key).second) {
            plan.deletions.push_back(key);
        }
    }
    plan.buckets.reserve(updated.size());
    plan.updates.reserve(updated.size());
    int64_t offset = committedLength_ + segment::kHeaderSize;
    for (const auto& [name, bucket] : updated) {
        if (!bucket) {
            ZQ_THROW(InvalidArgument);
        }
        const DigestKey key = keyOf(bucket->getDigest());
        // A bucket that is not persistent lives in memory only.
        if (deletedKeys.count(key) != 0 || !bucket->isPersistent()) {
            continue;
        }
        const uint32_t length = bucket->serializationSize();
        plan.buckets.push_back(bucket.get());
        plan.updates.emplace_back(key, offset);
        plan.recordBytes += length;
        offset = SegmentWriter::nextOffset(offset, length);
    }
}

// The sync is the commit point. The mark follows unsynced, for other
// processes to see at once; a crash that loses it loses nothing, as the next
// open rolls forward over the segment.
void SingleFileBucketStore::appendSegment(SegmentWriter& writer, const CommitPlan& plan) {
    const int64_t start = committedLength_;
    const int64_t end = writer.end();
    const VerifiedPrefix verified = verified_;
    try {
        writeRecords(writer, plan);
        writer.finish(plan.updates, plan.deletions);
        file_->sync();
        // Written here, from memory. Noted before the mark names it, so
        // that a process the mark sends to the file finds the note.
        if (verified_.length == start) {
            verified_ = VerifiedPrefix::of(file_->identity(), end, writer.trailerEnd());
            noteVerified();
        }
    } catch (...) {
        verified_ = verified;
        rollBackAppend(start, false);
        throw;
    }
    try {
        marks_.write(generation_ + 1, end, CommitMarks::kVisible);
    } catch (...) {
        // Other processes would never see this commit: it must not stand.
        verified_ = verified;
        rollBackAppend(start, true);
        throw;
    }
}

// Each record's length is where the next begins, less its length word.
void SingleFileBucketStore::writeRecords(SegmentWriter& writer, const CommitPlan& plan) {
    const int64_t recordsEnd = writer.descriptor(0).indexPosition;
    for (size_t i = 0; i < plan.buckets.size(); ++i) {
        const int64_t next = i + 1 < plan.updates.size() ? plan.updates[i + 1].second : recordsEnd;
        const auto length =
            static_cast<uint32_t>(next - plan.updates[i].second - segment::kRecordLengthSize);
        const IBucket* bucket = plan.buckets[i];
        writer.addRecord(length, [&](RecordWriter& out) {
            if (const auto* own = dynamic_cast<const Bucket*>(bucket)) {
                own->writeRecord(out);
                return;
            }
            std::vector<unsigned char> bytes(length);
            unsigned char* cursor = bytes.data();
            bucket->serialize(cursor, cursor + length);
            out.bytes(bytes.data(), length);
        });
    }
}

// Cuts the file back to its committed length after a failed commit, durably,
// so that no open rolls forward over a commit that reported failure. A mark
// that might have got its name must go first: a mark may never name bytes
// that are not there. When it cannot be removed the bytes stay, and the
// commit counts as made for whoever opens the file next.
void SingleFileBucketStore::rollBackAppend(int64_t start, bool markMayExist) {
    if (markMayExist) {
        try {
            removeIfPresent(marks_.pathOf(generation_ + 1));
        } catch (...) {
            return;
        }
    }
    try {
        file_->truncate(start);
        file_->sync();
    } catch (...) {
        // The next commit writes over the bytes; a crash before it leaves a
        // commit wholly present or wholly absent, as the open verifies it.
    }
}

// The one rule of the size limit, whoever commits and however long it has
// run: a commit is refused, before anything is written, when the file after
// it would be over the limit even once compacted. A commit that leaves it
// over the limit only until the compaction that follows is made. Where
// damage hides what is live, the file's whole length counts.
int64_t SingleFileBucketStore::sizeOnceCompacted(const SegmentDescriptor& written,
                                                 const CommitPlan& plan) {
    if (index_.damagedEnd() != 0) {
        return committedLength_ + written.length;
    }
    int64_t size = compactedSize();
    std::unordered_set<DigestKey, DigestKeyHash> replaced(plan.deletions.begin(),
                                                          plan.deletions.end());
    for (const auto& update : plan.updates) {
        replaced.insert(update.first);
    }
    for (const DigestKey& digest : replaced) {
        const StoreIndex::Location* location = index_.find(*file_, digest);
        const int64_t length = location != nullptr ? readI64(*file_, location->offset) : 0;
        if (length > 0) {
            size -= segment::kRecordLengthSize + length + segment::kUpdateEntrySize;
        }
    }
    return size + written.indexPosition - written.dataStart +
           segment::kUpdateEntrySize * static_cast<int64_t>(plan.updates.size());
}

void SingleFileBucketStore::refuseOverLimit(int64_t size, StatusChain& status) const {
    status.setCode(status::kOverSizeLimit);
    WString message(L"after this commit the registry would hold ");
    message += WString::fromInt(size);
    message += L" bytes once compacted, more than DiskMaxRegistryFileSizeKB (";
    message += WString::fromInt(options_->number(Options::kDiskMaxRegistryFileSizeKB));
    message += L" KB) allows; raise it in the [Orvane] section of Orvane.ini";
    status.setMessage(message);
}

// What a compaction would leave: one segment of the live records.
int64_t SingleFileBucketStore::compactedSize() {
    if (committedLength_ != 0 && readI64(*file_, committedLength_ - segment::kStartFromEnd) == 0) {
        return committedLength_;  // one segment already
    }
    int64_t size = segment::kHeaderSize + segment::kIndexHeaderSize + segment::kTrailerSize;
    index_.forEachLive(*file_, [&](const DigestKey&, int64_t offset) {
        const int64_t length = readI64(*file_, offset);
        if (length > 0) {
            size += segment::kRecordLengthSize + length + segment::kUpdateEntrySize;
        }
    });
    return size;
}

bool SingleFileBucketStore::overSize(int64_t committedLength) const {
    if (options_ == nullptr) {
        return false;
    }
    // Kilobytes to bytes in 32 bits, as files of existing controllers expect:
    // limits from 2,097,152 KB wrap.
    const auto kilobytes =
        static_cast<uint32_t>(options_->number(Options::kDiskMaxRegistryFileSizeKB));
    const auto limit = static_cast<int64_t>(static_cast<int32_t>(kilobytes << 10));
    return limit < committedLength;
}

// ---------------------------------------------------------------- compaction

void SingleFileBucketStore::compactNow(StatusChain& status) {
    if (status.isFatal()) {
        return;
    }
    Lock lock(mutex_);
    if (!open_) {
        status.setCode(status::kStoreNotOpen);
        return;
    }
    compact(status);
    rememberSignature(true);
}

bool SingleFileBucketStore::compact(StatusChain& status) {
    if (status.isFatal() || committedLength_ == 0) {
        return false;
    }
    Lock lock(mutex_);
    const bool rewrote = storeOperation(status, [&] { return compactLocked(); });
    if (status.isFatal() && !file_) {
        // The swap failed after the live file was closed: the store is
        // unusable until an open repairs the files.
        open_ = false;
        index_.clear();
    }
    return rewrote;
}

// Copies the newest record of every live bucket into one segment, in the
// order met (newest segment first), with index entries in digest order.
bool SingleFileBucketStore::compactLocked() {
    // A file that is one segment already needs no rewrite: its trailer says
    // so without the index being read.
    if (readI64(*file_, committedLength_ - segment::kStartFromEnd) == 0) {
        return false;
    }
    // Damage is never copied under a fresh checksum: every segment read
    // from is checked first, and one that fails stops the rewrite.
    if (index_.damagedEnd() != 0) {
        ZQ_THROW(DeserializationError);
    }
    std::vector<LiveRecord> live;
    std::unordered_set<DigestKey, DigestKeyHash> settled;
    collectLive(committedLength_, 0, verifiedBelow(*file_, fileIdentity_, committedLength_),
                settled, live);
    writeCompacted(live);
    return true;
}

// The newest records of the segments that end from `from` down to `downTo`,
// newest segment first, of the buckets no newer event in `settled` decided.
// Every segment that ends above `verified` has its checksum checked first.
void SingleFileBucketStore::collectLive(int64_t from, int64_t downTo, int64_t verified,
                                        std::unordered_set<DigestKey, DigestKeyHash>& settled,
                                        std::vector<LiveRecord>& live) {
    for (int64_t end = from; end > downTo;) {
        const SegmentScan scan = scanSegment(*file_, end, 0);
        if (end > verified && !segmentVerifies(*file_, scan.descriptor.start, end)) {
            ZQ_THROW(DeserializationError);
        }
        settled.insert(scan.deletions.begin(), scan.deletions.end());
        for (const auto& [digest, offset] : scan.updates) {
            if (!settled.insert(digest).second) {
                continue;
            }
            // A record with no length hides older ones, as it does on load.
            const int64_t length = readI64(*file_, offset);
            if (length > 0) {
                if (length > end - offset - segment::kRecordLengthSize) {
                    ZQ_THROW(DeserializationError);
                }
                live.push_back(LiveRecord{digest, offset, length});
            }
        }
        end = scan.descriptor.start;
    }
}

// Writes `live` as the one segment of a new file and swaps it in.
void SingleFileBucketStore::writeCompacted(const std::vector<LiveRecord>& live) {
    removeIfPresent(newPath_);
    int64_t liveBytes = 0;
    int64_t offset = segment::kHeaderSize;
    SegmentWriter::Updates entries;
    entries.reserve(live.size());
    for (const LiveRecord& record : live) {
        entries.emplace_back(record.digest, offset);
        offset = SegmentWriter::nextOffset(offset, record.length);
        liveBytes += record.length;
    }
    std::sort(entries.begin(), entries.end());

    std::unique_ptr<File> fresh;
    StoreIndex compacted;
    VerifiedPrefix verified;
    int64_t end = 0;
    try {
        touchFile(fs_, newPath_, options_);
        // Mapped here: nothing after the swap may run out of memory.
        fresh = openData(newPath_,
                         FileSystem::kReadWrite | FileSystem::kCreate | FileSystem::kTruncate);
        SegmentWriter writer(*fresh, 0, 0, live.size(), liveBytes, 0);
        copyRecords(writer, live);
        writer.finish(entries, {});
        fresh->sync();
        end = writer.end();
        // The new mark is written only once the new file is durable: its
        // presence tells the recovery that rolling forward is safe.
        writeFileAtomically(fs_, marks_.newMarkPath(), CommitMarks::contentFor(end), options_);
        // Built before the swap, so that nothing after it runs out of memory.
        compacted.replaceBySingleSegment(writer.descriptor(0), entries);
        verified = VerifiedPrefix::of(File::Identity(), end, writer.trailerEnd());
        marks_.removeAllBut(generation_);
    } catch (...) {
        // On a full disk a copy left behind would fail every later commit.
        fresh.reset();
        discardCompactedFiles();
        throw;
    }
    swapInCompactedFile(std::move(fresh), end);

    index_ = std::move(compacted);
    committedLength_ = end;
    verified.file = file_->identity();
    verified_ = verified;
    noteVerified();
    generation_ = 1;
    overSize_ = overSize(end);
    viewChanged();
}

// Records are copied through a bounded buffer, whatever their size.
void SingleFileBucketStore::copyRecords(SegmentWriter& writer,
                                        const std::vector<LiveRecord>& live) {
    std::vector<unsigned char> piece;
    for (const LiveRecord& record : live) {
        const size_t length = segment::lengthInMemory(record.length);
        piece.resize(std::min(std::max(piece.size(), length), SegmentWriter::kPieceSize));
        writer.addRecord(static_cast<uint32_t>(length), [&](RecordWriter& out) {
            int64_t at = record.offset + segment::kRecordLengthSize;
            for (size_t left = length; left != 0;) {
                const size_t count = std::min(left, piece.size());
                readExactly(*file_, at, piece.data(), count);
                out.bytes(piece.data(), count);
                at += static_cast<int64_t>(count);
                left -= count;
            }
        });
    }
}

// Before the swap's first rename the live file and its mark stand alone.
// Each removal is tried: the first may fail where the second does not.
void SingleFileBucketStore::discardCompactedFiles() noexcept {
    try {
        fs_.removeFile(newPath_, FileSystem::kRemoveIfPresent);
    } catch (...) {
    }
    try {
        fs_.removeFile(marks_.newMarkPath(), FileSystem::kRemoveIfPresent);
    } catch (...) {
    }
}

// The renames in the order the recovery expects, each made durable before
// the next. The new file stays open through them and becomes the live one.
void SingleFileBucketStore::swapInCompactedFile(std::unique_ptr<File> fresh, int64_t end) {
    const WString currentMark = marks_.pathOf(generation_);
    const WString oldMark = marks_.oldMarkPath();
    const WString newMark = marks_.newMarkPath();
    const WString firstMark = marks_.pathOf(1);
    file_.reset();
    rename(livePath_, previousPath_);
    rename(currentMark, oldMark);
    rename(newPath_, livePath_);
    rename(newMark, firstMark);
    fs_.removeFile(previousPath_, FileSystem::kRemoveMustExist);
    fs_.removeFile(oldMark, FileSystem::kRemoveMustExist);
    file_ = std::move(fresh);
    fileWritable_ = true;
    sizeOnOpen_ = end;
}

SingleFileBucketStore::Facts SingleFileBucketStore::facts() {
    Lock lock(mutex_);
    Facts facts;
    facts.fileSize = file_ ? file_->size() : 0;
    facts.committedLength = committedLength_;
    facts.generation = generation_;
    facts.segments = static_cast<uint32_t>(index_.segments().size());
    facts.damagedEnd = index_.damagedEnd();
    facts.liveBuckets = facts.damagedEnd == 0 ? index_.liveBuckets(file_.get()) : 0;
    return facts;
}

}  // namespace orvane
}  // namespace zq
