#include "kel/osdep/BinaryFile.h"

#include <cerrno>

#include "kel/Throw.h"
#include "zq/kel/OSException.h"

namespace zq {
namespace kel {
namespace osdep {

BinaryFile::BinaryFile(FileSystem& fileSystem) : fileSystem_(fileSystem), position_(0) {}

BinaryFile::~BinaryFile() = default;

void BinaryFile::open(const WString& path, uint32_t mode, uint32_t permissions) {
    uint32_t flags = (mode & kReadWrite) != 0   ? FileSystem::kReadWrite
                     : (mode & kWriteOnly) != 0 ? FileSystem::kWrite
                                                : FileSystem::kRead;
    if ((mode & kTruncate) != 0) {
        flags |= FileSystem::kTruncate;
    }
    if ((mode & kCreate) != 0) {
        flags |= FileSystem::kCreate;
    }
    close();
    file_ = fileSystem_.open(path, flags, permissions);
    position_ = 0;
}

void BinaryFile::seek(int32_t offset) {
    if (offset < 0) {
        ZQ_THROW_DETAIL(InvalidArgument2, "negative file position");
    }
    position_ = offset;
}

void BinaryFile::write(const void* buffer, size_t count) {
    File& file = handle();
    if (static_cast<uint64_t>(count) > static_cast<uint64_t>(kLimit - position_)) {
        ZQ_THROW_DETAIL(BoundExceeded2, "a file position must stay below 2 GiB");
    }
    file.writeAt(position_, buffer, count);
    position_ += static_cast<int32_t>(count);
}

void BinaryFile::read(void* buffer, size_t count) {
    File& file = handle();
    // A file that reached 2 GiB by other means cannot be walked past it here.
    if (static_cast<uint64_t>(count) > static_cast<uint64_t>(kLimit - position_)) {
        ZQ_THROW_DETAIL(BoundExceeded2, "a file position must stay below 2 GiB");
    }
    file.readFully(position_, buffer, count);
    position_ += static_cast<int32_t>(count);
}

void BinaryFile::truncate(int64_t length) { handle().truncate(length); }

void BinaryFile::flush() { handle().sync(); }

int64_t BinaryFile::size() { return handle().size(); }

void BinaryFile::close() {
    if (file_ != nullptr) {
        std::unique_ptr<File> file = std::move(file_);
        file->close();
    }
}

File& BinaryFile::handle() {
    if (file_ == nullptr) {
        throw PosixError(EBADF, "file is not open", __LINE__, __FILE__);
    }
    return *file_;
}

}  // namespace osdep
}  // namespace kel
}  // namespace zq
