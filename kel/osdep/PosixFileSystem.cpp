#include "kel/osdep/PosixFileSystem.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <limits>
#include <memory>
#include <new>
#include <string>

#include "kel/Utf8.h"
#include "zq/kel/OSException.h"

namespace zq {
namespace kel {
namespace osdep {

namespace {

[[noreturn]] void fail(const char* what, int line, int error = errno) {
    throw PosixError(error, what, line, __FILE__);
}

template <class Call>
auto retryInterrupted(Call call) -> decltype(call()) {
    decltype(call()) result;
    do {
        result = call();
    } while (result == -1 && errno == EINTR);
    return result;
}

// A path in the system's encoding, held on the stack unless it is long: the
// renames and removals of a compaction's swap must not run out of memory
// half way.
class NativePath {
  public:
    explicit NativePath(const WString& path) {
        const size_t bytes = utf8::measure(path.c_str(), path.length());
        if (bytes < sizeof(inline_)) {
            utf8::encodeText(path.c_str(), path.length(),
                             reinterpret_cast<unsigned char*>(inline_));
            inline_[bytes] = '\0';
        } else {
            long_.reset(new NString(path));
        }
    }
    NativePath(const NativePath&) = delete;
    NativePath& operator=(const NativePath&) = delete;

    const char* c_str() const { return long_ ? long_->c_str() : inline_; }

  private:
    char inline_[1024];
    std::unique_ptr<NString> long_;
};

off_t toOffset(int64_t offset, int line) {
    if (offset < 0 || offset > std::numeric_limits<off_t>::max()) {
        fail("file offset out of range", line, EOVERFLOW);
    }
    return static_cast<off_t>(offset);
}

class PosixRegion : public MappedRegion {
  public:
    PosixRegion(void* address, int64_t offset, size_t length)
        : MappedRegion(static_cast<const unsigned char*>(address), offset, length) {}
    ~PosixRegion() override { ::munmap(const_cast<unsigned char*>(bytes()), length()); }
};

class PosixFile : public File {
  public:
    explicit PosixFile(int fd) : fd_(fd) {}
    ~PosixFile() override {
        if (fd_ >= 0) {
            ::close(fd_);
        }
    }

    size_t readAt(int64_t offset, void* buffer, size_t count) override {
        size_t done = 0;
        while (done < count) {
            const ssize_t got = retryInterrupted([&] {
                return ::pread(descriptor(), static_cast<char*>(buffer) + done, count - done,
                               toOffset(offset + static_cast<int64_t>(done), __LINE__));
            });
            if (got < 0) {
                fail("pread", __LINE__);
            }
            if (got == 0) {
                break;
            }
            done += static_cast<size_t>(got);
        }
        return done;
    }

    void writeAt(int64_t offset, const void* buffer, size_t count) override {
        size_t done = 0;
        while (done < count) {
            const ssize_t put = retryInterrupted([&] {
                return ::pwrite(descriptor(), static_cast<const char*>(buffer) + done, count - done,
                                toOffset(offset + static_cast<int64_t>(done), __LINE__));
            });
            if (put < 0) {
                fail("pwrite", __LINE__);
            }
            if (put == 0) {
                fail("pwrite made no progress", __LINE__, ENOSPC);
            }
            done += static_cast<size_t>(put);
        }
    }

    void sync() override {
        if (retryInterrupted([&] { return ::fdatasync(descriptor()); }) != 0) {
            fail("fdatasync", __LINE__);
        }
    }

    void truncate(int64_t length) override {
        const off_t size = toOffset(length, __LINE__);
        if (retryInterrupted([&] { return ::ftruncate(descriptor(), size); }) != 0) {
            fail("ftruncate", __LINE__);
        }
    }

    int64_t size() override {
        struct stat info;
        if (::fstat(descriptor(), &info) != 0) {
            fail("fstat", __LINE__);
        }
        return static_cast<int64_t>(info.st_size);
    }

