#ifndef ZQ_KEL_OSDEP_SHAREDFILES_H
#define ZQ_KEL_OSDEP_SHAREDFILES_H

#include "zq/kel/StringBase.h"

namespace zq {
namespace kel {
namespace osdep {

// Files that every process of every user on the machine may open, such as the
// lock files of the named locks. They are made directly with POSIX calls, not
// through FileSystem: a lock file must be a real file to be locked.

// The shared base ("ZQKELTMPSHAREDFILEDIR" when it begins with "/", else
// "/var/tmp/varlont/shared") joined with `subdirectory`, which is created with
// its parents when missing and opened to everyone (mode 0777). A directory of
// another user keeps its mode. Throws PosixError (ENOTDIR when a file is in
// the way).
WString sharedDirectory(const WString& subdirectory);

// Opens (creating it if needed) a file that everyone may read and write; a
// file of another user keeps its mode. EACCES is retried twice, 1 ms apart,
// in case the creator has not yet opened it up. Returns the descriptor
// (close-on-exec); throws PosixError.
int openSharedFile(const WString& path);

}  // namespace osdep
}  // namespace kel
}  // namespace zq

#endif  // ZQ_KEL_OSDEP_SHAREDFILES_H
