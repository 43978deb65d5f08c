#ifndef ZQ_ORVANE_TOUCHFILE_H
#define ZQ_ORVANE_TOUCHFILE_H

#include <memory>
#include <string>

#include "kel/osdep/File.h"
#include "kel/osdep/FileSystem.h"
#include "zq/kel/StringBase.h"

namespace zq {
namespace orvane {

class Options;

// Files the registry creates get their owner, group and mode before their
// final name, so another process never sees one with the wrong ones. Both
// throw PosixError; the temporary file is removed before the error goes on.

// Creates an empty file at `path` unless a regular file is there already.
void touchFile(kel::osdep::FileSystem& fs, const kel::WString& path, const Options* options);

// A file written under a temporary name and given its final one by
// publish(): synced, renamed over whatever was there, and the directory
// synced, so a crash leaves either the old file or the whole new one. Until
// published, destroying it removes the temporary file.
class AtomicFileWriter {
  public:
    AtomicFileWriter(kel::osdep::FileSystem& fs, const kel::WString& path, const std::string& bytes,
                     const Options* options);
    // The same under the fixed name `temporary`, created afresh: a file a
    // crash left there is replaced, never rewritten in place.
    AtomicFileWriter(kel::osdep::FileSystem& fs, const kel::WString& path, const std::string& bytes,
                     const Options* options, const kel::WString& temporary);
    ~AtomicFileWriter();
    AtomicFileWriter(const AtomicFileWriter&) = delete;
    AtomicFileWriter& operator=(const AtomicFileWriter&) = delete;

    // Of the file written, for a caller that wants to know it again.
    kel::osdep::File::Identity identity() { return file_->identity(); }

    void publish();
    // Renames without a sync: other processes see the whole file at once,
    // but a crash may lose it, or leave it empty under its final name.
    void publishVisible();

  private:
    void write(const std::string& bytes);
    void rename();

    kel::osdep::FileSystem& fs_;
    kel::WString path_;
    kel::WString temporary_;
    std::unique_ptr<kel::osdep::File> file_;
    bool published_ = false;
};

inline void writeFileAtomically(kel::osdep::FileSystem& fs, const kel::WString& path,
                                const std::string& bytes, const Options* options) {
    AtomicFileWriter(fs, path, bytes, options).publish();
}

// Deletes the "*.tmp" files a crash left in `directory`; InvalidArgument when
// it is not a directory.
void removeTemporaryFiles(kel::osdep::FileSystem& fs, const kel::WString& directory);

}  // namespace orvane
}  // namespace zq

#endif  // ZQ_ORVANE_TOUCHFILE_H
