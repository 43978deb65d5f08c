#ifndef ZQ_ORVANE_SINGLEFILEBUCKETSTORE_H
#define ZQ_ORVANE_SINGLEFILEBUCKETSTORE_H

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <unordered_set>
#include <vector>

#include "kel/osdep/File.h"
#include "kel/osdep/FileSystem.h"
#include "kel/osdep/MappedFile.h"
#include "kel/osdep/RecursiveMutex.h"
#include "kel/osdep/SharedCounter.h"
#include "source/CommitMarks.h"
#include "source/IBucketStore.h"
#include "source/SegmentWriter.h"
#include "source/StoreIndex.h"

namespace zq {
namespace orvane {

class Options;

// All persistent buckets in one append-only file, "registry.bin", whose
// committed length the newest commit mark records. A commit appends one
// segment, written in pieces, syncs it once, then writes the next mark
// unsynced; an open rolls forward over whole, verified segments past the
// mark, so a crash at any instant leaves the old state or the new one. The file is compacted into
// a single segment on open and when it outgrows its limit.
//
// Thread-safe: the store lock (recursive, so a commit can compact) guards
// every field below it and is held for the whole of each operation but
// wasRepairedOnOpen and isOverSizeLimit. Between processes, whoever changes
// files holds the manager's named lock; refresh() only reads.
class SingleFileBucketStore : public IBucketStore {
  public:
    // `options` is not owned and may be null (no size limit, no ownership).
    SingleFileBucketStore(const kel::WString& directory, const Options* options,
                          kel::osdep::FileSystem& fs);
    ~SingleFileBucketStore() override;

    void open(uint32_t value, kel::StatusChain& status) override;
    // Opens for a process that only reads, and may have no right to write:
    // nothing is changed, nothing waits for another process's transaction.
    void openForReading(kel::StatusChain& status);
    void close(kel::StatusChain& status) override;
    kel::AutoRef<IBucket> readBucket(const kel::WString& name, kel::StatusChain& status) override;
    kel::AutoRef<IBucket> readBucketByDigest(const Digest& digest,
                                             kel::StatusChain& status) override;
    void commit(const UpdatedBuckets& updated, const DeletedNames& deleted,
                kel::StatusChain& status) override;
    bool containsBucket(const kel::AutoRef<IBucket>& bucket, kel::StatusChain& status) override;
    bool exists(const kel::WString& name, kel::StatusChain& status) override;
    bool wasRepairedOnOpen() override { return repairedOnOpen_; }
    bool isOverSizeLimit() override { return overSize_; }
    Refresh refresh(kel::StatusChain& status) override;
    // refresh, for a caller told which mark arrived last (a watcher): that
    // mark is read instead of the directory listed for the newest one. 0,
    // or a mark gone meanwhile: as refresh.
    Refresh refreshFromMark(int64_t generation, kel::StatusChain& status);
    bool catchUp(kel::StatusChain& status) override;
    uint64_t viewVersion() const override { return view_.load(std::memory_order_acquire); }

    // Where the prefixes of data files whose checksums were verified are
    // noted for other processes, and looked up; null (the default): none.
    // Notes are written only by a store whose caller holds the process lock.
    void shareNotes(kel::osdep::SharedCounter* notes) { notes_ = notes; }

    // How much of "registry.bin" reads may take from a map of it; past that
    // they read the file. 0: no map.
    void limitMapping(int64_t bytes) { mapLimit_ = bytes; }

    // For the offline tools: compacts now, whatever the size.
    void compactNow(kel::StatusChain& status);

    // What a repair dropped: the bytes [droppedFrom, droppedTo) of the old
    // file, kept in `copy`; nothing when they are equal.
    struct Repair {
        int64_t droppedFrom = 0;
        int64_t droppedTo = 0;
        kel::WString copy;
        // Whose records lay in the dropped bytes: they now hold what older
        // segments hold. `unnamed` more are gone, and `deletions` read there
        // are undone.
        std::vector<kel::WString> buckets;
        uint32_t unnamed = 0;
        uint32_t deletions = 0;
    };
    // For an administrator: when damage sits in the middle of the file, an
    // open serves around it and a compaction refuses it. This keeps a copy
    // of the file, then rebuilds it, as a compaction does, from the
    // newest records of the whole, verified segments on either side of the
    // damage; no byte that failed its checksum is copied. A file that
    // verifies is left as it is. The caller holds the process lock.
    void repair(Repair& repair, kel::StatusChain& status);

