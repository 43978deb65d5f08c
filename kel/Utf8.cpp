#include "kel/Utf8.h"

#include "kel/Throw.h"

namespace zq {
namespace kel {
namespace utf8 {

namespace {

constexpr unsigned char kReplacement = '?';

// Lead byte marks and payload masks by sequence length (index = length).
constexpr unsigned char kLeadMark[] = {0, 0x00, 0xC0, 0xE0, 0xF0, 0xF8, 0xFC};

bool isContinuation(unsigned char byte) { return (byte & 0xC0) == 0x80; }

[[noreturn]] void invalid() { ZQ_THROW(InvalidSequence); }

// Length and lowest allowed second byte of a sequence that starts with `lead`;
// length 0 for a byte that cannot start one.
struct LeadRule {
    size_t length;
    unsigned char minSecond;
    uint32_t payloadMask;
};

LeadRule ruleFor(unsigned char lead) {
    if (lead < 0x80) {
        return {1, 0, 0x7F};
    }
    if (lead < 0xC2) {
        return {0, 0, 0};  // stray continuation byte or overlong two-byte form
    }
    if (lead < 0xE0) {
        return {2, 0x80, 0x1F};
    }
    if (lead < 0xF0) {
        return {3,
                lead == 0xE0 ? static_cast<unsigned char>(0xA0) : static_cast<unsigned char>(0x80),
                0x0F};
    }
    if (lead < 0xF8) {
        return {4,
                lead == 0xF0 ? static_cast<unsigned char>(0x90) : static_cast<unsigned char>(0x80),
                0x07};
    }
    if (lead < 0xFE) {
        // No five-byte form is read: every lead from 0xF8 starts six bytes and
        // gives only its lowest bit.
        return {6,
                lead == 0xFD ? static_cast<unsigned char>(0x80) : static_cast<unsigned char>(0x84),
                0x01};
    }
    return {0, 0, 0};
}

}  // namespace

size_t encodedLength(uint32_t codePoint) {
    if (codePoint < 0x80) return 1;
    if (codePoint < 0x800) return 2;
    if (codePoint < 0x10000) return 3;
    if (codePoint < 0x200000) return 4;
    if (codePoint < 0x4000000) return 5;
    if (codePoint < 0x80000000u) return 6;
    return 0;
}

size_t encode(uint32_t codePoint, unsigned char* out, size_t space) {
    const size_t length = encodedLength(codePoint);
    if (length == 0 || length > space) {
        return 0;
    }
    if (length == 1) {
        out[0] = static_cast<unsigned char>(codePoint);
        return 1;
    }
    for (size_t i = length - 1; i > 0; --i) {
        out[i] = static_cast<unsigned char>(0x80 | (codePoint & 0x3F));
        codePoint >>= 6;
    }
    out[0] = static_cast<unsigned char>(kLeadMark[length] | codePoint);
    return length;
}

size_t decode(const unsigned char* in, const unsigned char* end, uint32_t* codePoint) {
    if (in >= end) {
        invalid();
    }
    const LeadRule rule = ruleFor(in[0]);
    if (rule.length == 0 || static_cast<size_t>(end - in) < rule.length) {
        invalid();
    }
    uint32_t value = in[0] & rule.payloadMask;
    for (size_t i = 1; i < rule.length; ++i) {
        if (!isContinuation(in[i]) || (i == 1 && in[1] < rule.minSecond)) {
            invalid();
        }
        value = (value << 6) | (in[i] & 0x3F);
    }
    if (codePoint != nullptr) {
        *codePoint = value;
    }
    return rule.length;
}

size_t measure(const wchar_t* text, size_t count) {
    size_t bytes = 0;
    for (size_t i = 0; i < count; ++i) {
        const size_t length = encodedLength(static_cast<uint32_t>(text[i]));
        bytes += length == 0 ? 1 : length;
    }
    return bytes;
}

// The loops below take ASCII, by far the most common text, without the
// general sequence rules.
void encodeText(const wchar_t* text, size_t count, unsigned char* out) {
    for (size_t i = 0; i < count; ++i) {
        if (static_cast<uint32_t>(text[i]) < 0x80) {
            *out++ = static_cast<unsigned char>(text[i]);
            continue;
        }
        const size_t written = encode(static_cast<uint32_t>(text[i]), out, kMaxSequence);
        if (written == 0) {
            *out++ = kReplacement;
        } else {
            out += written;
        }
    }
}

size_t countCharacters(const unsigned char* in, const unsigned char* end) {
    size_t count = 0;
    while (in < end) {
        in += *in < 0x80 ? 1 : decode(in, end, nullptr);
        ++count;
    }
    return count;
}

void decodeText(const unsigned char* in, const unsigned char* end, wchar_t* out) {
    while (in < end) {
        if (*in < 0x80) {
            *out++ = static_cast<wchar_t>(*in++);
            continue;
        }
        uint32_t value = 0;
        in += decode(in, end, &value);
        *out++ = static_cast<wchar_t>(value);
    }
}

}  // namespace utf8
}  // namespace kel
}  // namespace zq
