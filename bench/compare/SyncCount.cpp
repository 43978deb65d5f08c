// The executable exports these definitions (ENABLE_EXPORTS), so the shared
// libraries' calls bind to them before the C library's; each forwards to the
// next definition. No LD_PRELOAD and no tracer: the counts cost a few
// nanoseconds, not the ptrace stop per call that strace adds to every write.
#include "SyncCount.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/uio.h>
#include <unistd.h>

#include <atomic>
#include <bitset>
#include <cstdarg>
#include <cstdio>
#include <string>

namespace {

// Atomic: a store under comparison may sync on a thread of its own.
std::atomic<uint64_t> syncs{0};
std::atomic<uint64_t> syncWrites{0};
// Descriptors opened for synchronous writes (LMDB writes its meta page so).
std::bitset<65536> syncDescriptors;

template <typename F>
F next(F, const char* name) {
    return reinterpret_cast<F>(dlsym(RTLD_NEXT, name));
}

void noteOpen(int fd, int flags) {
    if (fd >= 0 && static_cast<size_t>(fd) < syncDescriptors.size()) {
        syncDescriptors[fd] = (flags & O_DSYNC) != 0;
    }
}

void noteWrite(int fd, ssize_t result) {
    if (result >= 0 && fd >= 0 && static_cast<size_t>(fd) < syncDescriptors.size() &&
        syncDescriptors[fd]) {
        syncWrites.fetch_add(1, std::memory_order_relaxed);
    }
}

mode_t modeOf(int flags, va_list args) {
    return (flags & (O_CREAT | O_TMPFILE)) != 0 ? static_cast<mode_t>(va_arg(args, int)) : 0;
}

using OpenCall = int (*)(const char*, int, ...);

int countedOpen(OpenCall real, const char* path, int flags, va_list args) {
    const int fd = real(path, flags, modeOf(flags, args));
    noteOpen(fd, flags);
    return fd;
}

}  // namespace

namespace compare {

SyncCount syncCount() {
    SyncCount now;
    now.syncs = syncs.load();
    now.syncWrites = syncWrites.load();
    return now;
}

bool syncCountWorks(const char* directory) {
    const std::string path = std::string(directory) + "/sync-count-check";
    const SyncCount before = syncCount();
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_DSYNC, 0600);
    if (fd < 0) return false;
    const bool wrote = ::write(fd, "x", 1) == 1;
    const bool synced = ::fdatasync(fd) == 0;
    ::close(fd);
    ::unlink(path.c_str());
    const SyncCount after = syncCount();
    return wrote && synced && after.syncs == before.syncs + 1 &&
           after.syncWrites == before.syncWrites + 1;
}

}  // namespace compare

extern "C" {

int fsync(int fd) {
    static auto real = next(&fsync, "fsync");
    syncs.fetch_add(1, std::memory_order_relaxed);
    return real(fd);
}

int fdatasync(int fd) {
    static auto real = next(&fdatasync, "fdatasync");
    syncs.fetch_add(1, std::memory_order_relaxed);
    return real(fd);
}

int msync(void* address, size_t length, int flags) {
    static auto real = next(&msync, "msync");
    if ((flags & MS_SYNC) != 0) syncs.fetch_add(1, std::memory_order_relaxed);
    return real(address, length, flags);
}

int sync_file_range(int fd, off64_t offset, off64_t count, unsigned int flags) {
    static auto real = next(&sync_file_range, "sync_file_range");
    syncs.fetch_add(1, std::memory_order_relaxed);
    return real(fd, offset, count, flags);
}

int syncfs(int fd) {
    static auto real = next(&syncfs, "syncfs");
    syncs.fetch_add(1, std::memory_order_relaxed);
    return real(fd);
}

void sync() {
    static auto real = next(&sync, "sync");
    syncs.fetch_add(1, std::memory_order_relaxed);
    real();
}

int open(const char* path, int flags, ...) {
    static auto real = reinterpret_cast<OpenCall>(dlsym(RTLD_NEXT, "open"));
    va_list args;
    va_start(args, flags);
    const int fd = countedOpen(real, path, flags, args);
    va_end(args);
    return fd;
}

int open64(const char* path, int flags, ...) {
    static auto real = reinterpret_cast<OpenCall>(dlsym(RTLD_NEXT, "open64"));
    va_list args;
    va_start(args, flags);
    const int fd = countedOpen(real, path, flags, args);
    va_end(args);
    return fd;
}

int openat(int directory, const char* path, int flags, ...) {
    static auto real =
        reinterpret_cast<int (*)(int, const char*, int, ...)>(dlsym(RTLD_NEXT, "openat"));
    va_list args;
    va_start(args, flags);
    const mode_t mode = modeOf(flags, args);
    va_end(args);
    const int fd = real(directory, path, flags, mode);
    noteOpen(fd, flags);
    return fd;
}

int close(int fd) {
    static auto real = next(&close, "close");
    noteOpen(fd, 0);
    return real(fd);
}

ssize_t write(int fd, const void* bytes, size_t count) {
    static auto real = next(&write, "write");
    const ssize_t result = real(fd, bytes, count);
    noteWrite(fd, result);
    return result;
}

ssize_t pwrite(int fd, const void* bytes, size_t count, off_t offset) {
    static auto real = next(&pwrite, "pwrite");
    const ssize_t result = real(fd, bytes, count, offset);
    noteWrite(fd, result);
    return result;
}

ssize_t pwrite64(int fd, const void* bytes, size_t count, off64_t offset) {
    static auto real = next(&pwrite64, "pwrite64");
    const ssize_t result = real(fd, bytes, count, offset);
    noteWrite(fd, result);
    return result;
}

ssize_t writev(int fd, const struct iovec* vector, int count) {
    static auto real = next(&writev, "writev");
    const ssize_t result = real(fd, vector, count);
    noteWrite(fd, result);
    return result;
}

ssize_t pwritev(int fd, const struct iovec* vector, int count, off_t offset) {
    static auto real = next(&pwritev, "pwritev");
    const ssize_t result = real(fd, vector, count, offset);
    noteWrite(fd, result);
    return result;
}

}  // extern "C"
