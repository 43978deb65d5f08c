// The store among other processes: what this one verified is noted for
// them, lookups follow their changes, a writer catches up with them under
// the process lock, and a reader opens without changing anything.
#include "source/SingleFileBucketStore.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <thread>

#include "source/StoreOperation.h"
#include "source/TouchFile.h"

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

// Never fails the operation it follows: without a signature the next
// refresh simply looks at the marks.
void SingleFileBucketStore::rememberSignature(bool fileReplaced) noexcept {
    try {
        if (!file_) {
            signature_.reset();
            return;
        }
        if (fileReplaced) {
            fileIdentity_ = file_->identity();
        }
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

// A compaction's swap is a few renames, each followed by a directory sync:
// a look that met one waits a little and looks again, up to about a tenth
// of a second in all.
constexpr int kRefreshAttempts = 10;

void pauseBeforeAttempt(int attempt) {
    if (attempt > 0) {
        std::this_thread::sleep_for(std::chrono::microseconds(100 << attempt));
    }
}

}  // namespace

SingleFileBucketStore::Refresh SingleFileBucketStore::refresh(StatusChain& status) {
    return refreshFromMark(0, status);
}

SingleFileBucketStore::Refresh SingleFileBucketStore::refreshFromMark(int64_t generation,
                                                                      StatusChain& status) {
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
            const Refresh found = tryRefresh(now, attempt == 0 ? generation : 0);
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
SingleFileBucketStore::Refresh SingleFileBucketStore::tryRefresh(const FileSystem::Status& before,
                                                                 int64_t markHint) {
    if (!before.exists) {
        return Refresh::kUnsettled;  // between two renames of a swap
    }
    std::unique_ptr<File> reopened;
    File::Identity identity{before.device, before.inode};
    if (identity != fileIdentity_) {
        // Readers never write: a process that may only read gets its file.
        reopened = openData(livePath_, FileSystem::kRead);
        identity = reopened->identity();
    }
    CommitMarks::Mark mark = markHint > 0 ? marks_.peek(markHint) : CommitMarks::Mark();
    if (mark.generation == 0) {
        mark = marks_.peekNewest();
    }
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
    if (!reopened && extendView(file, identity, mark.committedLength)) {
        generation_ = mark.generation;
        committedLength_ = mark.committedLength;
        settle(after);
        viewChanged();
        return Refresh::kChanged;
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

// When the bytes the view stands on are still those it verified, the file
// has only grown by appends: the view takes in the new segments alone, so
// a refresh after a commit reads what the commit wrote, not the whole file.
bool SingleFileBucketStore::extendView(File& file, const File::Identity& identity, int64_t length) {
    if (committedLength_ == 0 || verified_.length != committedLength_ ||
        verified_.holdsFor(file, identity, committedLength_) != committedLength_) {
        return false;
    }
    const VerifiedPrefix grown = VerifiedPrefix::of(file, identity, length);
    if (!index_.extend(file, committedLength_, length, verifiedBelow(file, identity, length))) {
        return false;
    }
    verified_ = grown;
    return true;
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
    std::unique_ptr<File> file = openData(livePath_, FileSystem::kRead);
    const File::Identity identity = file->identity();
    const CommitMarks::Mark mark = marks_.peekNewest();
    const FileSystem::Status after = fs_.stat(livePath_);
    if (!after.exists || after.device != identity.device || after.inode != identity.inode) {
        return false;
    }
    const int64_t size = file->size();
    const bool trusted =
        mark.generation > 0 && mark.readable && markEndsSegment(*file, mark.committedLength, size);
    int64_t length = trusted ? mark.committedLength : wholeSegmentsEnd(*file, 0, size);
    if (trusted) {
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
        std::unique_ptr<File> file = openData(newPath_, FileSystem::kRead);
        const int64_t length = marks_.lengthIn(marks_.newMarkPath());
        adoptForReading(std::move(file), File::Identity(), 1, length);
    } else if (fs_.fileExists(previousPath_)) {
        std::unique_ptr<File> file = openData(previousPath_, FileSystem::kRead);
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

}  // namespace orvane
}  // namespace zq
