#ifndef ZQ_KEL_OSDEP_ACCOUNTS_H
#define ZQ_KEL_OSDEP_ACCOUNTS_H

#include <cstdint>

namespace zq {
namespace kel {
namespace osdep {

// The id of a user or group of this machine by name. False when there is no
// such name or the look-up fails; `id` is then left alone.
bool findUserId(const char* name, uint32_t& id);
bool findGroupId(const char* name, uint32_t& id);

}  // namespace osdep
}  // namespace kel
}  // namespace zq

#endif  // ZQ_KEL_OSDEP_ACCOUNTS_H
