#ifndef ZQ_KEL_OSDEP_MAPPEDFILE_H
#define ZQ_KEL_OSDEP_MAPPEDFILE_H

#include <cstdint>
#include <memory>

#include "kel/osdep/File.h"

namespace zq {
namespace kel {
namespace osdep {

// A File whose reads come from a map of its start where they can: no system
// call and no copy through the kernel. Meant for a file that grows by
// appends and is replaced whole, whose bytes below its end do not change.
// What the map cannot serve (past the limit, a file that cannot be mapped,
// pages gone because the file was cut short) is read from the file, so a
// read says what a read of the file would. One exception: bytes cut from
// the page that now holds the file's end read as zeros, not as missing.
//
// The map follows this object: it is dropped with it, and on close.
class MappedFile : public File {
  public:
    // Address space one file may take: a 32-bit process has little of it,
    // and a file may be close to 2 GiB.
    static constexpr int64_t kDefaultLimit =
        sizeof(void*) < 8 ? int64_t{256} << 20 : int64_t{1} << 40;

    // Maps up to the first `limit` bytes of `file` (0: none).
    MappedFile(std::unique_ptr<File> file, int64_t limit = kDefaultLimit);

    size_t readAt(int64_t offset, void* buffer, size_t count) override;
    void writeAt(int64_t offset, const void* buffer, size_t count) override;
    void sync() override { file_->sync(); }
    void truncate(int64_t length) override;
    int64_t size() override { return file_->size(); }
    Identity identity() override { return file_->identity(); }
    void changeOwner(uint32_t user, uint32_t group) override { file_->changeOwner(user, group); }
    void changeMode(uint32_t permissions) override { file_->changeMode(permissions); }
    void close() override;
    std::unique_ptr<MappedRegion> map(int64_t offset, size_t length) override {
        return file_->map(offset, length);
    }

    // How many bytes of the file's start reads take from the map now.
    int64_t mappedLength() const { return valid_; }

  private:
    bool serves(int64_t offset, size_t count);
    bool catchUp(int64_t end);
    void mapFor(int64_t size);

    std::unique_ptr<File> file_;
    std::unique_ptr<MappedRegion> region_;
    int64_t limit_;
    int64_t valid_ = 0;     // of the region, known to lie in the file
    bool refused_ = false;  // the file would not map: read it
};

}  // namespace osdep
}  // namespace kel
}  // namespace zq

#endif  // ZQ_KEL_OSDEP_MAPPEDFILE_H
