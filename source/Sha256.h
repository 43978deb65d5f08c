#ifndef ZQ_ORVANE_SHA256_H
#define ZQ_ORVANE_SHA256_H

#include <cstddef>
#include <cstdint>

namespace zq {
namespace orvane {

// SHA-256 as FIPS 180-4 defines it. Each object hashes one message; it holds
// its whole state, so separate objects may be used from separate threads.
class Sha256 {
  public:
    static constexpr size_t kDigestSize = 32;
    static constexpr size_t kBlockSize = 64;

    Sha256() { reset(); }
    void reset();
    void update(const void* data, size_t size);
    void finish(unsigned char out[kDigestSize]);

    static void hash(const void* data, size_t size, unsigned char out[kDigestSize]);

    // Whether blocks go through the processor's SHA instructions when it has
    // them (the default); false forces the portable rounds. Returns whether
    // the instructions are now in use. For tests and benchmarks.
    static bool useHardware(bool wanted);

  private:
    void compress(const unsigned char* data, size_t blocks);

    uint32_t state_[8];
    uint64_t bitCount_;
    unsigned char buffer_[kBlockSize];
    size_t buffered_;
};

}  // namespace orvane
}  // namespace zq

#endif  // ZQ_ORVANE_SHA256_H
