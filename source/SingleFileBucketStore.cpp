#include "source/SingleFileBucketStore.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <mutex>
#include <new>
#include <thread>
#include <unordered_set>

#include "kel/Endian.h"
#include "kel/Throw.h"
#include "kel/osdep/Path.h"
#include "source/Options.h"
#include "source/TouchFile.h"
#include "zq/kel/OSException.h"
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

using Lock = std::lock_guard<kel::osdep::RecursiveMutex>;

// Turns the exception being handled into the store's code for it. Damage -
// a record or position that does not fit, or a read past the end - has its
// own code, so a caller can tell a broken file from a failing disk.
void setStoreFailure(StatusChain& status) {
    try {
        throw;
    } catch (const kel::exception::DeserializationError&) {
        status.setCode(status::kOutsideFile);
    } catch (const kel::exception::FileReadFailed&) {
        status.setCode(status::kOutsideFile);
    } catch (const kel::exception::UnableToConvert&) {
        status.setCode(status::kStoreFailed);
    } catch (const kel::osdep::OSException&) {
        status.setCode(status::kFileSystem);
    } catch (const kel::exception::Exception&) {
        status.setCode(status::kFileSystem);
    } catch (const std::bad_alloc&) {
        errno = ENOMEM;
        status.setCode(status::kOutOfMemory);
    } catch (...) {
        status.setCode(status::kUnexpected);
    }
}

// The edge of every store operation: nothing when the status already holds
// an error, and no exception out.
template <class Body>
auto storeOperation(StatusChain& status, Body&& body) -> decltype(body()) {
    using Result = decltype(body());
    if (status.isFatal()) {
        return Result();
    }
    try {
        return body();
    } catch (...) {
        setStoreFailure(status);
    }
    return Result();
}

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

// What a stat of "registry.bin" says; when it has not changed, no other
// process has committed or compacted: a commit always moves the end of the
// file, a compaction or a purge gives it a new inode, and the inode this
// process holds open cannot be reused meanwhile.
struct SingleFileBucketStore::Signature {
    FileSystem::Status status;

    bool operator==(const FileSystem::Status& other) const {
        return status.exists && other.exists && status.device == other.device &&
               status.inode == other.inode && status.size == other.size &&
               status.modifiedNanoseconds == other.modifiedNanoseconds;
    }
};

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

// ---------------------------------------------------------------- open

void SingleFileBucketStore::open(uint32_t value, StatusChain& status) {
    if (status.isFatal()) {
        return;
    }
    Lock lock(mutex_);
    if (open_) {
        return;
    }
    openValue_ = value;
    repairedOnOpen_ = false;
    copyKept_ = WString();
    lostCommitted_ = false;
    storeOperation(status, [&] { openFiles(); });
    if (status.isFatal()) {
        file_.reset();
        return;
    }
    // A failed compaction leaves the old file as it was; the open goes on.
    StatusChain compaction;
    compaction.clear();
    compact(compaction);
    if (!file_) {
        status.setCode(compaction.getCode());
        return;
    }
    storeOperation(status, [&] {
        loadIndex();
        if (index_.damagedEnd() != 0 && index_.damagedEnd() == committedLength_ &&
            dropDamagedNewest()) {
            loadIndex();
        }
        rememberSignature();
        open_ = true;
        opened_ = true;
        viewChanged();
    });
    if (status.isFatal()) {
        file_.reset();
        index_.clear();
        return;
    }
    reportRepairs(status);
}

// What the open found is said in its status: a warning, since the store
// serves what it can prove.
void SingleFileBucketStore::reportRepairs(StatusChain& status) {
    if (index_.damagedEnd() != 0) {
        status.setCode(status::kStoreDamaged);
        WString message(L"the segment of \"registry.bin\" that ends at offset ");
        message += WString::fromInt(index_.damagedEnd());
        message += L" and every older one are damaged; the file is left as it is";
        status.setMessage(message);
    } else if (lostCommitted_) {
        status.setCode(status::kStoreRepaired);
        status.setMessage(
            WString(L"\"registry.bin\" is shorter than its commit mark says: the store holds what "
                    L"is left"));
    } else if (!copyKept_.empty()) {
        status.setCode(status::kStoreRepaired);
        WString message(L"\"registry.bin\" was damaged and repaired; what was dropped is kept in ");
        message += copyKept_;
        status.setMessage(message);
    }
}

