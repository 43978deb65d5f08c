#include "source/Sha256.h"

#include <atomic>
#include <cstring>

#if defined(__x86_64__) || defined(__i386__)
#include <cpuid.h>
#include <immintrin.h>
#endif

namespace zq {
namespace orvane {

namespace {

constexpr uint32_t kInitial[8] = {0x6a09e667, 0xbb67ae85, 0x3c6ef372, 0xa54ff53a,
                                  0x510e527f, 0x9b05688c, 0x1f83d9ab, 0x5be0cd19};

constexpr uint32_t kRound[64] = {
    0x428a2f98, 0x71374491, 0xb5c0fbcf, 0xe9b5dba5, 0x3956c25b, 0x59f111f1, 0x923f82a4, 0xab1c5ed5,
    0xd807aa98, 0x12835b01, 0x243185be, 0x550c7dc3, 0x72be5d74, 0x80deb1fe, 0x9bdc06a7, 0xc19bf174,
    0xe49b69c1, 0xefbe4786, 0x0fc19dc6, 0x240ca1cc, 0x2de92c6f, 0x4a7484aa, 0x5cb0a9dc, 0x76f988da,
    0x983e5152, 0xa831c66d, 0xb00327c8, 0xbf597fc7, 0xc6e00bf3, 0xd5a79147, 0x06ca6351, 0x14292967,
    0x27b70a85, 0x2e1b2138, 0x4d2c6dfc, 0x53380d13, 0x650a7354, 0x766a0abb, 0x81c2c92e, 0x92722c85,
    0xa2bfe8a1, 0xa81a664b, 0xc24b8b70, 0xc76c51a3, 0xd192e819, 0xd6990624, 0xf40e3585, 0x106aa070,
    0x19a4c116, 0x1e376c08, 0x2748774c, 0x34b0bcb5, 0x391c0cb3, 0x4ed8aa4a, 0x5b9cca4f, 0x682e6ff3,
    0x748f82ee, 0x78a5636f, 0x84c87814, 0x8cc70208, 0x90befffa, 0xa4506ceb, 0xbef9a3f7, 0xc67178f2};

inline uint32_t rotr(uint32_t x, unsigned n) { return (x >> n) | (x << (32 - n)); }

inline uint32_t loadBigEndian(const unsigned char* p) {
    return (static_cast<uint32_t>(p[0]) << 24) | (static_cast<uint32_t>(p[1]) << 16) |
           (static_cast<uint32_t>(p[2]) << 8) | static_cast<uint32_t>(p[3]);
}

inline void storeBigEndian(unsigned char* p, uint32_t x) {
    p[0] = static_cast<unsigned char>(x >> 24);
    p[1] = static_cast<unsigned char>(x >> 16);
    p[2] = static_cast<unsigned char>(x >> 8);
    p[3] = static_cast<unsigned char>(x);
}

inline uint32_t bigSigma0(uint32_t x) { return rotr(x, 2) ^ rotr(x, 13) ^ rotr(x, 22); }
inline uint32_t bigSigma1(uint32_t x) { return rotr(x, 6) ^ rotr(x, 11) ^ rotr(x, 25); }
inline uint32_t smallSigma0(uint32_t x) { return rotr(x, 7) ^ rotr(x, 18) ^ (x >> 3); }
inline uint32_t smallSigma1(uint32_t x) { return rotr(x, 17) ^ rotr(x, 19) ^ (x >> 10); }

// One round, written so that the eight working variables rotate by renaming
// instead of by copying: the unrolled loop below is what makes hashing fast.
#define ZQ_SHA256_ROUND(a, b, c, d, e, f, g, h, t, w)                                           \
    do {                                                                                        \
        const uint32_t t1 = (h) + bigSigma1(e) + ((((f) ^ (g)) & (e)) ^ (g)) + kRound[t] + (w); \
        const uint32_t t2 = bigSigma0(a) + ((((a) | (b)) & (c)) | ((a) & (b)));                 \
        (d) += t1;                                                                              \
        (h) = t1 + t2;                                                                          \
    } while (0)

void compressPortable(uint32_t* state, const unsigned char* block) {
    uint32_t w[16];
    uint32_t a = state[0], b = state[1], c = state[2], d = state[3];
    uint32_t e = state[4], f = state[5], g = state[6], h = state[7];
    for (int t = 0; t < 64; t += 8) {
        for (int i = 0; i < 8; ++i) {
            const int j = (t + i) & 15;
            if (t < 16) {
                w[j] = loadBigEndian(block + 4 * (t + i));
            } else {
                w[j] +=
                    smallSigma1(w[(j + 14) & 15]) + w[(j + 9) & 15] + smallSigma0(w[(j + 1) & 15]);
            }
        }
        const int j = t & 15;
        ZQ_SHA256_ROUND(a, b, c, d, e, f, g, h, t + 0, w[j + 0]);
        ZQ_SHA256_ROUND(h, a, b, c, d, e, f, g, t + 1, w[j + 1]);
        ZQ_SHA256_ROUND(g, h, a, b, c, d, e, f, t + 2, w[j + 2]);
        ZQ_SHA256_ROUND(f, g, h, a, b, c, d, e, t + 3, w[j + 3]);
        ZQ_SHA256_ROUND(e, f, g, h, a, b, c, d, t + 4, w[j + 4]);
        ZQ_SHA256_ROUND(d, e, f, g, h, a, b, c, t + 5, w[j + 5]);
        ZQ_SHA256_ROUND(c, d, e, f, g, h, a, b, t + 6, w[j + 6]);
        ZQ_SHA256_ROUND(b, c, d, e, f, g, h, a, t + 7, w[j + 7]);
    }
    state[0] += a;
    state[1] += b;
    state[2] += c;
    state[3] += d;
    state[4] += e;
    state[5] += f;
    state[6] += g;
    state[7] += h;
}

#undef ZQ_SHA256_ROUND

void compressBlocksPortable(uint32_t* state, const unsigned char* data, size_t blocks) {
    for (; blocks > 0; --blocks, data += Sha256::kBlockSize) {
        compressPortable(state, data);
    }
}

#if defined(__x86_64__) || defined(__i386__)
// The same rounds on the SHA extensions of x86 processors, four at a time.
__attribute__((target("sha,sse4.1"))) void compressBlocksX86(uint32_t* state,
                                                             const unsigned char* data,
                                                             size_t blocks) {
    const __m128i byteSwap = _mm_set_epi64x(0x0c0d0e0f08090a0bULL, 0x0405060700010203ULL);
    __m128i cdab =
        _mm_shuffle_epi32(_mm_loadu_si128(reinterpret_cast<const __m128i*>(state)), 0xB1);
    __m128i efgh =
        _mm_shuffle_epi32(_mm_loadu_si128(reinterpret_cast<const __m128i*>(state + 4)), 0x1B);
    __m128i abef = _mm_alignr_epi8(cdab, efgh, 8);
    __m128i cdgh = _mm_blend_epi16(efgh, cdab, 0xF0);
    for (; blocks > 0; --blocks, data += Sha256::kBlockSize) {
        const __m128i abefSaved = abef;
        const __m128i cdghSaved = cdgh;
        __m128i w[4];
        for (int group = 0; group < 16; ++group) {
            __m128i& words = w[group & 3];
            if (group < 4) {
                words = _mm_shuffle_epi8(
                    _mm_loadu_si128(reinterpret_cast<const __m128i*>(data + 16 * group)), byteSwap);
            } else {
                const __m128i& previous = w[(group - 1) & 3];
                words = _mm_sha256msg1_epu32(words, w[(group - 3) & 3]);
                words = _mm_add_epi32(words, _mm_alignr_epi8(previous, w[(group - 2) & 3], 4));
                words = _mm_sha256msg2_epu32(words, previous);
            }
            __m128i message = _mm_add_epi32(
                words, _mm_loadu_si128(reinterpret_cast<const __m128i*>(kRound + 4 * group)));
            cdgh = _mm_sha256rnds2_epu32(cdgh, abef, message);
            message = _mm_shuffle_epi32(message, 0x0E);
            abef = _mm_sha256rnds2_epu32(abef, cdgh, message);
        }
        abef = _mm_add_epi32(abef, abefSaved);
        cdgh = _mm_add_epi32(cdgh, cdghSaved);
    }
    const __m128i feba = _mm_shuffle_epi32(abef, 0x1B);
    const __m128i dchg = _mm_shuffle_epi32(cdgh, 0xB1);
    _mm_storeu_si128(reinterpret_cast<__m128i*>(state), _mm_blend_epi16(feba, dchg, 0xF0));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(state + 4), _mm_alignr_epi8(dchg, feba, 8));
}

bool x86HasShaExtensions() {
    unsigned a, b, c, d;
    if (__get_cpuid(1, &a, &b, &c, &d) == 0 || (c & bit_SSE4_1) == 0 || (c & bit_SSSE3) == 0) {
        return false;
    }
    return __get_cpuid_count(7, 0, &a, &b, &c, &d) != 0 && (b & bit_SHA) != 0;
}
#endif

using CompressBlocks = void (*)(uint32_t*, const unsigned char*, size_t);

CompressBlocks chooseCompress() {
#if defined(__x86_64__) || defined(__i386__)
    if (x86HasShaExtensions()) {
        return compressBlocksX86;
    }
#endif
    return compressBlocksPortable;
}

std::atomic<CompressBlocks> compressBlocks{chooseCompress()};

}  // namespace

void Sha256::reset() {
    std::memcpy(state_, kInitial, sizeof state_);
    bitCount_ = 0;
    buffered_ = 0;
}

bool Sha256::useHardware(bool wanted) {
    const CompressBlocks hardware = chooseCompress();
    compressBlocks =
        (wanted && hardware != compressBlocksPortable) ? hardware : compressBlocksPortable;
    return compressBlocks.load() != compressBlocksPortable;
}

void Sha256::compress(const unsigned char* data, size_t blocks) {
    compressBlocks.load(std::memory_order_relaxed)(state_, data, blocks);
}

void Sha256::update(const void* data, size_t size) {
    const auto* in = static_cast<const unsigned char*>(data);
    bitCount_ += static_cast<uint64_t>(size) * 8;
    if (buffered_ != 0) {
        const size_t take = size < kBlockSize - buffered_ ? size : kBlockSize - buffered_;
        std::memcpy(buffer_ + buffered_, in, take);
        buffered_ += take;
        in += take;
        size -= take;
        if (buffered_ < kBlockSize) {
            return;
        }
        compress(buffer_, 1);
        buffered_ = 0;
    }
    // Whole blocks straight from the caller's bytes.
    const size_t whole = size / kBlockSize;
    if (whole != 0) {
        compress(in, whole);
        in += whole * kBlockSize;
        size -= whole * kBlockSize;
    }
    if (size != 0) {
        std::memcpy(buffer_, in, size);
        buffered_ = size;
    }
}

void Sha256::finish(unsigned char out[kDigestSize]) {
    const uint64_t bits = bitCount_;
    buffer_[buffered_++] = 0x80;
    if (buffered_ > kBlockSize - 8) {
        std::memset(buffer_ + buffered_, 0, kBlockSize - buffered_);
        compress(buffer_, 1);
        buffered_ = 0;
    }
    std::memset(buffer_ + buffered_, 0, kBlockSize - 8 - buffered_);
    storeBigEndian(buffer_ + 56, static_cast<uint32_t>(bits >> 32));
    storeBigEndian(buffer_ + 60, static_cast<uint32_t>(bits));
    compress(buffer_, 1);
    for (int i = 0; i < 8; ++i) {
        storeBigEndian(out + 4 * i, state_[i]);
    }
    reset();
}

void Sha256::hash(const void* data, size_t size, unsigned char out[kDigestSize]) {
    Sha256 sha;
    sha.update(data, size);
    sha.finish(out);
}

}  // namespace orvane
}  // namespace zq