    Identity identity() override {
        struct stat info;
        if (::fstat(descriptor(), &info) != 0) {
            fail("fstat", __LINE__);
        }
        Identity id;
        id.device = static_cast<uint64_t>(info.st_dev);
        id.inode = static_cast<uint64_t>(info.st_ino);
        id.changed = static_cast<int64_t>(info.st_ctim.tv_sec) * 1000000000 + info.st_ctim.tv_nsec;
        return id;
    }

    void changeOwner(uint32_t user, uint32_t group) override {
        if (retryInterrupted([&] { return ::fchown(descriptor(), user, group); }) != 0) {
            fail("fchown", __LINE__);
        }
    }

    void changeMode(uint32_t permissions) override {
        if (retryInterrupted([&] { return ::fchmod(descriptor(), permissions); }) != 0) {
            fail("fchmod", __LINE__);
        }
    }

    // Null where mmap refuses: a file opened for writing only, no address
    // space left.
    std::unique_ptr<MappedRegion> map(int64_t offset, size_t length) override {
        if (length == 0) {
            return nullptr;
        }
        void* address = ::mmap(nullptr, length, PROT_READ, MAP_SHARED, descriptor(),
                               toOffset(offset, __LINE__));
        if (address == MAP_FAILED) {
            return nullptr;
        }
        // Out of memory for the region is one more way to be refused.
        MappedRegion* region = new (std::nothrow) PosixRegion(address, offset, length);
        if (region == nullptr) {
            ::munmap(address, length);
        }
        return std::unique_ptr<MappedRegion>(region);
    }

    void close() override {
        if (fd_ < 0) {
            return;
        }
        const int fd = fd_;
        fd_ = -1;
        // Not repeated on EINTR: Linux has released the descriptor either way.
        if (::close(fd) != 0 && errno != EINTR) {
            fail("close", __LINE__);
        }
    }

  private:
    int descriptor() const {
        if (fd_ < 0) {
            fail("file is closed", __LINE__, EBADF);
        }
        return fd_;
    }

