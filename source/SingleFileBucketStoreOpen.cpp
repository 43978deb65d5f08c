// The store's open: what a crash or damage left is repaired, what a repair
// drops is kept beside the store, and the open says what it found.
#include "source/SingleFileBucketStore.h"

#include <algorithm>
#include <cstring>
#include <vector>

#include "kel/Endian.h"
#include "kel/osdep/Path.h"
#include "source/StoreOperation.h"
#include "source/TouchFile.h"
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

}  // namespace

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
        passOnError(status, compaction);
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
    std::vector<WString> names;
    adoptMark(marks_.findNewest(&names));
    recoverFiles(names);
    openDataFile();
    settleCommittedLength();
}

// Repairs what a crash in the middle of a compaction's swap left. Every
// sequence ends with the newest complete file live and its mark found
// again; a copy is deleted only once the file that replaces it is known
// whole, so a stale "newCommitmark" never costs the only intact copy.
//
// `names`, listed under the process lock that keeps other writers out,
// spare a look at each name a crash may have left: usually none is there.
void SingleFileBucketStore::recoverFiles(const std::vector<WString>& names) {
    const auto exists = [&](const WString& path) {
        return std::find(names.begin(), names.end(), kel::osdep::baseName(path)) != names.end() &&
               fs_.fileExists(path);
    };
    const bool live = fs_.fileExists(livePath_);
    const bool fresh = exists(newPath_);
    const bool previous = exists(previousPath_);
    const bool newMark = exists(marks_.newMarkPath());
    const bool oldMark = exists(marks_.oldMarkPath());
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
        file_ = openData(livePath_,
                         FileSystem::kReadWrite | FileSystem::kCreate | FileSystem::kTruncate);
        fs_.syncDirectory(directory_);
    } else {
        file_ = openData(livePath_, FileSystem::kReadWrite);
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
    const bool trusted = markTrusted_ && markEndsSegment(*file_, committedLength_, size);
    const int64_t end = wholeSegmentsEnd(*file_, trusted ? committedLength_ : 0, size);
    if (trusted && end == committedLength_ && end == size) {
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

}  // namespace orvane
}  // namespace zq
