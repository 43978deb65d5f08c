#ifndef ZQ_KEL_OSDEP_FILESYSTEM_H
#define ZQ_KEL_OSDEP_FILESYSTEM_H

#include <cstdint>
#include <memory>
#include <vector>

#include "kel/osdep/File.h"
#include "zq/kel/StringBase.h"

namespace zq {
namespace kel {
namespace osdep {

// The one door between the library's files and the operating system. The
// virtual primitives are all a replacement has to provide; the composite
// operations below them are built only from the primitives, so a recording or
// fault-injecting replacement sees every step. Failures throw PosixError with
// the errno, or InvalidArgument for a relative path where an absolute one is
// required.
//
// Implementations are safe for concurrent use by several threads.
class FileSystem {
  public:
    enum OpenFlags : uint32_t {
        kRead = 1,
        kWrite = 2,
        kReadWrite = kRead | kWrite,
        kCreate = 4,
        kTruncate = 8,
        kExclusive = 16,
        // A device or FIFO is opened too (never waited on): for tests that
        // need a disk that fails. Without it only regular files open.
        kAnyFileType = 32,
    };
    enum RemoveMode : int {
        kRemoveMustExist = 0,  // a missing file is an error (ENOENT)
        kRemoveIfPresent = 1,  // a missing file is not; other failures still are
    };
    struct Status {
        bool exists = false;
        bool regular = false;
        bool directory = false;
        int64_t size = 0;
        uint32_t permissions = 0;
        // Identity and last change, so a process can tell that another one
        // replaced or changed a file without reading it.
        uint64_t device = 0;
        uint64_t inode = 0;
        int64_t modifiedNanoseconds = 0;
    };

    FileSystem() = default;
    FileSystem(const FileSystem&) = delete;
    FileSystem& operator=(const FileSystem&) = delete;
    virtual ~FileSystem() = default;

    // The POSIX implementation. There is no process-wide choice: whoever
    // touches files is handed the one to use, so a test can give one manager
    // a simulated disk without the rest of the process seeing it.
    static FileSystem& posix();

    // Primitives.
    // Never waits on what is behind the name: a directory is refused with
    // EISDIR, and a FIFO or a device with ENXIO unless kAnyFileType.
    virtual std::unique_ptr<File> open(const WString& path, uint32_t flags,
                                       uint32_t permissions = 0666) = 0;
    // A missing path (ENOENT, ENOTDIR) gives exists == false; other errors throw.
    virtual Status stat(const WString& path) = 0;
    virtual void rename(const WString& from, const WString& to) = 0;
    virtual void unlink(const WString& path) = 0;
    virtual void makeDirectory(const WString& path, uint32_t permissions) = 0;
    // Names in the directory, "." and ".." excluded, in code-unit order; a
    // missing directory gives none.
    virtual std::vector<WString> listDirectory(const WString& path) = 0;
    // Makes the directory's entries (creations, renames, removals) durable.
    virtual void syncDirectory(const WString& path) = 0;
    // Whether this process may change what is at `path` (a file's bytes, a
    // directory's entries): permissions, and a file system mounted for
    // reading only. One that cannot tell says yes, and the first write
    // then fails.
    virtual bool mayWrite(const WString& path);

    // Composite operations.
    bool fileExists(const WString& path);  // regular files only; absolute path
    bool isDirectory(const WString& path);
    int64_t getFileSize(const WString& path);
    void removeFile(const WString& path, RemoveMode mode);
    // Replaces `to`; across file systems the source is copied, synced, then removed.
    void renameFile(const WString& from, const WString& to);
    // Matches the last component of `pattern` (wildcards as in glob(3), a
    // leading "." only matched explicitly); full paths in code-unit order.
    std::vector<WString> findFiles(const WString& pattern);
    // Creates the directory and any missing parents.
    void createDirectories(const WString& path, uint32_t permissions = 0777);

  private:
    void copyFile(const WString& from, const WString& to);
};

}  // namespace osdep
}  // namespace kel
}  // namespace zq

#endif  // ZQ_KEL_OSDEP_FILESYSTEM_H