    struct Facts {
        int64_t fileSize = 0;
        int64_t committedLength = 0;
        int64_t generation = 0;
        uint32_t segments = 0;
        size_t liveBuckets = 0;
        int64_t damagedEnd = 0;  // where the newest damaged segment ends, or 0
    };
    // Reads the compacted index back to count live buckets: may throw.
    Facts facts();
    bool isOpen() const { return open_; }

    // ------------------------------------------------ what changed, for watchers
    // Where the view stands: the file, how much of it, and the checksum of
    // the segment ending there, which tells the same bytes apart from a file
    // cut and written again.
    using Position = VerifiedPrefix;
    Position position();
    // The digests that segments between `from` and the view's end updated
    // or deleted. False when the view is not `from`'s file grown by appends
    // (a compaction or a purge replaced it): only a full comparison can tell.
    bool touchedSince(const Position& from, std::vector<DigestKey>& touched,
                      kel::StatusChain& status);
    // The buckets as they were at `at`, a position touchedSince accepted:
    // one per digest, null where none existed.
    std::vector<kel::AutoRef<IBucket>> readBucketsAsOf(const Position& at,
                                                       const std::vector<DigestKey>& digests,
                                                       kel::StatusChain& status);
    // Every bucket that exists in the view.
    std::vector<DigestKey> liveDigests(kel::StatusChain& status);

  private:
    // What a stat of "registry.bin" says; when it has not changed, no other
    // process has committed or compacted: a commit always moves the end of
    // the file, a compaction or a purge gives it a new inode, and the inode
    // this process holds open cannot be reused meanwhile.
    struct Signature {
        kel::osdep::FileSystem::Status status;

        bool operator==(const kel::osdep::FileSystem::Status& other) const {
            return status.exists && other.exists && status.device == other.device &&
                   status.inode == other.inode && status.size == other.size &&
                   status.modifiedNanoseconds == other.modifiedNanoseconds;
        }
    };

    // The file steps of an open and the index load; throws.
    void openFiles();
    // Under the process lock: the files are as this store left them, and
    // nothing of another process's interrupted compaction is left.
    bool filesAsLeft();
    void adoptMark(const CommitMarks::Mark& mark);
    void recoverFiles(const std::vector<kel::WString>& names);
    void finishSwap(bool markWaiting);
    bool holdsWholeFile(const kel::WString& path, const kel::WString& markPath);
    void settleCommittedLength();
    void cutAndMark(int64_t end);
    bool dropDamagedNewest();
    void keepCopy(const kel::WString& path, bool move);
    void copyFile(const kel::WString& from, const kel::WString& to);
    void reportRepairs(kel::StatusChain& status);
    bool openLiveForReading();
    void openLeftoverForReading();
    void adoptForReading(std::unique_ptr<kel::osdep::File> file,
                         const kel::osdep::File::Identity& identity, int64_t generation,
                         int64_t length);
    void rollForwardCompaction();
    void rollBackCompaction();
    void openDataFile();
    // The file's new size.
    void loadIndex();
    void rename(const kel::WString& from, const kel::WString& to);
    // Every data file the store holds is opened here, so that its reads come
    // from a map where they can, and the map goes with the file.
    std::unique_ptr<kel::osdep::File> openData(const kel::WString& path, uint32_t flags) const;
    void removeIfPresent(const kel::WString& path);

    // What a commit writes: the buckets that get a record, in the order
    // written, their index entries and the deletions.
    struct CommitPlan {
        std::vector<const IBucket*> buckets;
        SegmentWriter::Updates updates;
        std::vector<DigestKey> deletions;
        int64_t recordBytes = 0;
    };
    void planCommit(const UpdatedBuckets& updated, const DeletedNames& deleted, CommitPlan& plan);
    void appendSegment(SegmentWriter& writer, const CommitPlan& plan);
    void writeRecords(SegmentWriter& writer, const CommitPlan& plan);
    void rollBackAppend(int64_t start, bool markMayExist);

