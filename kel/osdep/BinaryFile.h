#ifndef ZQ_KEL_OSDEP_BINARYFILE_H
#define ZQ_KEL_OSDEP_BINARYFILE_H

#include <cstddef>
#include <cstdint>
#include <memory>

#include "kel/osdep/FileSystem.h"

namespace zq {
namespace kel {
namespace osdep {

// A file with a current position, read and written in whole blocks. Positions
// are signed 32-bit, so a file written through this class stays below 2 GiB:
// a write that would pass that limit is refused before anything is written.
// Reading or writing a closed file throws (EBADF) rather than doing nothing.
//
// One BinaryFile may be used by one thread at a time.
class BinaryFile {
  public:
    enum Mode : uint32_t {
        kWriteOnly = 2,
        kReadWrite = 4,
        kTruncate = 8,
        kCreate = 16,
    };
    static constexpr int64_t kLimit = INT32_MAX;  // one past the last byte allowed

    explicit BinaryFile(FileSystem& fileSystem);
    ~BinaryFile();
    BinaryFile(const BinaryFile&) = delete;
    BinaryFile& operator=(const BinaryFile&) = delete;

    // Without kReadWrite or kWriteOnly the file is opened for reading only.
    void open(const WString& path, uint32_t mode, uint32_t permissions = 0666);
    bool isOpen() const { return file_ != nullptr; }

    void seek(int32_t offset);  // from the start; negative offsets throw InvalidArgument
    int32_t position() const { return position_; }
    void write(const void* buffer, size_t count);
    // Exactly `count` bytes, or FileReadFailed at the end of the file.
    void read(void* buffer, size_t count);
    void truncate(int64_t length);
    void flush();  // makes the written bytes durable
    int64_t size();
    void close();

  private:
    File& handle();

    FileSystem& fileSystem_;
    std::unique_ptr<File> file_;
    int32_t position_;
};

}  // namespace osdep
}  // namespace kel
}  // namespace zq

#endif  // ZQ_KEL_OSDEP_BINARYFILE_H
