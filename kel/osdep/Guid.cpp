#include "zq/kel/Guid.h"

#include <sys/random.h>

#include <cerrno>
#include <chrono>
#include <random>

namespace zq {
namespace kel {

namespace {

bool fillFromKernel(unsigned char* out, size_t size) {
    size_t filled = 0;
    while (filled < size) {
        const ssize_t got = getrandom(out + filled, size - filled, 0);
        if (got < 0) {
            if (errno == EINTR) {
                continue;
            }
            return false;
        }
        filled += static_cast<size_t>(got);
    }
    return true;
}

}  // namespace

Guid Guid::generate() {
    Guid guid;
    if (!fillFromKernel(guid.bytes, sizeof guid.bytes)) {
        // Identifiers only need to differ between transactions; a clock-seeded
        // generator is enough when the kernel cannot help.
        static thread_local std::mt19937_64 fallback(
            static_cast<uint64_t>(std::chrono::steady_clock::now().time_since_epoch().count()));
        for (unsigned char& b : guid.bytes) {
            b = static_cast<unsigned char>(fallback());
        }
    }
    guid.bytes[6] = static_cast<unsigned char>((guid.bytes[6] & 0x0F) | 0x40);
    guid.bytes[8] = static_cast<unsigned char>((guid.bytes[8] & 0x3F) | 0x80);
    return guid;
}

}  // namespace kel
}  // namespace zq
