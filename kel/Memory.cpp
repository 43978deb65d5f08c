#include "kel/Memory.h"

#include <atomic>
#include <cstdlib>
#include <new>

namespace zq {
namespace kel {

namespace {

// Allocations left before the injected failure: 0 when none is armed, -1
// once it has fired.
std::atomic<long> untilFailure{0};

bool injectedFailure() {
    long left = untilFailure.load(std::memory_order_relaxed);
    while (left > 0) {
        if (untilFailure.compare_exchange_weak(left, left == 1 ? -1 : left - 1)) {
            return left == 1;
        }
    }
    return false;
}

}  // namespace

void* tryAllocate(size_t bytes) noexcept {
    return injectedFailure() ? nullptr : std::malloc(bytes == 0 ? 1 : bytes);
}

void* tryReallocate(void* block, size_t bytes) noexcept {
    return injectedFailure() ? nullptr : std::realloc(block, bytes == 0 ? 1 : bytes);
}

void* allocate(size_t bytes) {
    void* block = tryAllocate(bytes);
    if (block == nullptr) {
        throw std::bad_alloc();
    }
    return block;
}

void deallocate(void* block) noexcept { std::free(block); }

void* allocateArray(size_t count, size_t size) {
    if (size != 0 && count > static_cast<size_t>(-1) / size) {
        throw std::bad_alloc();
    }
    return allocate(count * size);
}

AllocationFailure::AllocationFailure(long k) { untilFailure.store(k > 0 ? k : 0); }

AllocationFailure::~AllocationFailure() { untilFailure.store(0); }

bool AllocationFailure::fired() const { return untilFailure.load() < 0; }

}  // namespace kel
}  // namespace zq