void SingleFileBucketStore::openFiles() {
    adoptMark(marks_.findNewest());
    recoverFiles();
    openDataFile();
    settleCommittedLength();
}

// Repairs what a crash in the middle of a compaction's swap left. Every
// sequence ends with the newest complete file live and its mark found
// again; a copy is deleted only once the file that replaces it is known
// whole, so a stale "newCommitmark" never costs the only intact copy.
void SingleFileBucketStore::recoverFiles() {
    const bool live = fs_.fileExists(livePath_);
    const bool fresh = fs_.fileExists(newPath_);
    const bool previous = fs_.fileExists(previousPath_);
    const bool newMark = fs_.fileExists(marks_.newMarkPath());
    const bool oldMark = fs_.fileExists(marks_.oldMarkPath());
    if (live) {
        if (fresh) {
            // A compaction that never reached its swap.
            fs_.removeFile(newPath_, FileSystem::kRemoveMustExist);
        }
        if (previous) {
            finishSwap(!fresh && newMark);
        } else if (newMark || oldMark) {
            removeIfPresent(marks_.newMarkPath());
            removeIfPresent(marks_.oldMarkPath());
        } else {
            return;  // the usual case: the mark found before still stands
        }
    } else if (fresh && newMark && (!previous || holdsWholeFile(newPath_, marks_.newMarkPath()))) {
        rollForwardCompaction();
    } else if (previous) {
        rollBackCompaction();
    } else {
        return;  // a new empty store is created next
    }
    fs_.syncDirectory(directory_);
    adoptMark(marks_.findNewest());
}

// "registry.bin" is the new file and "registry.bin.2" the old one: the swap
// ended but for its last steps. With `markWaiting`, the new file's mark
// still waits under "newCommitmark".
void SingleFileBucketStore::finishSwap(bool markWaiting) {
    const WString mark = markWaiting ? marks_.newMarkPath() : marks_.pathOf(generation_);
    if (holdsWholeFile(livePath_, mark)) {
        if (markWaiting) {
            marks_.removeAllBut(0);
            rename(marks_.newMarkPath(), marks_.pathOf(1));
        }
        fs_.removeFile(previousPath_, FileSystem::kRemoveMustExist);
    } else {
        // The live file is not what its mark says: the old one is kept.
        repairedOnOpen_ = true;
        keepCopy(previousPath_, true);
        removeIfPresent(marks_.newMarkPath());
    }
    removeIfPresent(marks_.oldMarkPath());
}

// Whether the file at `path` is one whole, verified segment of the length
// the mark at `markPath` holds: what a compaction writes before its swap.
bool SingleFileBucketStore::holdsWholeFile(const WString& path, const WString& markPath) {
    if (!fs_.fileExists(markPath)) {
        return false;
    }
    const int64_t length = marks_.lengthIn(markPath);
    std::unique_ptr<File> file = fs_.open(path, FileSystem::kRead);
    return length > 0 && file->size() >= length && wholeSegmentEnd(*file, 0, length) == length;
}

void SingleFileBucketStore::adoptMark(const CommitMarks::Mark& mark) {
    generation_ = mark.generation;
    committedLength_ = mark.readable ? mark.committedLength : 0;
    markTrusted_ = mark.readable && mark.generation > 0;
}

// The new file and its mark are complete (the mark is written only after the
// file is durable): finish the swap.
void SingleFileBucketStore::rollForwardCompaction() {
    marks_.removeAllBut(0);
    rename(newPath_, livePath_);
    rename(marks_.newMarkPath(), marks_.pathOf(1));
    removeIfPresent(previousPath_);
    removeIfPresent(marks_.oldMarkPath());
}

