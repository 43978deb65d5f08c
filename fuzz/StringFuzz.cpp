// The string stored form: byte count, then UTF-8, read as wide and as narrow
// text. It reads, or throws DeserializationError or (wide, bad UTF-8)
// InvalidSequence.
#include "fuzz/RecordFuzz.h"
#include "zq/kel/StringBase.h"

using namespace zq;

namespace {

template <class S>
void readAndRewrite(const uint8_t* data, size_t size) {
    S text;
    const unsigned char* cursor = data;
    try {
        text.deserialize(cursor, data + size);
    } catch (const kel::exception::DeserializationError&) {
        return;
    } catch (const kel::exception::InvalidSequence&) {
        return;  // bad UTF-8: the records that hold strings turn it into theirs
    }
    if (cursor < data || cursor > data + size) std::abort();
    const std::vector<unsigned char> once = fuzz::written(text);
    S again;
    const unsigned char* at = once.data();
    again.deserialize(at, once.data() + once.size());
    if (at != once.data() + once.size() || fuzz::written(again) != once) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    readAndRewrite<kel::WString>(data, size);
    readAndRewrite<kel::NString>(data, size);
    return 0;
}
