#ifndef ZQ_ORVANE_COMMITMARKS_H
#define ZQ_ORVANE_COMMITMARKS_H

#include <cstdint>
#include <memory>

#include "kel/osdep/FileSystem.h"
#include "source/TouchFile.h"
#include "zq/kel/StringBase.h"

namespace zq {
namespace orvane {

class Options;

// The commit marks of a store directory: "commitmark.N" holds, as decimal
// digits, how many bytes of "registry.bin" generation N committed. The mark
// with the largest N is the truth; bytes past its length are never trusted.
class CommitMarks {
  public:
    struct Mark {
        int64_t generation = 0;  // 0: no mark
        int64_t committedLength = 0;
        bool readable = true;  // false: the newest mark's content is not a length
    };

    CommitMarks(kel::osdep::FileSystem& fs, const kel::WString& directory, const Options* options);

    static kel::WString nameOf(int64_t generation);
    kel::WString pathOf(int64_t generation) const;
    kel::WString newMarkPath() const;  // "newCommitmark"
    kel::WString oldMarkPath() const;  // "oldCommitmark"
    // A retired mark kept to be written again as the next one.
    kel::WString spareMarkPath() const;

    // Finds the newest mark and removes every older one, so that a stale mark
    // can never win once a compaction restarts the generations at 1. A name
    // that is not a mark's throws UnableToConvert; a newest mark that cannot
    // be read as a length comes back not readable.
    Mark findNewest();
    // The same without changing anything, for a process that does not hold
    // the lock: names that are not marks (another process's temporary
    // files) are passed over, and a mark that vanishes while read is
    // looked for again.
    Mark peekNewest();
    // Removes every "commitmark.N" but `keep` (0 keeps none).
    void removeAllBut(int64_t keep);

    // Writes the mark of `generation` for `committedLength` durably, then
    // retires the mark of `generation - 1` if there is one; a mark left
    // behind is harmless, as the next open removes it. The retired file
    // becomes the spare that the next mark is written into.
    void write(int64_t generation, int64_t committedLength);
    // The same in two steps: the mark's bytes are written at once under a
    // temporary name, and named by publish() when the data it describes is
    // durable. Staging it first lets one journal commit carry both files.
    class Pending;
    std::unique_ptr<Pending> stage(int64_t generation, int64_t committedLength);
    void publish(Pending& pending);
    // The content of a mark file as the store writes it.
    static std::string contentFor(int64_t committedLength);

  private:
    // Generations of the marks present, with their paths.
    std::vector<std::pair<int64_t, kel::WString>> list(bool skipStrangers = false);
    void removeListedBut(const std::vector<std::pair<int64_t, kel::WString>>& marks, int64_t keep);
    int64_t readLength(const kel::WString& path);

    kel::osdep::FileSystem& fs_;
    kel::WString directory_;
    const Options* options_;
};

// A staged mark: written under a temporary name, not yet named.
class CommitMarks::Pending {
  public:
    Pending(kel::osdep::FileSystem& fs, const kel::WString& path, int64_t generation,
            int64_t committedLength, const Options* options, const kel::WString& spare)
        : writer(fs, path, contentFor(committedLength), options, spare), generation(generation) {}
    AtomicFileWriter writer;
    int64_t generation;
};

// Base-10 signed 64-bit text, whole; UnableToConvert otherwise.
int64_t parseInt64(const kel::WString& text);

}  // namespace orvane
}  // namespace zq

#endif  // ZQ_ORVANE_COMMITMARKS_H
