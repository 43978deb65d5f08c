// A first client: open the registry, change a setting in one transaction,
// read it back. Includes one header and links one library.
#include <zq/orvane/Orvane.h>

#include <cstdio>
#include <cstdlib>
#include <string>

using zq::kel::AutoRef;
using zq::kel::Guid;
using zq::kel::StatusChain;
using zq::kel::WString;
using zq::orvane::IBucket;
using zq::orvane::IBucketManager;

namespace {

int fail(const char* what, const StatusChain& status) {
    const char* meaning = zq::orvane::status::describe(status.getCode());
    std::fprintf(stderr, "%s: %d: %s\n", what, status.getCode(), meaning ? meaning : "?");
    return 1;
}

}  // namespace

int main(int argc, char** argv) {
    // A registry of its own in a temporary directory unless one is named.
    std::string directory;
    if (argc > 1) {
        directory = argv[1];
    } else {
        char pattern[] = "/tmp/hello_orvane_XXXXXX";
        if (mkdtemp(pattern) == nullptr) return 1;
        directory = pattern;
        ::setenv("ZQKELTMPSHAREDFILEDIR", (directory + "/shared").c_str(), 0);
    }
    std::printf("Orvane %s, registry in %s\n", ORVANE_VERSION_STRING, directory.c_str());

    StatusChain status;
    auto* orvane = zq::orvane::publicInterface::GetInterface(2, status);
    AutoRef<IBucketManager> manager =
        orvane->createBucketManager(WString(directory.c_str()), WString(), status);
    if (!manager) return fail("open", status);

    Guid id;
    manager->beginTransaction(id, status);
    manager->beginUpdate(id, status);
    AutoRef<IBucket> pump = manager->createBucket(WString(L"/pump"), true, status);
    pump->setStringValue(WString(L"label"), WString(L"Feed pump \u2116 2"), status, true);
    pump->setInt32Value(WString(L"speed"), 1450, status, true);
    const double limits[] = {0.5, 12.25};
    pump->setFloat64ArrayValue(WString(L"limits"), limits, 2, status, true);
    manager->putBucket(pump, true, id, status);
    manager->commit(id, status);
    // Its own status: handed a failed one, the end would do nothing and keep
    // the process lock.
    StatusChain ending;
    ending.clear();
    manager->endTransaction(id, ending);
    if (status.isFatal()) return fail("commit", status);

    AutoRef<IBucket> read = manager->getBucket(WString(L"/PUMP"), status);
    if (!read) return fail("lookup", status);
    const int32_t speed = read->getValue(WString(L"Speed"), status)->getInt32(status);
    const WString label = read->getValue(WString(L"label"), status)->getString(status);
    std::printf("%s: speed %d, label \"%s\", version %u, %u bytes in the cache\n",
                zq::kel::NString(read->getFullName()).c_str(), speed,
                zq::kel::NString(label).c_str(), read->getVersion(),
                static_cast<zq::orvane::Bucket*>(read.get())->getMemUsage());

    // A damaged record is refused, and the library's own exception says why.
    const unsigned char damaged[] = {9, 0, 0, 0, 'a', 'b'};
    const unsigned char* cursor = damaged;
    WString text;
    try {
        text.deserialize(cursor, damaged + sizeof damaged);
        return 1;
    } catch (const zq::kel::exception::DeserializationError& e) {
        std::printf("damaged record rejected: %s\n", e.what());
    }
    return status.isFatal() ? fail("read", status) : 0;
}
