#include "kel/osdep/SharedCounter.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstddef>
#include <cstring>

#include "kel/osdep/Path.h"
#include "kel/osdep/SharedFiles.h"
#include "zq/kel/OSException.h"

namespace zq {
namespace kel {
namespace osdep {

// A note and the restart it belongs to, behind a sequence word that is odd
// while the note is written.
struct SharedCounter::Slot {
    uint32_t sequence;
    uint32_t unused;
    // The payload: boot id and note, contiguous, whole words.
    unsigned char boot[16];
    FileNote note;
};

namespace {

// The count stays the file's first word, where every process looks for it;
// the notes follow in the same page.
constexpr size_t kNotesAt = 64;
constexpr size_t kSlots = 32;
constexpr size_t kMappedSize = 4096;

// What tells this run of the machine from the last: its boot id, or zeros
// where the system has none (notes then outlive a restart only if the
// shared directory does).
const unsigned char* bootId() {
    static const auto id = [] {
        std::array<unsigned char, 16> bytes{};
        const int fd = ::open("/proc/sys/kernel/random/boot_id", O_RDONLY | O_CLOEXEC);
        char text[64] = {};
        if (fd >= 0) {
            const ssize_t got = ::read(fd, text, sizeof text - 1);
            ::close(fd);
            size_t n = 0;
            for (ssize_t i = 0; i < got && n < 2 * bytes.size(); ++i) {
                const char c = text[i];
                const int digit = c >= '0' && c <= '9'   ? c - '0'
                                  : c >= 'a' && c <= 'f' ? c - 'a' + 10
                                                         : -1;
                if (digit >= 0) {
                    bytes[n / 2] = static_cast<unsigned char>(bytes[n / 2] << 4 | digit);
                    ++n;
                }
            }
        }
        return bytes;
    }();
    return id.data();
}

// A 4-byte aligned word is lock-free on every target, 32-bit ARM included.
static_assert(__atomic_always_lock_free(sizeof(uint32_t), 0), "the counter needs lock-free words");

// Growing a file only appends zeros, so two processes sizing a new file at
// once cannot wipe a count the first one already made.
void ensureSize(int fd) {
    struct stat facts;
    if (::fstat(fd, &facts) != 0) {
        throw PosixError(errno, "fstat shared counter", __LINE__, __FILE__);
    }
    if (facts.st_size < static_cast<off_t>(kMappedSize) && ::ftruncate(fd, kMappedSize) != 0) {
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
        mapped = ::mmap(nullptr, kMappedSize, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
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

SharedCounter::~SharedCounter() { ::munmap(word_, kMappedSize); }

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

SharedCounter::Slot* SharedCounter::slotFor(uint64_t device, uint64_t inode) const {
    static_assert(kNotesAt + kSlots * sizeof(Slot) <= kMappedSize, "the notes fit the page");
    static_assert(offsetof(Slot, note) == offsetof(Slot, boot) + sizeof(Slot::boot) &&
                      sizeof(FileNote) % sizeof(uint32_t) == 0,
                  "the payload is whole words");
    auto* slots = reinterpret_cast<Slot*>(reinterpret_cast<unsigned char*>(word_) + kNotesAt);
    return &slots[(inode * 31 + device) % kSlots];
}

namespace {

// The slot's note and boot id move word by word, each word a release store
// and an acquire load: a reader that saw the sequence before and after
// unchanged and even read no word of a note being written.
constexpr size_t kPayloadWords = (16 + sizeof(SharedCounter::FileNote)) / sizeof(uint32_t);

void storeWords(uint32_t* to, const uint32_t* from) {
    for (size_t i = 0; i < kPayloadWords; ++i) {
        __atomic_store_n(&to[i], from[i], __ATOMIC_RELEASE);
    }
}

void loadWords(uint32_t* to, const uint32_t* from) {
    for (size_t i = 0; i < kPayloadWords; ++i) {
        to[i] = __atomic_load_n(&from[i], __ATOMIC_ACQUIRE);
    }
}

}  // namespace

void SharedCounter::putNote(const FileNote& note) {
    Slot* slot = slotFor(note.device, note.inode);
    const uint32_t sequence = __atomic_load_n(&slot->sequence, __ATOMIC_RELAXED) | 1u;
    __atomic_store_n(&slot->sequence, sequence, __ATOMIC_RELAXED);
    Slot written;
    std::memcpy(written.boot, bootId(), sizeof written.boot);
    written.note = note;
    storeWords(reinterpret_cast<uint32_t*>(slot->boot),
               reinterpret_cast<const uint32_t*>(written.boot));
    __atomic_store_n(&slot->sequence, sequence + 1, __ATOMIC_RELEASE);
}

bool SharedCounter::findNote(uint64_t device, uint64_t inode, FileNote& note) const {
    const Slot* slot = slotFor(device, inode);
    const uint32_t before = __atomic_load_n(&slot->sequence, __ATOMIC_ACQUIRE);
    if (!isSettled(before)) {
        return false;
    }
    Slot read;
    loadWords(reinterpret_cast<uint32_t*>(read.boot),
              reinterpret_cast<const uint32_t*>(slot->boot));
    note = read.note;
    return __atomic_load_n(&slot->sequence, __ATOMIC_RELAXED) == before &&
           std::memcmp(read.boot, bootId(), sizeof read.boot) == 0 && note.device == device &&
           note.inode == inode;
}

}  // namespace osdep
}  // namespace kel
}  // namespace zq
