// A first client: names become digests, statuses carry codes, and the
// library's own exceptions can be caught by type.
#include <zq/orvane/Orvane.h>

#include <cstdio>

using zq::kel::StatusChain;
using zq::kel::WString;
using zq::orvane::Digest;
using zq::orvane::DigestString;

int main() {
    std::printf("Orvane %s\n", ORVANE_VERSION_STRING);

    const WString names[] = {WString(L"/"), WString(L"/Network/Eth0"), WString(L"/network/ETH0")};
    for (const WString& name : names) {
        Digest digest;
        DigestString text;
        Digest::calculateDigest(name, digest, text);
        std::printf("%-16s %s\n", zq::kel::NString(name).c_str(), text.c_str());
    }

    StatusChain status;
    status.setCode(zq::orvane::status::kNoParent);
    std::printf("status %d: %s\n", status.getCode(),
                zq::orvane::status::describe(status.getCode()));

    // A stored string whose length says more bytes than there are.
    const unsigned char damaged[] = {9, 0, 0, 0, 'a', 'b'};
    const unsigned char* cursor = damaged;
    WString text;
    try {
        text.deserialize(cursor, damaged + sizeof damaged);
        std::printf("damaged record was accepted\n");
        return 1;
    } catch (const zq::kel::exception::DeserializationError& e) {
        std::printf("damaged record rejected: %s (0x%08X)\n", e.what(),
                    static_cast<unsigned>(e.statusCode()));
    }
    return 0;
}
