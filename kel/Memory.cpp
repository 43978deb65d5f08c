#include "kel/Memory.h"

#include <cstdlib>
#include <new>

namespace zq {
namespace kel {

void* allocate(size_t bytes) {
    void* block = std::malloc(bytes == 0 ? 1 : bytes);
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

}  // namespace kel
}  // namespace zq
