// The case form: the buckets a case holds, each a bucket record.
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "source/BucketCase.h"
#include "zq/kel/Exception.h"

using namespace zq;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    orvane::BucketCase* target = new orvane::BucketCase();
    kel::AutoRef<orvane::BucketCase> held(target);
    const unsigned char* cursor = data;
    try {
        target->deserialize(cursor, data + size);
    } catch (const kel::exception::DeserializationError&) {
        return 0;
    }
    std::vector<unsigned char> once(target->serializationSize());
    unsigned char* at = once.data();
    target->serialize(at, once.data() + once.size());
    if (at != once.data() + once.size()) std::abort();
    kel::AutoRef<orvane::BucketCase> again(new orvane::BucketCase());
    const unsigned char* in = once.data();
    again->deserialize(in, once.data() + once.size());
    std::vector<unsigned char> twice(again->serializationSize());
    at = twice.data();
    again->serialize(at, twice.data() + twice.size());
    if (in != once.data() + once.size() || twice != once) std::abort();
    return 0;
}
