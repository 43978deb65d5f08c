// Changing several settings at once: all of them reach the disk together, or
// none does.
#include <zq/orvane/Registry.h>

#include <cstdio>
#include <string>
#include <vector>

#include "ExampleDirectory.h"

using zq::orvane::Parents;
using zq::orvane::Transaction;

int main(int argc, char** argv) {
    try {
        zq::orvane::Registry registry = zq::orvane::Registry::open(exampleDirectory(argc, argv));

        registry.transact([](Transaction& tx) {
            // Parents::create makes "/network" on the way to "/network/eth0".
            tx.set("/network/eth0", "mtu", uint16_t{9000}, Parents::create);
            tx.set("/network/eth0", "address", "192.168.1.20");
            tx.set("/network", "hostname", "pump-station-2");
            tx.set("/network/eth0", "dns", std::vector<std::string>{"192.168.1.1", "9.9.9.9"});
        });  // committed here; a throw inside would have committed nothing

        // A Transaction object for longer work; it ends when it goes out of
        // scope, committed or not.
        Transaction tx(registry);
        tx.set("/network/eth0", "mtu", uint16_t{1500});
        tx.remove("/network/eth0", "dns");
        tx.commit();

        std::printf("eth0: mtu %u, address %s; hostname %s\n",
                    registry.get_or<uint16_t>("/network/eth0", "mtu", 0),
                    registry.get_or("/network/eth0", "address", "?").c_str(),
                    registry.get_or("/network", "hostname", "?").c_str());
    } catch (const zq::orvane::RegistryError& e) {
        std::fprintf(stderr, "%s\n", e.what());
        return 1;
    }
    return 0;
}
