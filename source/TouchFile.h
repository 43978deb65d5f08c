#ifndef ZQ_ORVANE_TOUCHFILE_H
#define ZQ_ORVANE_TOUCHFILE_H

#include <string>

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

// Gives `path` the content `bytes`, replacing any file there: written and
// synced under a temporary name, renamed, then the directory synced. A crash
// leaves either the old file or the whole new one.
void writeFileAtomically(kel::osdep::FileSystem& fs, const kel::WString& path,
                         const std::string& bytes, const Options* options);

// Deletes the "*.tmp" files a crash left in `directory`; InvalidArgument when
// it is not a directory.
void removeTemporaryFiles(kel::osdep::FileSystem& fs, const kel::WString& directory);

}  // namespace orvane
}  // namespace zq

#endif  // ZQ_ORVANE_TOUCHFILE_H
