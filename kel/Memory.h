#ifndef ZQ_KEL_MEMORY_H
#define ZQ_KEL_MEMORY_H

#include <cstddef>

namespace zq {
namespace kel {

// The library's allocator: every raw block it owns comes from here, so one
// place decides what running out of memory looks like (std::bad_alloc).
void* allocate(size_t bytes);
void deallocate(void* block) noexcept;

// Bytes for `count` objects of `size`; std::bad_alloc if that overflows.
void* allocateArray(size_t count, size_t size);

// For C-style code that handles a null block itself: null instead of a throw.
void* tryAllocate(size_t bytes) noexcept;
void* tryReallocate(void* block, size_t bytes) noexcept;

// For the out-of-memory tests: while one of these lives, the k-th allocation
// from its construction (1 is the next) throws std::bad_alloc, once. A sweep
// raises k until an operation completes without the failure having fired.
class AllocationFailure {
  public:
    explicit AllocationFailure(long k);
    ~AllocationFailure();
    AllocationFailure(const AllocationFailure&) = delete;
    AllocationFailure& operator=(const AllocationFailure&) = delete;

    bool fired() const;
};

}  // namespace kel
}  // namespace zq

#endif  // ZQ_KEL_MEMORY_H
