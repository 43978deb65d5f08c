#include "kel/osdep/SharedCounter.h"

#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "kel/osdep/Path.h"
#include "kel/osdep/SharedFiles.h"
#include "zq/kel/OSException.h"

namespace zq {
namespace kel {
namespace osdep {

namespace {

// A 4-byte aligned word is lock-free on every target, 32-bit ARM included.
static_assert(__atomic_always_lock_free(sizeof(uint32_t), 0), "the counter needs lock-free words");

// Growing a file only appends zeros, so two processes sizing a new file at
// once cannot wipe a count the first one already made.
void ensureSize(int fd) {
    struct stat facts;
    if (::fstat(fd, &facts) != 0) {
        throw PosixError(errno, "fstat shared counter", __LINE__, __FILE__);
    }
    if (facts.st_size < static_cast<off_t>(sizeof(uint32_t)) &&
        ::ftruncate(fd, sizeof(uint32_t)) != 0) {
        throw PosixError(errno, "ftruncate shared counter", __LINE__, __FILE__);
    }
}

}  // namespace

SharedCounter::SharedCounter(const WString& name) : word_(nullptr) {
    const int fd = openSharedFile(join(sharedDirectory(WString(L"counter")), name));
    void* mapped = MAP_FAILED;
    int error = 0;
    try {
        ensureSize(fd);
        mapped = ::mmap(nullptr, sizeof(uint32_t), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
        error = errno;
    } catch (...) {
        ::close(fd);
        throw;
    }
    ::close(fd);  // the mapping keeps the file
    if (mapped == MAP_FAILED) {
        throw PosixError(error, "mmap shared counter", __LINE__, __FILE__);
    }
    word_ = static_cast<uint32_t*>(mapped);
}

SharedCounter::~SharedCounter() { ::munmap(word_, sizeof(uint32_t)); }

uint32_t SharedCounter::load() const { return __atomic_load_n(word_, __ATOMIC_ACQUIRE); }

// Full barriers: the odd value is in place before any file changes, and the
// even one only after every change is durable and visible.
bool SharedCounter::beginChange() {
    if (!isSettled(__atomic_load_n(word_, __ATOMIC_RELAXED))) {
        return false;
    }
    __atomic_fetch_add(word_, 1u, __ATOMIC_SEQ_CST);
    return true;
}

uint32_t SharedCounter::endChange() { return __atomic_add_fetch(word_, 1u, __ATOMIC_SEQ_CST); }

}  // namespace osdep
}  // namespace kel
}  // namespace zq
