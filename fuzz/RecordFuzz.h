#ifndef ZQ_FUZZ_RECORDFUZZ_H
#define ZQ_FUZZ_RECORDFUZZ_H

// What every record target checks: the input reads or throws
// DeserializationError, and whatever reads writes out again to bytes that
// read back to the same bytes.

#include <cstdint>
#include <cstdlib>
#include <vector>

#include "zq/kel/Exception.h"

namespace zq {
namespace fuzz {

template <class Record>
std::vector<unsigned char> written(const Record& record) {
    std::vector<unsigned char> out(record.serializationSize());
    unsigned char* cursor = out.data();
    record.serialize(cursor, out.data() + out.size());
    if (cursor != out.data() + out.size()) std::abort();
    return out;
}

// `make` gives a fresh record to read into. The record read, or null.
template <class Make>
auto readAndRewrite(const uint8_t* data, size_t size, Make&& make) -> decltype(make()) {
    auto record = make();
    const unsigned char* cursor = data;
    try {
        record->deserialize(cursor, data + size);
    } catch (const kel::exception::DeserializationError&) {
        return decltype(make())();
    }
    if (cursor < data || cursor > data + size) std::abort();
    const std::vector<unsigned char> once = written(*record);
    auto again = make();
    const unsigned char* at = once.data();
    again->deserialize(at, once.data() + once.size());
    if (at != once.data() + once.size() || written(*again) != once) std::abort();
    return record;
}

}  // namespace fuzz
}  // namespace zq

#endif  // ZQ_FUZZ_RECORDFUZZ_H