// The old file was set aside but the new one is not known complete: put the
// old one back with the mark that describes it.
void SingleFileBucketStore::rollBackCompaction() {
    rename(previousPath_, livePath_);
    removeIfPresent(newPath_);
    removeIfPresent(marks_.newMarkPath());
    if (fs_.fileExists(marks_.oldMarkPath())) {
        marks_.removeAllBut(0);
        rename(marks_.oldMarkPath(), marks_.pathOf(1));
    }
}

void SingleFileBucketStore::openDataFile() {
    // Anything else under the name is opened, and refused, not replaced.
    if (!fs_.stat(livePath_).exists) {
        // Nothing is left to describe: whatever a mark says, the store
        // starts empty.
        repairedOnOpen_ = true;
        committedLength_ = 0;
        touchFile(fs_, livePath_, options_);
        file_ = fs_.open(livePath_,
                         FileSystem::kReadWrite | FileSystem::kCreate | FileSystem::kTruncate);
        fs_.syncDirectory(directory_);
    } else {
        file_ = fs_.open(livePath_, FileSystem::kReadWrite);
    }
    fileWritable_ = true;
    sizeOnOpen_ = file_->size();
}

// How much of the file was committed. The data file is the truth and the
// mark a hint: the mark is trusted where a segment ends, and from there every
// further whole segment whose checksum verifies was committed (a commit is
// made once its segment is synced; its mark may be lost after that). A mark
// that is missing, unreadable or ends no segment counts for nothing: the run
// of whole, verified segments from the start is kept. What follows is cut.
// A cut that drops what the mark names as committed, or a whole segment,
// first keeps a copy of the file. The repair is durable before the store
// is served.
void SingleFileBucketStore::settleCommittedLength() {
    const int64_t size = sizeOnOpen_;
    const int64_t claimed = markTrusted_ ? committedLength_ : 0;
    const bool markEndsSegment = markTrusted_ && committedLength_ <= size &&
                                 committedLength_ <= segment::kMaxFileSize &&
                                 segmentEndsAt(*file_, committedLength_);
    const int64_t end = wholeSegmentsEnd(*file_, markEndsSegment ? committedLength_ : 0, size);
    if (markEndsSegment && end == committedLength_ && end == size) {
        if (size == 0) {
            marks_.write(generation_ + 1, 0, CommitMarks::kDurable);
        }
        return;
    }
    repairedOnOpen_ = true;
    if (end < size && (end < claimed || segmentShapeAt(*file_, end, size) != 0)) {
        keepCopy(livePath_, false);
    } else if (end < claimed) {
        lostCommitted_ = true;  // the bytes are gone already: nothing to copy
    }
    cutAndMark(end);
}

// Makes `end` the committed length on disk: the file cut there and synced,
// a fresh mark naming it, its directory synced.
void SingleFileBucketStore::cutAndMark(int64_t end) {
    if (file_->size() > end) {
        file_->truncate(end);
    }
    file_->sync();
    marks_.write(generation_ + 1, end, CommitMarks::kDurable);
    if (end != 0) {
        ++generation_;
    }
    committedLength_ = end;
}

// A newest segment whose checksum fails, in front of a file that verifies,
// is cut like a torn append, after a copy: otherwise every bucket would be
// behind damage. Damage further back is left for an administrator.
bool SingleFileBucketStore::dropDamagedNewest() {
    unsigned char start[8];
    if (file_->readAt(committedLength_ - segment::kStartFromEnd, start, sizeof start) !=
        sizeof start) {
        return false;
    }
    const auto newest = static_cast<int64_t>(kel::getU64(start));
    if (newest < 0 || newest >= committedLength_) {
        return false;
    }
    StoreIndex older;
    older.load(*file_, newest, verifiedBelow(*file_, fileIdentity_, newest));
    if (older.damagedEnd() != 0) {
        return false;
    }
    repairedOnOpen_ = true;
    keepCopy(livePath_, false);
    cutAndMark(newest);
    return true;
}

namespace {

const wchar_t kCopyPrefix[] = L"registry.bin.damaged-";
// Copies of damaged files kept beside the store; the oldest goes first.
constexpr int64_t kKeptCopies = 3;

}  // namespace