    int fd_;
};

int openFlags(uint32_t flags) {
    int result = O_CLOEXEC;
    const uint32_t access = flags & FileSystem::kReadWrite;
    result |= access == FileSystem::kReadWrite ? O_RDWR
              : access == FileSystem::kWrite   ? O_WRONLY
                                               : O_RDONLY;
    result |= (flags & FileSystem::kCreate) != 0 ? O_CREAT : 0;
    result |= (flags & FileSystem::kTruncate) != 0 ? O_TRUNC : 0;
    result |= (flags & FileSystem::kExclusive) != 0 ? O_EXCL : 0;
    return result;
}

}  // namespace

std::unique_ptr<File> PosixFileSystem::open(const WString& path, uint32_t flags,
                                            uint32_t permissions) {
    const NativePath name(path);
    // Without O_NONBLOCK a FIFO with no writer, or a device, holds the open
    // forever; what is not a regular file is refused right after.
    const int fd = retryInterrupted([&] {
        return ::open(name.c_str(), openFlags(flags) | O_NONBLOCK | O_NOCTTY,
                      static_cast<mode_t>(permissions));
    });
    if (fd < 0) {
        const int error = errno;
        std::string what("open ");
        what += name.c_str();
        fail(what.c_str(), __LINE__, error);
    }
    std::unique_ptr<File> file(new PosixFile(fd));
    struct stat info;
    if (::fstat(fd, &info) != 0) {
        fail("fstat", __LINE__);
    }
    const bool accepted =
        S_ISREG(info.st_mode) || ((flags & kAnyFileType) != 0 && !S_ISDIR(info.st_mode));
    if (!accepted) {
        std::string what("not a regular file: ");
        what += name.c_str();
        throw PosixError(S_ISDIR(info.st_mode) ? EISDIR : ENXIO, what.c_str(), __LINE__, __FILE__);
    }
    // A regular file ignores O_NONBLOCK: two system calls saved on every open.
    if (S_ISREG(info.st_mode)) {
        return file;
    }
    const int status = ::fcntl(fd, F_GETFL);
    if (status == -1 || ::fcntl(fd, F_SETFL, status & ~O_NONBLOCK) == -1) {
        fail("fcntl", __LINE__);
    }
    return file;
}

FileSystem::Status PosixFileSystem::stat(const WString& path) {
    const NativePath name(path);
    struct stat info;
    Status status;
    if (::stat(name.c_str(), &info) != 0) {
        if (errno == ENOENT || errno == ENOTDIR) {
            return status;
        }
        fail("stat", __LINE__);
    }
    status.exists = true;
    status.regular = S_ISREG(info.st_mode);
    status.directory = S_ISDIR(info.st_mode);
    status.size = static_cast<int64_t>(info.st_size);
    status.permissions = static_cast<uint32_t>(info.st_mode & 07777);
    status.device = static_cast<uint64_t>(info.st_dev);
    status.inode = static_cast<uint64_t>(info.st_ino);
    status.modifiedNanoseconds =
        static_cast<int64_t>(info.st_mtim.tv_sec) * 1000000000 + info.st_mtim.tv_nsec;
    return status;
}

// With the effective ids, as an open for writing checks them; a read-only
// mount says EROFS.
bool PosixFileSystem::mayWrite(const WString& path) {
    const NativePath name(path);
    return ::faccessat(AT_FDCWD, name.c_str(), W_OK, AT_EACCESS) == 0;
}

void PosixFileSystem::rename(const WString& from, const WString& to) {
    const NativePath source(from);
    const NativePath target(to);
    if (retryInterrupted([&] { return ::rename(source.c_str(), target.c_str()); }) != 0) {
        fail("rename", __LINE__);
    }
}

void PosixFileSystem::unlink(const WString& path) {
    const NativePath name(path);
    if (retryInterrupted([&] { return ::unlink(name.c_str()); }) != 0) {
        fail("unlink", __LINE__);
    }
}

void PosixFileSystem::makeDirectory(const WString& path, uint32_t permissions) {
    const NativePath name(path);
    if (retryInterrupted([&] { return ::mkdir(name.c_str(), static_cast<mode_t>(permissions)); }) !=
        0) {
        fail("mkdir", __LINE__);
    }
}

std::vector<WString> PosixFileSystem::listDirectory(const WString& path) {
    const NativePath name(path);
    std::vector<WString> names;
    DIR* directory = ::opendir(name.c_str());
    if (directory == nullptr) {
        if (errno == ENOENT || errno == ENOTDIR) {
            return names;
        }
        fail("opendir", __LINE__);
    }
    for (;;) {
        errno = 0;
        const dirent* entry = ::readdir(directory);
        if (entry == nullptr) {
            break;
        }
        const char* entryName = entry->d_name;
        if (entryName[0] == '.' &&
            (entryName[1] == '\0' || (entryName[1] == '.' && entryName[2] == '\0'))) {
            continue;
        }
        try {
            names.emplace_back(entryName);
        } catch (...) {
            ::closedir(directory);
            throw;
        }
    }
    const int error = errno;
    ::closedir(directory);
    if (error != 0) {
        fail("readdir", __LINE__, error);
    }
    std::sort(names.begin(), names.end());
    return names;
}

void PosixFileSystem::syncDirectory(const WString& path) {
    const NativePath name(path);
    const int fd =
        retryInterrupted([&] { return ::open(name.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC); });
    if (fd < 0) {
        fail("open directory", __LINE__);
    }
    const int result = retryInterrupted([&] { return ::fsync(fd); });
    const int error = errno;
    ::close(fd);
    if (result != 0) {
        fail("fsync directory", __LINE__, error);
    }
}

}  // namespace osdep
}  // namespace kel
}  // namespace zq
