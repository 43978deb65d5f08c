#ifndef ZQ_KEL_OSDEP_FAULTGUARD_H
#define ZQ_KEL_OSDEP_FAULTGUARD_H

#include <cstddef>

namespace zq {
namespace kel {
namespace osdep {

// Copies out of memory that may vanish under the copy: the pages of a mapped
// file that another process cut short raise SIGBUS when touched.
//
// The guard's whole state is here: one SIGBUS handler for the process,
// installed by the first copy and never removed, and per thread a pointer to
// the jump buffer of the copy in progress (null outside one). A fault in a
// guarded copy jumps back out of it; any other SIGBUS goes on to the handler
// that was installed before (the default one kills the process, as without
// the guard). The copy's frame holds nothing with a destructor, and copies
// do not nest. Code that installs its own SIGBUS handler after the first
// copy must chain to the one it replaces.
class FaultGuard {
  public:
    // False when touching `from` faulted; `to` then holds part of it.
    static bool copy(void* to, const void* from, size_t count) noexcept;
};

}  // namespace osdep
}  // namespace kel
}  // namespace zq

#endif  // ZQ_KEL_OSDEP_FAULTGUARD_H
