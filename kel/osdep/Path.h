#ifndef ZQ_KEL_OSDEP_PATH_H
#define ZQ_KEL_OSDEP_PATH_H

#include "zq/kel/StringBase.h"

namespace zq {
namespace kel {
namespace osdep {

// The directory, a "/" and the name.
WString join(const WString& directory, const WString& name);

bool isAbsolute(const WString& path);

// Throws InvalidArgument2 naming `path` when it does not begin with "/".
void requireAbsolute(const WString& path);

// The part before the last "/" ("/" for "/x"), and the part after it.
WString parentOf(const WString& path);
WString baseName(const WString& path);

}  // namespace osdep
}  // namespace kel
}  // namespace zq

#endif  // ZQ_KEL_OSDEP_PATH_H
