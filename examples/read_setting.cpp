// Reading settings: a default for what is not set, std::optional to tell
// "not set" from a value.
#include <zq/orvane/Registry.h>

#include <cstdio>
#include <string>

#include "ExampleDirectory.h"

int main(int argc, char** argv) {
    try {
        const zq::orvane::Registry registry =
            zq::orvane::Registry::open(exampleDirectory(argc, argv));

        // A fresh registry has neither: the defaults are used.
        const uint16_t mtu = registry.get_or<uint16_t>("/network/eth0", "mtu", 1500);
        const std::string hostname = registry.get_or("/network", "hostname", "controller");
        std::printf("eth0 mtu %u, hostname %s\n", mtu, hostname.c_str());

        if (const std::optional<int32_t> speed = registry.get<int32_t>("/pump", "speed")) {
            std::printf("pump speed %d\n", *speed);
        } else {
            std::printf("pump speed not set\n");
        }
    } catch (const zq::orvane::RegistryError& e) {
        // A value stored with another type, a damaged store, ...
        std::fprintf(stderr, "%s\n", e.what());
        return 1;
    }
    return 0;
}
