#ifndef ZQ_TESTS_OOM_SWEEP_H
#define ZQ_TESTS_OOM_SWEEP_H

#include <gtest/gtest.h>

#include <cstdio>

#include "kel/Memory.h"

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/lsan_interface.h>
#endif

namespace zq {
namespace test {

// Runs `operation` with its k-th allocation failing; whether that happened.
template <class Operation>
bool failingAt(long k, Operation&& operation) {
    kel::AllocationFailure failure(k);
    operation();
    return failure.fired();
}

// Calls `attempt(k)` for k = 1, 2, ... until an attempt reports that its
// operation completed without reaching its k-th allocation; returns the
// number of failure points swept.
template <class Attempt>
long sweep(const char* what, Attempt&& attempt) {
    constexpr long kLimit = 100000;  // a runaway operation, not a real count
    long k = 1;
    while (attempt(k) && !testing::Test::HasFatalFailure()) {
        if (++k > kLimit) {
            ADD_FAILURE() << what << ": no end after " << kLimit << " allocations";
            break;
        }
    }
    std::printf("%s: %ld allocation failure points\n", what, k - 1);
    return k - 1;
}

// A forked child ends with _exit, which skips LeakSanitizer's check at exit:
// a sweep that runs in children asks for it before the child ends.
inline int leakChecked(int code) {
#if defined(__SANITIZE_ADDRESS__)
    if (__lsan_do_recoverable_leak_check() != 0) return 255;
#endif
    return code;
}

}  // namespace test
}  // namespace zq

#endif  // ZQ_TESTS_OOM_SWEEP_H
