#include "kel/osdep/Accounts.h"

#include <grp.h>
#include <pwd.h>

#include <cerrno>
#include <vector>

namespace zq {
namespace kel {
namespace osdep {

namespace {

// A look-up whose buffer is too small is repeated with twice the room; the
// cap stops a broken name service from growing it without end.
constexpr size_t kFirstBuffer = 128;
constexpr size_t kLargestBuffer = 1 << 20;

uint32_t idOf(const passwd& record) { return record.pw_uid; }
uint32_t idOf(const group& record) { return record.gr_gid; }

template <class Record, class Lookup>
bool findId(const char* name, Lookup lookup, uint32_t& id) {
    if (name == nullptr || *name == '\0') {
        return false;
    }
    std::vector<char> buffer(kFirstBuffer);
    for (;;) {
        Record record;
        Record* found = nullptr;
        const int error = lookup(name, &record, buffer.data(), buffer.size(), &found);
        if (error == EINTR) {
            continue;
        }
        if (error == ERANGE && buffer.size() < kLargestBuffer) {
            buffer.resize(buffer.size() * 2);
            continue;
        }
        if (error != 0 || found == nullptr) {
            return false;
        }
        id = static_cast<uint32_t>(idOf(*found));
        return true;
    }
}

}  // namespace

bool findUserId(const char* name, uint32_t& id) { return findId<passwd>(name, getpwnam_r, id); }

bool findGroupId(const char* name, uint32_t& id) { return findId<group>(name, getgrnam_r, id); }

}  // namespace osdep
}  // namespace kel
}  // namespace zq
