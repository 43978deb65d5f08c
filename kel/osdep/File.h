#ifndef ZQ_KEL_OSDEP_FILE_H
#define ZQ_KEL_OSDEP_FILE_H

#include <cstddef>
#include <cstdint>
#include <memory>

#include "kel/osdep/MappedRegion.h"

namespace zq {
namespace kel {
namespace osdep {

// An open file of a FileSystem. Every operation either does all it was asked
// or throws (PosixError with the errno, FileReadFailed for a read that meets
// the end of the file): no result is left for the caller to forget.
//
// One File may be used by one thread at a time.
class File {
  public:
    File() = default;
    File(const File&) = delete;
    File& operator=(const File&) = delete;
    // Closes the file, ignoring errors: call close() to see them.
    virtual ~File() = default;

    // Reads up to `count` bytes at `offset`; fewer only at the end of the file.
    [[nodiscard]] virtual size_t readAt(int64_t offset, void* buffer, size_t count) = 0;
    // Writes all `count` bytes at `offset`; a write that stops early throws
    // (ENOSPC when the system reports no error).
    virtual void writeAt(int64_t offset, const void* buffer, size_t count) = 0;
    // Makes the written bytes and the size durable.
    virtual void sync() = 0;
    virtual void truncate(int64_t length) = 0;
    virtual int64_t size() = 0;
    // Which file this is, as a stat of its path would say: a process tells
    // by it whether the name still leads to the file it holds open.
    struct Identity {
        uint64_t device = 0;
        uint64_t inode = 0;
        // When the file's bytes or attributes last changed (nanoseconds);
        // not part of the identity.
        int64_t changed = 0;
        bool operator==(const Identity& other) const {
            return device == other.device && inode == other.inode;
        }
        bool operator!=(const Identity& other) const { return !(*this == other); }
    };
    virtual Identity identity() = 0;
    virtual void changeOwner(uint32_t user, uint32_t group) = 0;
    virtual void changeMode(uint32_t permissions) = 0;
    // Later calls after the first do nothing.
    virtual void close() = 0;
    // A read-only view of [offset, offset + length), which may reach past
    // the end of the file; `offset` is a multiple of the page size. Null
    // when this file is not mapped (the default) or the system refuses (no
    // address space left): read it instead.
    virtual std::unique_ptr<MappedRegion> map(int64_t offset, size_t length);

    // Reads exactly `count` bytes; meeting the end of the file throws FileReadFailed.
    void readFully(int64_t offset, void* buffer, size_t count);
};

}  // namespace osdep
}  // namespace kel
}  // namespace zq

#endif  // ZQ_KEL_OSDEP_FILE_H
