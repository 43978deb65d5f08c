#ifndef ZQ_TESTS_SUPPORT_FRESHSTATUS_H
#define ZQ_TESTS_SUPPORT_FRESHSTATUS_H

#include "zq/kel/StatusChain.h"

namespace zq {
namespace test {

// A status that holds success: a new one holds "not completed", which the
// library takes for an error and does nothing.
inline kel::StatusChain fresh() {
    kel::StatusChain status;
    status.clear();
    return status;
}

}  // namespace test
}  // namespace zq

#endif  // ZQ_TESTS_SUPPORT_FRESHSTATUS_H
