#include "kel/osdep/File.h"

#include "kel/Throw.h"

namespace zq {
namespace kel {
namespace osdep {

std::unique_ptr<MappedRegion> File::map(int64_t, size_t) { return nullptr; }

void File::readFully(int64_t offset, void* buffer, size_t count) {
    if (readAt(offset, buffer, count) != count) {
        ZQ_THROW(FileReadFailed);
    }
}

}  // namespace osdep
}  // namespace kel
}  // namespace zq
