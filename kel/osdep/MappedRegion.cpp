#include "kel/osdep/MappedRegion.h"

#include "kel/osdep/FaultGuard.h"

namespace zq {
namespace kel {
namespace osdep {

bool MappedRegion::copy(int64_t at, void* buffer, size_t count) const {
    return FaultGuard::copy(buffer, bytes_ + (at - offset_), count);
}

}  // namespace osdep
}  // namespace kel
}  // namespace zq
