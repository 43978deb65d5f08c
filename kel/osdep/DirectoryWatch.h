#ifndef ZQ_KEL_OSDEP_DIRECTORYWATCH_H
#define ZQ_KEL_OSDEP_DIRECTORYWATCH_H

#include <functional>

#include "zq/kel/StringBase.h"

namespace zq {
namespace kel {
namespace osdep {

// A descriptor that becomes readable when a file in one directory is
// created, renamed into it or removed. Needs only the right to read the
// directory; costs the processes changing it nothing they would notice.
//
// Not synchronised: one thread at a time.
class DirectoryWatch {
  public:
    // Throws PosixError when the directory cannot be watched.
    explicit DirectoryWatch(const WString& directory);
    ~DirectoryWatch();
    DirectoryWatch(const DirectoryWatch&) = delete;
    DirectoryWatch& operator=(const DirectoryWatch&) = delete;

    int fd() const { return fd_; }
    // What a notice says of a file.
    enum Change { kArrived, kLeft };  // created or renamed in; removed
    // Takes every waiting notice without blocking; true when `matters` held
    // for at least one, or when notices were lost (the queue overflowed):
    // then anything may have changed.
    bool drain(const std::function<bool(const char* name, Change change)>& matters);
    // Blocks until a notice waits or `timeoutMilliseconds` pass (negative:
    // no limit). True when one waits.
    bool waitReadable(int timeoutMilliseconds) const;

  private:
    int fd_;
};

}  // namespace osdep
}  // namespace kel
}  // namespace zq

#endif  // ZQ_KEL_OSDEP_DIRECTORYWATCH_H