// Keeps the file at `path` beside the store as "registry.bin.damaged-N",
// moved there when `move`, else copied; the newest few are kept.
void SingleFileBucketStore::keepCopy(const WString& path, bool move) {
    std::vector<int64_t> numbers;
    for (const WString& name : fs_.listDirectory(directory_)) {
        if (name.startsWith(WString(kCopyPrefix))) {
            try {
                numbers.push_back(parseInt64(name.substr(WString(kCopyPrefix).length())));
            } catch (const kel::exception::UnableToConvert&) {
                // Not one of ours.
            }
        }
    }
    std::sort(numbers.begin(), numbers.end());
    const auto copyPath = [&](int64_t n) {
        WString name(kCopyPrefix);
        name += WString::fromInt(n);
        return kel::osdep::join(directory_, name);
    };
    const WString target = copyPath(numbers.empty() ? 1 : numbers.back() + 1);
    if (move) {
        fs_.rename(path, target);
    } else {
        copyFile(path, target);
    }
    fs_.syncDirectory(directory_);
    copyKept_ = target;
    for (size_t k = 0; k + kKeptCopies <= numbers.size(); ++k) {
        fs_.removeFile(copyPath(numbers[k]), FileSystem::kRemoveIfPresent);
    }
}

// A durable copy under a temporary name first: a crash leaves no half copy
// under the final one. No store holds more than kMaxFileSize bytes, and
// runs of zeros stay holes, so a damaged sparse file costs no disk.
void SingleFileBucketStore::copyFile(const WString& from, const WString& to) {
    WString temporary = to;
    temporary += L".tmp";
    std::unique_ptr<File> source = fs_.open(from, FileSystem::kRead);
    const int64_t size = std::min(source->size(), segment::kMaxFileSize);
    try {
        std::unique_ptr<File> copy = fs_.open(
            temporary, FileSystem::kReadWrite | FileSystem::kCreate | FileSystem::kTruncate, 0600);
        copy->truncate(size);
        constexpr size_t kChunk = 1024 * 1024;
        std::vector<unsigned char> chunk(kChunk);
        const std::vector<unsigned char> zeros(kChunk);
        for (int64_t at = 0; at < size;) {
            const size_t want = static_cast<size_t>(std::min<int64_t>(size - at, chunk.size()));
            const size_t got = source->readAt(at, chunk.data(), want);
            if (got == 0) {
                break;
            }
            if (std::memcmp(chunk.data(), zeros.data(), got) != 0) {
                copy->writeAt(at, chunk.data(), got);
            }
            at += static_cast<int64_t>(got);
        }
        copy->sync();
        copy->close();
        fs_.rename(temporary, to);
    } catch (...) {
        try {
            fs_.removeFile(temporary, FileSystem::kRemoveIfPresent);
        } catch (...) {
        }
        throw;
    }
}

int64_t SingleFileBucketStore::verifiedBelow(File& file, const File::Identity& identity,
                                             int64_t limit) const {
    int64_t below = verified_.holdsFor(file, identity, limit);
    // Another process's word holds only for a file nothing wrote to since:
    // every writer notes again after each of its commits.
    kel::osdep::SharedCounter::FileNote note;
    if (notes_ != nullptr && notes_->findNote(identity.device, identity.inode, note) &&
        note.changed == identity.changed && note.length > below) {
        VerifiedPrefix noted;
        noted.file = identity;
        noted.length = note.length;
        std::memcpy(noted.checksum.data(), note.digest, noted.checksum.size());
        below = std::max(below, noted.holdsFor(file, identity, limit));
    }
    return below;
}

void SingleFileBucketStore::noteVerified() noexcept {
    if (notes_ == nullptr || verified_.length == 0) {
        return;
    }
    kel::osdep::SharedCounter::FileNote note;
    note.device = verified_.file.device;
    note.inode = verified_.file.inode;
    note.changed = verified_.file.changed;
    note.length = verified_.length;
    std::memcpy(note.digest, verified_.checksum.data(), sizeof note.digest);
    notes_->putNote(note);
}

