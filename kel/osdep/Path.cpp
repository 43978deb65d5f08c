#include "kel/osdep/Path.h"

#include <string>

#include "kel/Throw.h"

namespace zq {
namespace kel {
namespace osdep {

namespace {
const WString kSlash(L"/");
}  // namespace

WString join(const WString& directory, const WString& name) {
    WString path(directory);
    path += kSlash;
    path += name;
    return path;
}

bool isAbsolute(const WString& path) { return !path.empty() && path[0] == L'/'; }

void requireAbsolute(const WString& path) {
    if (!isAbsolute(path)) {
        ZQ_THROW_DETAIL(InvalidArgument2,
                        ("not an absolute path: " + std::string(NString(path).c_str())).c_str());
    }
}

WString parentOf(const WString& path) {
    const size_t slash = path.rfind(L'/');
    if (slash == WString::npos) {
        return WString(L".");
    }
    return slash == 0 ? kSlash : path.substr(0, slash);
}

WString baseName(const WString& path) {
    const size_t slash = path.rfind(L'/');
    return slash == WString::npos ? path : path.substr(slash + 1);
}

}  // namespace osdep
}  // namespace kel
}  // namespace zq
