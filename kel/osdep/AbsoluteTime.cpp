#include "zq/kel/AbsoluteTime.h"

#include <ctime>

namespace zq {
namespace kel {

AbsoluteTime AbsoluteTime::now() {
    timespec ts{};
    clock_gettime(CLOCK_REALTIME, &ts);
    AbsoluteTime time;
    time.seconds = static_cast<int64_t>(ts.tv_sec) + kUnixEpochOffset;
    // ns * 2^64 / 1e9, without overflowing 64 bits.
    const auto ns = static_cast<uint64_t>(ts.tv_nsec);
    time.fraction = (ns << 32) / 1000000000u * (uint64_t{1} << 32) +
                    ((ns << 32) % 1000000000u << 32) / 1000000000u;
    return time;
}

}  // namespace kel
}  // namespace zq