void SingleFileBucketStore::loadIndex() {
    const File::Identity identity = file_->identity();
    index_.load(*file_, committedLength_, verifiedBelow(*file_, identity, committedLength_));
    fileIdentity_ = identity;
    verified_ = index_.damagedEnd() == 0 ? VerifiedPrefix::of(*file_, identity, committedLength_)
                                         : VerifiedPrefix();
    noteVerified();
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
    return AutoRef<IBucket>(bucket);
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
        std::vector<std::pair<DigestKey, int64_t>> updates;
        std::vector<DigestKey> deletions;
        SegmentDescriptor descriptor;
        const std::vector<unsigned char> segment =
            buildSegment(updated, deleted, updates, deletions, descriptor);
        const int64_t end = committedLength_ + descriptor.length;
        if (end > segment::kMaxFileSize) {
            status.setCode(status::kOverSizeLimit);
            return false;
        }
        StoreIndex::Staged staged = index_.stage(descriptor, updates, deletions);
        appendSegment(segment, end);
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
            status.setCode(compaction.getCode());
        }
        rememberSignature();
    }
}

// Lays the whole segment out in memory: records in name order, then the
// deletions. A bucket that is also deleted by this commit gets no record, so
// every position is computed from what is really written.
std::vector<unsigned char> SingleFileBucketStore::buildSegment(
    const UpdatedBuckets& updated, const DeletedNames& deleted,
    std::vector<std::pair<DigestKey, int64_t>>& updates, std::vector<DigestKey>& deletions,
    SegmentDescriptor& descriptor) {
    std::unordered_set<DigestKey, DigestKeyHash> deletedKeys;
    for (const WString& name : deleted) {
        const DigestKey key = keyOf(Digest(name));
        if (deletedKeys.insert(key).second) {
            deletions.push_back(key);
        }
    }
    struct Record {
        DigestKey key;
        const IBucket* bucket;
        uint32_t length;
    };
    std::vector<Record> records;
    records.reserve(updated.size());
    size_t recordBytes = 0;
    for (const auto& [name, bucket] : updated) {
        if (!bucket) {
            ZQ_THROW(InvalidArgument);
        }
        const DigestKey key = keyOf(bucket->getDigest());
        // A bucket that is not persistent lives in memory only.
        if (deletedKeys.count(key) != 0 || !bucket->isPersistent()) {
            continue;
        }
        records.push_back(Record{key, bucket.get(), bucket->serializationSize()});
        recordBytes += records.back().length;
    }
    // Sized once: the segment never moves while it is laid out.
    SegmentBuilder builder(committedLength_, index_.previousIndexForNextCommit());
    builder.reserve(records.size(), recordBytes, deletions.size());
    for (const Record& record : records) {
        unsigned char* bytes = nullptr;
        const int64_t offset = builder.addRecord(record.key, record.length, bytes);
        record.bucket->serialize(bytes, bytes + record.length);
        updates.emplace_back(record.key, offset);
    }
    for (const DigestKey& key : deletions) {
        builder.addDeletion(key);
    }
    std::vector<unsigned char> segment = builder.finish();
    descriptor = builder.descriptor(index_.segmentCount() + 1);
    return segment;
}

