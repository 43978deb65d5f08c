#include "kel/osdep/SharedLibrary.h"

#include <dlfcn.h>

#include <cerrno>

#include "zq/kel/OSException.h"

namespace zq {
namespace kel {
namespace osdep {

SharedLibrary::SharedLibrary(const WString& path) : path_(path), handle_(nullptr) {
    if (path_.empty()) {
        loadError_ = "no library was named";
        return;
    }
    handle_ = ::dlopen(NString(path_).c_str(), RTLD_NOW | RTLD_GLOBAL);
    if (handle_ == nullptr) {
        const char* error = ::dlerror();
        loadError_ = error != nullptr ? error : "the library could not be loaded";
    }
}

SharedLibrary::~SharedLibrary() {
    if (handle_ != nullptr) {
        ::dlclose(handle_);
    }
}

void* SharedLibrary::getSymbol(const char* name, int mode) {
    if (handle_ == nullptr) {
        if (mode == kThrowIfMissing) {
            throw PosixError(ENOENT, loadError_.c_str(), __LINE__, __FILE__);
        }
        return nullptr;
    }
    ::dlerror();  // a symbol may legitimately be null: only dlerror tells
    void* symbol = ::dlsym(handle_, name);
    const char* error = ::dlerror();
    if (error == nullptr) {
        return symbol;
    }
    if (mode == kNullIfMissing) {
        return nullptr;
    }
    throw PosixError(ENOENT, error, __LINE__, __FILE__);
}

void* SharedLibrary::getSymbol(const WString& name, int mode) {
    return getSymbol(NString(name).c_str(), mode);
}

}  // namespace osdep
}  // namespace kel
}  // namespace zq
