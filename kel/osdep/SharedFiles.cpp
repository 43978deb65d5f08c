#include "kel/osdep/SharedFiles.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

#include "kel/osdep/FileSystem.h"
#include "kel/osdep/Path.h"
#include "zq/kel/OSException.h"

namespace zq {
namespace kel {
namespace osdep {

namespace {

const char kDefaultBase[] = "/var/tmp/varlont/shared";
constexpr int kOpenAttempts = 3;

}  // namespace

WString sharedDirectory(const WString& subdirectory) {
    const char* fromEnvironment = std::getenv("ZQKELTMPSHAREDFILEDIR");
    const WString base(fromEnvironment != nullptr && fromEnvironment[0] == '/' ? fromEnvironment
                                                                               : kDefaultBase);
    const WString directory = join(base, subdirectory);
    const NString name(directory);
    struct stat info {};
    if (::stat(name.c_str(), &info) != 0 || !S_ISDIR(info.st_mode)) {
        FileSystem::posix().createDirectories(directory, 0777);
        if (::stat(name.c_str(), &info) != 0 || !S_ISDIR(info.st_mode)) {
            throw PosixError(ENOTDIR, "shared directory", __LINE__, __FILE__);
        }
    }
    // Every user's processes share it, whatever the umask of the first one.
    if ((info.st_mode & 07777) != 0777 && ::chmod(name.c_str(), 0777) != 0 && errno != EPERM) {
        throw PosixError(errno, "chmod shared directory", __LINE__, __FILE__);
    }
    return directory;
}

int openSharedFile(const WString& path) {
    const NString name(path);
    int fd = -1;
    for (int attempt = 1;; ++attempt) {
        fd = ::open(name.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0666);
        if (fd >= 0) {
            break;
        }
        if (errno == EINTR) {
            --attempt;
            continue;
        }
        if (errno != EACCES || attempt == kOpenAttempts) {
            throw PosixError(errno, "open shared file", __LINE__, __FILE__);
        }
        ::usleep(1000);
    }
    // A mode change is an inode write: only the first opener needs it.
    struct stat info {};
    if (::fstat(fd, &info) == 0 && (info.st_mode & 07777) == 0666) {
        return fd;
    }
    int result;
    do {
        result = ::fchmod(fd, 0666);
    } while (result != 0 && errno == EINTR);
    if (result != 0 && errno != EPERM) {
        const int error = errno;
        ::close(fd);
        throw PosixError(error, "fchmod shared file", __LINE__, __FILE__);
    }
    return fd;
}

}  // namespace osdep
}  // namespace kel
}  // namespace zq
