// A store open on arbitrary files: the input is the text of "commitmark.1",
// a newline, then the bytes of "registry.bin". An open that succeeds must
// serve every bucket its index names and take a commit that a reopen finds.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "kel/osdep/SimulatedFileSystem.h"
#include "source/SingleFileBucketStore.h"
#include "zq/orvane/Bucket.h"

using namespace zq;
using kel::AutoRef;
using kel::StatusChain;
using kel::WString;

namespace {

StatusChain ok() {
    StatusChain status;
    status.clear();
    return status;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string input(reinterpret_cast<const char*>(data), size);
    const size_t newline = input.find('\n');
    test::SimulatedFileSystem fs;
    fs.makeDirectory(WString(L"/r"), 0777);
    if (newline != std::string::npos) {
        fs.putFile("/r/commitmark.1", input.substr(0, newline));
        fs.putFile("/r/registry.bin", input.substr(newline + 1));
    } else {
        fs.putFile("/r/registry.bin", input);
    }

    const WString directory(L"/r");
    {
        orvane::SingleFileBucketStore store(directory, nullptr, fs);
        StatusChain status = ok();
        store.open(0, status);
        if (status.isFatal()) return 0;

        // The index of what the open kept, built apart from the store's own.
        orvane::StoreIndex index;
        std::unique_ptr<kel::osdep::File> file =
            fs.open(WString(L"/r/registry.bin"), kel::osdep::FileSystem::kRead);
        index.load(*file, store.facts().committedLength, 0);
        // A damaged index knows no full list of what lives: its lookups say so.
        if (index.damagedEnd() == 0) {
            index.forEachLive(*file, [&store](const orvane::DigestKey& key, int64_t) {
                StatusChain read = ok();
                store.readBucketByDigest(orvane::digestOf(key), read);
            });
        }

        orvane::IBucketStore::UpdatedBuckets updated;
        AutoRef<orvane::Bucket> bucket(new orvane::Bucket(WString(L"/fuzz")));
        bucket->setInt32Value(WString(L"v"), 7, status, true);
        updated[WString(L"/fuzz")] = AutoRef<orvane::IBucket>(bucket.get());
        store.commit(updated, orvane::IBucketStore::DeletedNames(), status);
        if (status.isFatal()) std::abort();
        store.close(status);
    }

    orvane::SingleFileBucketStore store(directory, nullptr, fs);
    StatusChain status = ok();
    store.open(0, status);
    if (status.isFatal()) std::abort();
    AutoRef<orvane::IBucket> back = store.readBucket(WString(L"/fuzz"), status);
    if (status.isFatal() || !back) std::abort();
    if (!back->hasValue(WString(L"v"))) std::abort();
    return 0;
}
