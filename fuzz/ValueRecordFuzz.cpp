// The value record: version, tag, then the payload the tag gives.
#include "fuzz/RecordFuzz.h"
#include "zq/orvane/BucketValue.h"

using namespace zq;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    auto value = fuzz::readAndRewrite(
        data, size, [] { return kel::AutoRef<orvane::BucketValue>(new orvane::BucketValue()); });
    if (value) {
        value->toString();
        value->getMemUsage();
    }
    return 0;
}
