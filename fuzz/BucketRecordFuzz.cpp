// The bucket record: names, flags, children and the values' records.
#include <cstdlib>
#include <vector>

#include "fuzz/RecordFuzz.h"
#include "zq/kel/StatusChain.h"
#include "zq/orvane/Bucket.h"

using namespace zq;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    auto bucket = fuzz::readAndRewrite(
        data, size, [] { return kel::AutoRef<orvane::Bucket>(new orvane::Bucket()); });
    if (bucket) {
        // Values kept in their stored form decode to the same bytes and weight.
        const std::vector<unsigned char> stored = fuzz::written(*bucket);
        const uint32_t weight = bucket->getMemUsage();
        bucket->closeEnumeration(bucket->openEnumeration());
        if (fuzz::written(*bucket) != stored || bucket->getMemUsage() != weight) std::abort();
        bucket->toString();
        // A copy, and a change to what was read, must work like any bucket's.
        kel::AutoRef<orvane::Bucket> copy(new orvane::Bucket(*bucket));
        kel::StatusChain status;
        status.clear();
        copy->setInt32Value(kel::WString(L"fuzz"), 1, status, true);
        fuzz::written(*copy);
    }
    return 0;
}
