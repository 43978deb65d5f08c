#ifndef ZQ_ORVANE_DIGEST_H
#define ZQ_ORVANE_DIGEST_H

#include <cstdint>

#include "zq/kel/AtomicInt.h"
#include "zq/kel/Export.h"
#include "zq/kel/StringBase.h"

namespace zq {
namespace orvane {

// The 64 lowercase hex digits of a digest and a terminating 0; all zero (the
// empty string) when cleared.
class ZQ_EXPORT DigestString {
  public:
    DigestString() { clear(); }
    void clear();
    const char* c_str() const { return text_; }
    char* data() { return text_; }

  private:
    char text_[65];
};

// The SHA-256 of a bucket name taken case-insensitively: each character
// lower-cased by the simple lower-case mapping of Unicode (built in, the same
// whatever the process's locale) and hashed as a little-endian 32-bit unit.
// Reference-counted on its own for holders that share one.
class ZQ_EXPORT Digest {
  public:
    static constexpr uint32_t kSize = 32;

    Digest();  // the digest of the empty name
    explicit Digest(const kel::WString& name);
    explicit Digest(const kel::NString& name);
    Digest(const Digest& other);
    Digest(const unsigned char*& cursor, const unsigned char* end);
    virtual ~Digest();

    void set(const Digest& other);
    Digest& operator=(const Digest& other);
    bool operator==(const Digest& other) const;
    bool operator!=(const Digest& other) const { return !(*this == other); }
    bool operator<(const Digest& other) const;

    kel::WString& getString(kel::WString& out) const;
    const unsigned char* bytes() const { return bytes_; }

    uint32_t serializationSize() const { return kSize; }
    void serialize(unsigned char*& cursor, const unsigned char* end) const;
    void deserialize(const unsigned char*& cursor, const unsigned char* end);

    virtual int32_t addRef();
    virtual int32_t release();

    // Both forms of a name's digest. The empty name gets the hash of no bytes
    // but an empty text, not that hash's digits.
    static void calculateDigest(const kel::WString& name, Digest& digest, DigestString& text);

  private:
    void hashName(const kel::WString& name);

    unsigned char bytes_[kSize];
    kel::osdep::AtomicInt count_;
};

}  // namespace orvane
}  // namespace zq

#endif  // ZQ_ORVANE_DIGEST_H
