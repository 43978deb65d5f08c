#ifndef ZQ_KEL_GUID_H
#define ZQ_KEL_GUID_H

#include <cstring>

#include "zq/kel/Export.h"

namespace zq {
namespace kel {

// A 16-byte identifier; all zero means none.
struct ZQ_EXPORT Guid {
    unsigned char bytes[16] = {};

    // A fresh random (version 4) identifier.
    static Guid generate();

    bool isNull() const {
        for (unsigned char b : bytes) {
            if (b != 0) {
                return false;
            }
        }
        return true;
    }
    bool operator==(const Guid& other) const { return std::memcmp(bytes, other.bytes, 16) == 0; }
    bool operator!=(const Guid& other) const { return !(*this == other); }
};

}  // namespace kel
}  // namespace zq

#endif  // ZQ_KEL_GUID_H
