#ifndef ZQ_KEL_OSDEP_SHAREDLIBRARY_H
#define ZQ_KEL_OSDEP_SHAREDLIBRARY_H

#include <string>

#include "zq/kel/StringBase.h"

namespace zq {
namespace kel {
namespace osdep {

// A library loaded at run time (RTLD_NOW | RTLD_GLOBAL) and unloaded with the
// object. Loading never throws: a library that did not load shows up on the
// first symbol look-up, with the loader's own words in the exception.
class SharedLibrary {
  public:
    // What getSymbol does when the library or the symbol is missing.
    enum FailureMode : int {
        kThrowIfMissing = 0,   // either throws
        kNullIfMissing = 1,    // either gives null
        kThrowIfNoSymbol = 2,  // a missing library gives null, a missing symbol throws
    };

    // An empty path loads nothing.
    explicit SharedLibrary(const WString& path);
    virtual ~SharedLibrary();
    SharedLibrary(const SharedLibrary&) = delete;
    SharedLibrary& operator=(const SharedLibrary&) = delete;

    bool isLoaded() const { return handle_ != nullptr; }
    // Throws PosixError (ENOENT) whose text is the loader's message. Any mode
    // other than 0 and 1 acts as kThrowIfNoSymbol.
    void* getSymbol(const char* name, int mode);
    void* getSymbol(const WString& name, int mode);

  private:
    WString path_;
    void* handle_;
    std::string loadError_;  // the loader's message when loading failed
};

}  // namespace osdep
}  // namespace kel
}  // namespace zq

#endif  // ZQ_KEL_OSDEP_SHAREDLIBRARY_H
