#include "zq/orvane/Digest.h"

#include <cstring>

#include "kel/CaseFold.h"
#include "kel/Endian.h"
#include "kel/Throw.h"
#include "source/Sha256.h"

namespace zq {
namespace orvane {

namespace {

constexpr char kHex[] = "0123456789abcdef";

void toHex(const unsigned char* bytes, char* out) {
    for (uint32_t i = 0; i < Digest::kSize; ++i) {
        out[2 * i] = kHex[bytes[i] >> 4];
        out[2 * i + 1] = kHex[bytes[i] & 0x0F];
    }
    out[2 * Digest::kSize] = 0;
}

}  // namespace

void DigestString::clear() { std::memset(text_, 0, sizeof text_); }

Digest::Digest() : count_(0) { Sha256::hash(nullptr, 0, bytes_); }

Digest::Digest(const kel::WString& name) : count_(0) { hashName(name); }

Digest::Digest(const kel::NString& name) : count_(0) { hashName(kel::WString(name)); }

Digest::Digest(const Digest& other) : count_(0) { std::memcpy(bytes_, other.bytes_, kSize); }

Digest::Digest(const unsigned char*& cursor, const unsigned char* end) : count_(0) {
    deserialize(cursor, end);
}

Digest::~Digest() = default;

// Each character is lower-cased and hashed as a little-endian 32-bit unit: the
// stored digests depend on exactly this, not on any text encoding, and the
// fold is the built-in one so that every process, whatever its locale, finds
// the same bucket.
void Digest::hashName(const kel::WString& name) {
    constexpr size_t kChunk = 64;
    unsigned char units[kChunk * 4];
    Sha256 sha;
    const wchar_t* text = name.c_str();
    for (size_t done = 0; done < name.length();) {
        const size_t n = name.length() - done < kChunk ? name.length() - done : kChunk;
        for (size_t i = 0; i < n; ++i) {
            kel::putU32(units + 4 * i, static_cast<uint32_t>(kel::foldLower(text[done + i])));
        }
        sha.update(units, 4 * n);
        done += n;
    }
    sha.finish(bytes_);
}

void Digest::set(const Digest& other) { std::memmove(bytes_, other.bytes_, kSize); }

Digest& Digest::operator=(const Digest& other) {
    set(other);
    return *this;
}

bool Digest::operator==(const Digest& other) const {
    return std::memcmp(bytes_, other.bytes_, kSize) == 0;
}

bool Digest::operator<(const Digest& other) const {
    return std::memcmp(bytes_, other.bytes_, kSize) < 0;
}

kel::WString& Digest::getString(kel::WString& out) const {
    char text[2 * kSize + 1];
    toHex(bytes_, text);
    out = kel::WString(text);
    return out;
}

void Digest::serialize(unsigned char*& cursor, const unsigned char* end) const {
    if (cursor > end || static_cast<size_t>(end - cursor) < kSize) {
        ZQ_THROW(BufferOverflow);
    }
    std::memcpy(cursor, bytes_, kSize);
    cursor += kSize;
}

void Digest::deserialize(const unsigned char*& cursor, const unsigned char* end) {
    if (cursor > end || static_cast<size_t>(end - cursor) < kSize) {
        ZQ_THROW(DeserializationError);
    }
    std::memcpy(bytes_, cursor, kSize);
    cursor += kSize;
}

int32_t Digest::addRef() { return count_.increment(); }

int32_t Digest::release() {
    const int32_t count = count_.decrement();
    if (count == 0) {
        delete this;
    }
    return count;
}

void Digest::calculateDigest(const kel::WString& name, Digest& digest, DigestString& text) {
    if (name.empty()) {
        digest = Digest();
        text.clear();
        return;
    }
    digest.hashName(name);
    toHex(digest.bytes_, text.data());
}

}  // namespace orvane
}  // namespace zq
