#ifndef ZQ_KEL_ABSOLUTETIME_H
#define ZQ_KEL_ABSOLUTETIME_H

#include <cstdint>

#include "zq/kel/Export.h"

namespace zq {
namespace kel {

// A point in time: whole seconds since 1904-01-01 UTC and a fraction of a
// second in units of 2^-64 s.
struct ZQ_EXPORT AbsoluteTime {
    // Seconds from 1904-01-01 to 1970-01-01.
    static constexpr int64_t kUnixEpochOffset = 2082844800;

    int64_t seconds = 0;
    uint64_t fraction = 0;

    static AbsoluteTime now();

    bool operator==(const AbsoluteTime& other) const {
        return seconds == other.seconds && fraction == other.fraction;
    }
    bool operator<(const AbsoluteTime& other) const {
        return seconds < other.seconds || (seconds == other.seconds && fraction < other.fraction);
    }
};

}  // namespace kel
}  // namespace zq

#endif  // ZQ_KEL_ABSOLUTETIME_H