// One write and one data sync for the segment, whatever its size: the sync
// is the commit point. The mark follows unsynced, for other processes to
// see at once; a crash that loses it loses nothing, as the next open rolls
// forward over the segment.
void SingleFileBucketStore::appendSegment(const std::vector<unsigned char>& segment, int64_t end) {
    const int64_t start = committedLength_;
    const VerifiedPrefix verified = verified_;
    try {
        file_->writeAt(start, segment.data(), segment.size());
        file_->sync();
        // Written here, from memory. Noted before the mark names it, so
        // that a process the mark sends to the file finds the note.
        if (verified_.length == start) {
            verified_ = VerifiedPrefix::of(file_->identity(), end, segment.data() + segment.size());
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
    rememberSignature();
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

namespace {

struct LiveRecord {
    DigestKey digest;
    int64_t offset;
    int64_t length;
};

}  // namespace

// Copies the newest record of every live bucket into one segment, in the
// order met (newest segment first), with index entries in digest order.
bool SingleFileBucketStore::compactLocked() {
    // A file that is one segment already needs no rewrite: its trailer says
    // so without the index being read.
    if (readI64(*file_, committedLength_ - segment::kStartFromEnd) == 0) {
        return false;
    }
    removeIfPresent(newPath_);
    std::vector<LiveRecord> live;
    std::unordered_set<DigestKey, DigestKeyHash> settled;
    // Damage is never copied under a fresh checksum: every segment read
    // from is checked first, and one that fails stops the rewrite.
    if (index_.damagedEnd() != 0) {
        ZQ_THROW(DeserializationError);
    }
    const int64_t verified = verifiedBelow(*file_, fileIdentity_, committedLength_);
    for (int64_t end = committedLength_; end > 0;) {
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

    size_t liveBytes = 0;
    for (const LiveRecord& record : live) {
        liveBytes += static_cast<size_t>(record.length);
    }
    SegmentBuilder builder(0, 0);
    builder.reserve(live.size(), liveBytes, 0);
    std::vector<std::pair<DigestKey, int64_t>> entries;
    entries.reserve(live.size());
    for (const LiveRecord& record : live) {
        const size_t length = segment::lengthInMemory(record.length);
        unsigned char* bytes = nullptr;
        const int64_t offset =
            builder.addRecord(record.digest, static_cast<uint32_t>(length), bytes);
        readExactly(*file_, record.offset + segment::kRecordLengthSize, bytes, length);
        entries.emplace_back(record.digest, offset);
    }
    builder.sortUpdatesByDigest();
    std::sort(entries.begin(), entries.end());
    const std::vector<unsigned char>& image = builder.finish();
    const int64_t end = builder.end();

    std::unique_ptr<File> fresh;
    StoreIndex compacted;
    try {
        touchFile(fs_, newPath_, options_);
        fresh = fs_.open(newPath_,
                         FileSystem::kReadWrite | FileSystem::kCreate | FileSystem::kTruncate);
        fresh->writeAt(0, image.data(), image.size());
        fresh->sync();
        // The new mark is written only once the new file is durable: its
        // presence tells the recovery that rolling forward is safe.
        writeFileAtomically(fs_, marks_.newMarkPath(), CommitMarks::contentFor(end), options_);
        // Built before the swap, so that nothing after it runs out of memory.
        compacted.replaceBySingleSegment(builder.descriptor(0), entries);
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
    verified_ = VerifiedPrefix::of(file_->identity(), end, image.data() + image.size());
    noteVerified();
    generation_ = 1;
    overSize_ = overSize(end);
    viewChanged();
    return true;
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

// ---------------------------------------------------------------- other processes

// Never fails the operation it follows: without a signature the next
// refresh simply looks at the marks.
void SingleFileBucketStore::rememberSignature() noexcept {
    try {
        if (!file_) {
            signature_.reset();
            return;
        }
        fileIdentity_ = file_->identity();
        settle(fs_.stat(livePath_));
    } catch (...) {
        signature_.reset();
    }
}

// A stat stands for "nothing changed" only when the name leads to the file
// held open and that file holds exactly what the index describes: bytes
// past the committed length belong to a commit whose mark is still to come,
// and that mark changes no stat of the file.
void SingleFileBucketStore::settle(const FileSystem::Status& now) {
    if (now.exists && now.device == fileIdentity_.device && now.inode == fileIdentity_.inode &&
        now.size == committedLength_) {
        signature_ = std::make_unique<Signature>(Signature{now});
    } else {
        signature_.reset();
    }
}

namespace {

// A compaction's swap is a few renames: a look that met one waits a little
// and looks again, up to about a fifth of a second in all.
constexpr int kRefreshAttempts = 8;

void pauseBeforeAttempt(int attempt) {
    if (attempt > 0) {
        std::this_thread::sleep_for(std::chrono::microseconds(100 << attempt));
    }
}

}  // namespace

SingleFileBucketStore::Refresh SingleFileBucketStore::refresh(StatusChain& status) {
    return storeOperation(status, [&] {
        Lock lock(mutex_);
        if (!open_) {
            return Refresh::kUnchanged;
        }
        FileSystem::Status now = fs_.stat(livePath_);
        if (signature_ && *signature_ == now) {
            return Refresh::kUnchanged;
        }
        for (int attempt = 0; attempt < kRefreshAttempts; ++attempt) {
            pauseBeforeAttempt(attempt);
            if (attempt > 0) {
                now = fs_.stat(livePath_);
            }
            const Refresh found = tryRefresh(now);
            if (found != Refresh::kUnsettled) {
                return found;
            }
        }
        signature_.reset();
        return Refresh::kUnsettled;
    });
}

// A mark describes the file that "registry.bin" named both before and after
// the mark was read: a compaction renames the old file away before any mark
// of the new one gets a "commitmark." name, and the old file comes back only
// when a recovery rolls that compaction back, with a mark of its own. So
// the mark is read between two looks at the name, and the look is thrown
// away when they differ. Comparing marks alone is not enough: a new file
// may reach the same generation and length as the old one had.
SingleFileBucketStore::Refresh SingleFileBucketStore::tryRefresh(const FileSystem::Status& before) {
    if (!before.exists) {
        return Refresh::kUnsettled;  // between two renames of a swap
    }
    std::unique_ptr<File> reopened;
    File::Identity identity{before.device, before.inode};
    if (identity != fileIdentity_) {
        // Readers never write: a process that may only read gets its file.
        reopened = fs_.open(livePath_, FileSystem::kRead);
        identity = reopened->identity();
    }
    const CommitMarks::Mark mark = marks_.peekNewest();
    const FileSystem::Status after = fs_.stat(livePath_);
    if (!after.exists || after.device != identity.device || after.inode != identity.inode ||
        mark.generation == 0) {
        return Refresh::kUnsettled;
    }
    // A view that rolled forward past the mark (see openForReading) keeps
    // what it has until a newer mark passes it.
    if (!reopened && mark.committedLength <= committedLength_) {
        settle(after);
        return Refresh::kUnchanged;
    }
    File& file = reopened ? *reopened : *file_;
    if (file.size() < mark.committedLength) {
        return Refresh::kUnsettled;  // the mark names bytes that are not there
    }
    StoreIndex fresh;
    fresh.load(file, mark.committedLength, verifiedBelow(file, identity, mark.committedLength));
    if (reopened) {
        file_ = std::move(reopened);
        fileIdentity_ = identity;
        fileWritable_ = false;
    }
    verified_ = fresh.damagedEnd() == 0 ? VerifiedPrefix::of(file, identity, mark.committedLength)
                                        : VerifiedPrefix();
    index_ = std::move(fresh);
    generation_ = mark.generation;
    committedLength_ = mark.committedLength;
    settle(after);
    viewChanged();
    return Refresh::kChanged;
}

// ---------------------------------------------------------------- reading only

// Reads the newest committed state it can prove and changes nothing: no
// recovery, no compaction, no mark, no lock. The data file is found as a
// look of another process's changes finds it; a reader that meets a
// compaction's swap waits for it a little, and one that a dead compactor
// left without "registry.bin" reads the file a writer's recovery would
// make live. Past the mark it accepts whole, verified segments only when no
// writer was in the middle of a change meanwhile (the shared count stayed
// settled): such a segment may be a commit about to be cut back.
void SingleFileBucketStore::openForReading(StatusChain& status) {
    if (status.isFatal()) {
        return;
    }
    Lock lock(mutex_);
    if (open_) {
        return;
    }
    openValue_ = 0;
    storeOperation(status, [&] {
        for (int attempt = 0; attempt < kRefreshAttempts; ++attempt) {
            pauseBeforeAttempt(attempt);
            if (openLiveForReading()) {
                break;
            }
            if (attempt + 1 == kRefreshAttempts) {
                openLeftoverForReading();
            }
        }
        open_ = true;
        viewChanged();
    });
}

// False when the name changed under the look: look again.
bool SingleFileBucketStore::openLiveForReading() {
    const uint32_t count = notes_ != nullptr ? notes_->load() : 1;
    const FileSystem::Status before = fs_.stat(livePath_);
    if (!before.exists) {
        return false;
    }
    std::unique_ptr<File> file = fs_.open(livePath_, FileSystem::kRead);
    const File::Identity identity = file->identity();
    const CommitMarks::Mark mark = marks_.peekNewest();
    const FileSystem::Status after = fs_.stat(livePath_);
    if (!after.exists || after.device != identity.device || after.inode != identity.inode) {
        return false;
    }
    const int64_t size = file->size();
    const bool markEndsSegment = mark.generation > 0 && mark.readable &&
                                 mark.committedLength <= size &&
                                 segmentEndsAt(*file, mark.committedLength);
    int64_t length = markEndsSegment ? mark.committedLength : wholeSegmentsEnd(*file, 0, size);
    if (markEndsSegment) {
        const int64_t rolled = wholeSegmentsEnd(*file, length, size);
        if (rolled != length && kel::osdep::SharedCounter::isSettled(count) &&
            notes_->load() == count) {
            length = rolled;
        }
    }
    adoptForReading(std::move(file), identity, mark.generation, length);
    settle(after);
    return true;
}

// The new file of a compaction whose mark waits under "newCommitmark", if
// it is whole; else the old one set aside; else nothing: an empty store.
void SingleFileBucketStore::openLeftoverForReading() {
    if (fs_.fileExists(newPath_) && holdsWholeFile(newPath_, marks_.newMarkPath())) {
        std::unique_ptr<File> file = fs_.open(newPath_, FileSystem::kRead);
        const int64_t length = marks_.lengthIn(marks_.newMarkPath());
        adoptForReading(std::move(file), File::Identity(), 1, length);
    } else if (fs_.fileExists(previousPath_)) {
        std::unique_ptr<File> file = fs_.open(previousPath_, FileSystem::kRead);
        const int64_t length = wholeSegmentsEnd(*file, 0, file->size());
        adoptForReading(std::move(file), File::Identity(), 0, length);
    }
}

void SingleFileBucketStore::adoptForReading(std::unique_ptr<File> file,
                                            const File::Identity& identity, int64_t generation,
                                            int64_t length) {
    StoreIndex fresh;
    fresh.load(*file, length, verifiedBelow(*file, file->identity(), length));
    verified_ = fresh.damagedEnd() == 0 ? VerifiedPrefix::of(*file, file->identity(), length)
                                        : VerifiedPrefix();
    index_ = std::move(fresh);
    file_ = std::move(file);
    // A leftover's identity is not that of "registry.bin": the next look
    // at the name loads the live file once it is there.
    fileIdentity_ = identity;
    fileWritable_ = false;
    generation_ = generation;
    committedLength_ = length;
}

bool SingleFileBucketStore::catchUp(StatusChain& status) {
    return storeOperation(status, [&] {
        Lock lock(mutex_);
        if (!opened_ || (open_ && filesAsLeft())) {
            return false;
        }
        // Another process changed the files, or died changing them: the
        // open's steps repair what it left and read the files anew.
        open_ = false;
        file_.reset();
        index_.clear();
        signature_.reset();
        viewChanged();
        removeTemporaryFiles(fs_, directory_);
        openFiles();
        loadIndex();
        rememberSignature();
        open_ = true;
        viewChanged();
        return true;
    });
}

// One listing tells whether any file of an interrupted compaction is left
// and which marks there are; a stat whether "registry.bin" is still the
// file held open, for writing, and ends where the index does.
bool SingleFileBucketStore::filesAsLeft() {
    if (!file_ || !fileWritable_) {
        return false;
    }
    const WString ownMark = CommitMarks::nameOf(generation_);
    bool ownMarkSeen = false;
    for (const WString& name : fs_.listDirectory(directory_)) {
        if (name == WString(L"registry.bin.1") || name == WString(L"registry.bin.2") ||
            name == WString(L"newCommitmark") || name == WString(L"oldCommitmark")) {
            return false;
        }
        if (name.startsWith(WString(L"commitmark."))) {
            if (name != ownMark) {
                return false;
            }
            ownMarkSeen = true;
        }
    }
    const FileSystem::Status now = fs_.stat(livePath_);
    return ownMarkSeen && now.exists && now.device == fileIdentity_.device &&
           now.inode == fileIdentity_.inode && now.size == committedLength_;
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