    // True when it wrote a new file and swapped it in.
    bool compact(kel::StatusChain& status);
    bool compactLocked();
    struct LiveRecord {
        DigestKey digest;
        int64_t offset;
        int64_t length;
    };
    void collectLive(int64_t from, int64_t downTo, int64_t verified,
                     std::unordered_set<DigestKey, DigestKeyHash>& settled,
                     std::vector<LiveRecord>& live);
    void writeCompacted(const std::vector<LiveRecord>& live);
    void copyRecords(SegmentWriter& writer, const std::vector<LiveRecord>& live);
    void repairLocked(Repair& repair);
    void readDropped(Repair& repair, std::vector<DigestKey>& unnamed);
    void nameFromRebuilt(Repair& repair, const std::vector<DigestKey>& unnamed);
    void discardCompactedFiles() noexcept;
    void swapInCompactedFile(std::unique_ptr<kel::osdep::File> fresh, int64_t end);
    bool overSize(int64_t committedLength) const;
    int64_t sizeOnceCompacted(const SegmentDescriptor& written, const CommitPlan& plan);
    void refuseOverLimit(int64_t size, kel::StatusChain& status) const;
    int64_t compactedSize();

    // `name`, when given, is the name the record was looked up by, and
    // `digest` its digest.
    kel::AutoRef<IBucket> readRecord(int64_t offset, const kel::WString* name,
                                     const Digest* digest);
    kel::AutoRef<IBucket> readBucketAt(const Digest& digest, const kel::WString* name,
                                       kel::StatusChain& status);
    // `fileReplaced`: a compaction may have put another file in file_'s
    // place, whose identity is not known yet.
    void rememberSignature(bool fileReplaced = false) noexcept;
    void settle(const kel::osdep::FileSystem::Status& now);
    Refresh tryRefresh(const kel::osdep::FileSystem::Status& before, int64_t markHint);
    bool extendView(kel::osdep::File& file, const kel::osdep::File::Identity& identity,
                    int64_t length);
    void viewChanged() { view_.fetch_add(1, std::memory_order_acq_rel); }
    // How much of `file`, the file `identity`, needs no new check: what this
    // process verified or wrote, or another one noted since the last restart.
    int64_t verifiedBelow(kel::osdep::File& file, const kel::osdep::File::Identity& identity,
                          int64_t limit) const;
    void noteVerified() noexcept;

    kel::osdep::FileSystem& fs_;
    const Options* options_;
    kel::osdep::RecursiveMutex mutex_;

    kel::WString directory_;
    kel::WString livePath_;      // "registry.bin"
    kel::WString newPath_;       // "registry.bin.1"
    kel::WString previousPath_;  // "registry.bin.2"
    CommitMarks marks_;

    std::unique_ptr<kel::osdep::File> file_;
    int64_t sizeOnOpen_ = 0;
    int64_t generation_ = 0;
    int64_t committedLength_ = 0;
    StoreIndex index_;
    uint32_t openValue_ = 0;
    bool open_ = false;
    bool repairedOnOpen_ = false;
    bool overSize_ = false;
    bool markTrusted_ = false;
    kel::WString copyKept_;                 // of what the last open dropped, if anything
    bool lostCommitted_ = false;            // the last open found committed bytes missing
    bool opened_ = false;                   // open() succeeded once: catchUp() may reopen
    bool fileWritable_ = false;             // file_ was opened for writing
    std::unique_ptr<Signature> signature_;  // null: look at the marks next time
    kel::osdep::File::Identity fileIdentity_;
    // The segments of file_ whose bytes may be served without a new check.
    VerifiedPrefix verified_;
    kel::osdep::SharedCounter* notes_ = nullptr;
    int64_t mapLimit_ = kel::osdep::MappedFile::kDefaultLimit;
    std::atomic<uint64_t> view_{0};
};

}  // namespace orvane
}  // namespace zq

#endif  // ZQ_ORVANE_SINGLEFILEBUCKETSTORE_H
