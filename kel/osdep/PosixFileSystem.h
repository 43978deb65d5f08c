#ifndef ZQ_KEL_OSDEP_POSIXFILESYSTEM_H
#define ZQ_KEL_OSDEP_POSIXFILESYSTEM_H

#include "kel/osdep/FileSystem.h"

namespace zq {
namespace kel {
namespace osdep {

// FileSystem over the POSIX calls. Interrupted calls are repeated; wide paths
// become UTF-8 just before each call. Holds no state.
class PosixFileSystem : public FileSystem {
  public:
    std::unique_ptr<File> open(const WString& path, uint32_t flags,
                               uint32_t permissions = 0666) override;
    Status stat(const WString& path) override;
    void rename(const WString& from, const WString& to) override;
    void unlink(const WString& path) override;
    void makeDirectory(const WString& path, uint32_t permissions) override;
    std::vector<WString> listDirectory(const WString& path) override;
    void syncDirectory(const WString& path) override;
    bool mayWrite(const WString& path) override;
};

}  // namespace osdep
}  // namespace kel
}  // namespace zq

#endif  // ZQ_KEL_OSDEP_POSIXFILESYSTEM_H
