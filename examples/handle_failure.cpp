// Reacting to a failure without exceptions: each operation also takes a
// std::error_code, whose value is one of the codes of
// <zq/orvane/StatusCodes.h> and whose message says what went wrong.
#include <zq/orvane/Registry.h>

#include <cstdio>

#include "ExampleDirectory.h"

namespace status = zq::orvane::status;
using zq::orvane::Parents;
using zq::orvane::Registry;
using zq::orvane::Transaction;

int main(int argc, char** argv) {
    std::error_code ec;
    Registry registry =
        Registry::open(exampleDirectory(argc, argv), zq::orvane::Access::read_write, ec);
    if (ec) {
        std::fprintf(stderr, "cannot open the registry: %s\n", ec.message().c_str());
        return 1;
    }

    // A setting under a bucket that does not exist yet: the transaction
    // fails as a whole, and we try again, making the parents.
    const auto store = [&](Parents parents) {
        registry.transact(
            [&](Transaction& tx) { tx.set("/boiler/zone1", "target", 21.5, parents); }, ec);
    };
    store(Parents::must_exist);
    if (ec.value() == status::kNoParent) {
        std::printf("first attempt: %s; making the parents\n", ec.message().c_str());
        store(Parents::create);
    }
    if (ec) {
        std::fprintf(stderr, "cannot store the target: %s\n", ec.message().c_str());
        return 1;
    }

    // Reading with the wrong type is an error, never a conversion.
    const std::optional<float> asFloat = registry.get<float>("/boiler/zone1", "target", ec);
    if (!asFloat && ec.value() == status::kWrongType) {
        std::printf("as a float: %s\n", ec.message().c_str());
        std::printf("as a double: %.1f\n", registry.get_or("/boiler/zone1", "target", 0.0, ec));
    }

    // Names are UTF-8; anything else is refused with a code, not a crash.
    registry.get<double>("/boiler/zone\xff", "target", ec);
    std::printf("a name that is not UTF-8: %s\n", ec.message().c_str());
    return ec.value() == status::kKelInvalidSequence ? 0 : 1;
}
