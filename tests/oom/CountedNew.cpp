// Every operator new of this process goes through the library's allocator,
// so a sweep reaches the library's objects and the nodes of its standard
// containers alike. Only this test executable does it: the shared library
// must leave its clients' operator new alone, and std::bad_alloc from either
// allocator is the same failure to the code that catches it.
#include <cstddef>
#include <new>

#include "kel/Memory.h"

namespace {

void* allocateOrNull(std::size_t bytes) noexcept {
    try {
        return zq::kel::allocate(bytes);
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

}  // namespace

void* operator new(std::size_t bytes) { return zq::kel::allocate(bytes); }
void* operator new[](std::size_t bytes) { return zq::kel::allocate(bytes); }
void* operator new(std::size_t bytes, const std::nothrow_t&) noexcept {
    return allocateOrNull(bytes);
}
void* operator new[](std::size_t bytes, const std::nothrow_t&) noexcept {
    return allocateOrNull(bytes);
}

void operator delete(void* block) noexcept { zq::kel::deallocate(block); }
void operator delete[](void* block) noexcept { zq::kel::deallocate(block); }
void operator delete(void* block, std::size_t) noexcept { zq::kel::deallocate(block); }
void operator delete[](void* block, std::size_t) noexcept { zq::kel::deallocate(block); }
void operator delete(void* block, const std::nothrow_t&) noexcept { zq::kel::deallocate(block); }
void operator delete[](void* block, const std::nothrow_t&) noexcept { zq::kel::deallocate(block); }
