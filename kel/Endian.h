#ifndef ZQ_KEL_ENDIAN_H
#define ZQ_KEL_ENDIAN_H

#include <cstdint>

namespace zq {
namespace kel {

// Every integer in a stored form is little-endian; these spell that out so the
// bytes are the same whatever the host.
inline void putU32(unsigned char* out, uint32_t value) {
    out[0] = static_cast<unsigned char>(value);
    out[1] = static_cast<unsigned char>(value >> 8);
    out[2] = static_cast<unsigned char>(value >> 16);
    out[3] = static_cast<unsigned char>(value >> 24);
}

inline uint32_t getU32(const unsigned char* in) {
    return static_cast<uint32_t>(in[0]) | (static_cast<uint32_t>(in[1]) << 8) |
           (static_cast<uint32_t>(in[2]) << 16) | (static_cast<uint32_t>(in[3]) << 24);
}

inline void putU64(unsigned char* out, uint64_t value) {
    putU32(out, static_cast<uint32_t>(value));
    putU32(out + 4, static_cast<uint32_t>(value >> 32));
}

inline uint64_t getU64(const unsigned char* in) {
    return static_cast<uint64_t>(getU32(in)) | (static_cast<uint64_t>(getU32(in + 4)) << 32);
}

}  // namespace kel
}  // namespace zq

#endif  // ZQ_KEL_ENDIAN_H
