#ifndef ZQ_ORVANE_COMMITMARKS_H
#define ZQ_ORVANE_COMMITMARKS_H

#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "kel/osdep/File.h"
#include "kel/osdep/FileSystem.h"
#include "zq/kel/StringBase.h"

namespace zq {
namespace orvane {

class Options;

// The commit marks of a store directory: "commitmark.N" holds, as decimal
// digits, how many bytes of "registry.bin" generation N committed. The mark
// with the largest N is the newest; an open trusts bytes past its length
// only as far as they hold whole segments whose checksums verify.
class CommitMarks {
  public:
    struct Mark {
        int64_t generation = 0;  // 0: no mark
        int64_t committedLength = 0;
        bool readable = true;  // false: the newest mark's content is not a length
    };

    CommitMarks(kel::osdep::FileSystem& fs, const kel::WString& directory, const Options* options);

    static kel::WString nameOf(int64_t generation);
    // N of a mark's file name "commitmark.N"; 0 for any other name.
    static int64_t generationOf(const char* name);
    kel::WString pathOf(int64_t generation) const;
    kel::WString newMarkPath() const;  // "newCommitmark"
    kel::WString oldMarkPath() const;  // "oldCommitmark"
    // Where the next mark is written before it gets its name.
    kel::WString spareMarkPath() const;

    // Finds the newest mark and removes every older one, so that a stale mark
    // can never win once a compaction restarts the generations at 1. A name
    // that is not a mark's throws UnableToConvert; a newest mark that cannot
    // be read as a length comes back not readable. With `names`, every name
    // the directory held when listed.
    Mark findNewest(std::vector<kel::WString>* names = nullptr);
    // The same without changing anything, for a process that does not hold
    // the lock: names that are not marks (another process's temporary
    // files) are passed over, and a mark that vanishes while read is
    // looked for again.
    Mark peekNewest();
    // The length a mark file at `path` holds, or -1 when it holds none.
    int64_t lengthIn(const kel::WString& path);
    // Removes every "commitmark.N" but `keep` (0 keeps none).
    void removeAllBut(int64_t keep);

    // Every name that begins as a mark's does, for an offline check: the
    // marks with their generations, and the names an open would refuse.
    struct Survey {
        std::vector<std::pair<int64_t, kel::WString>> marks;  // with their paths
        std::vector<kel::WString> strangers;                  // file names
    };
    Survey survey();

    // Writes the mark of `generation` for `committedLength` under its name,
    // then removes the mark of `generation - 1`; a mark left behind is
    // harmless, as the next open removes it. A durable mark is synced with
    // its directory. A visible one is not: the data it describes is durable
    // already, and an open that finds it lost rolls forward over that data.
    //
    // A visible mark that follows one this object wrote moves that one
    // aside as the spare and writes the next mark into it: on ext4 a file
    // created and one freed per commit cost more than the data sync
    // itself. The spare is rewritten only under the spare's name, and
    // within one run of generations no file comes back to a mark's name it
    // left, so a reader that finds the name still leading to the file it
    // read (peekNewest) has read a whole mark.
    enum Durability { kDurable, kVisible };
    void write(int64_t generation, int64_t committedLength, Durability durability);
    // Whatever this object knew of the marks and the spare no longer holds:
    // another process may have changed them, or the generations restart.
    void forgetSpare();
    // Mark `generation` as peekNewest reads it, for a caller told which
    // mark arrived: no listing. No mark (generation 0) when it is gone,
    // or was being rewritten while read.
    Mark peek(int64_t generation);
    // The content of a mark file as the store writes it.
    static std::string contentFor(int64_t committedLength);

  private:
    // Generations of the marks present, with their paths.
    // With `strangers`, names that are not marks go there instead of throwing.
    std::vector<std::pair<int64_t, kel::WString>> list(
        bool skipStrangers = false, std::vector<kel::WString>* strangers = nullptr,
        std::vector<kel::WString>* names = nullptr);
    void removeListedBut(const std::vector<std::pair<int64_t, kel::WString>>& marks, int64_t keep);
    int64_t readLength(const kel::WString& path);
    // The length in a mark that a commit may be rewriting under the lock:
    // read again when the name no longer leads to the file read.
    int64_t readLengthUnlocked(const kel::WString& path);
    // The spare this object moved aside, open, or null when there is none.
    std::unique_ptr<kel::osdep::File> takeSpare();
    // Writes the next mark into the spare and gives it the mark's name.
    void rewriteSpare(kel::osdep::File& spare, const kel::WString& path, const std::string& bytes);

    kel::osdep::FileSystem& fs_;
    kel::WString directory_;
    const Options* options_;
    // The mark this object wrote last, and the file it moved aside as the
    // spare; generation 0 or a false `spareKnown_`: none.
    int64_t writtenGeneration_ = 0;
    kel::osdep::File::Identity written_;
    bool spareKnown_ = false;
    kel::osdep::File::Identity spare_;
    // Both kept open while they take turns, so that a commit's mark costs a
    // write and two renames, not an open and a close besides. Null: opened
    // by name when needed. `spareBytes_` is the length of what the spare
    // holds, so that it is cut only when the next mark is shorter.
    std::unique_ptr<kel::osdep::File> writtenFile_;
    std::unique_ptr<kel::osdep::File> spareFile_;
    size_t writtenBytes_ = 0;
    size_t spareBytes_ = 0;
};

// Base-10 signed 64-bit text, whole; UnableToConvert otherwise.
int64_t parseInt64(const kel::WString& text);

}  // namespace orvane
}  // namespace zq

#endif  // ZQ_ORVANE_COMMITMARKS_H
