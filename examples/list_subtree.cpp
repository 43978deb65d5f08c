// Listing a subtree: each bucket's values, then its children, depth first.
#include <zq/orvane/Registry.h>

#include <cstdio>
#include <string>
#include <type_traits>

#include "ExampleDirectory.h"

using zq::orvane::Registry;
using zq::orvane::Value;

// Numbers and strings as they are; anything else by its type and size.
std::string text(const Value& value) {
    return std::visit(
        [&value](const auto& v) -> std::string {
            using T = std::decay_t<decltype(v)>;
            if constexpr (std::is_same_v<T, std::string>) {
                return '"' + v + '"';
            } else if constexpr (std::is_same_v<T, bool>) {
                return v ? "true" : "false";
            } else if constexpr (std::is_arithmetic_v<T>) {
                return std::to_string(v);
            } else {
                return "(type " + std::to_string(zq::orvane::type_of(value)) + ")";
            }
        },
        value);
}

void list(const Registry& registry, const std::string& path, int depth) {
    const std::string indent(2 * static_cast<size_t>(depth), ' ');
    std::printf("%s%s\n", indent.c_str(), path.c_str());
    for (const auto& [name, value] : registry.values(path)) {
        std::printf("%s  %s = %s\n", indent.c_str(), name.c_str(), text(value).c_str());
    }
    for (const std::string& child : registry.children(path)) {
        list(registry, (path == "/" ? "/" : path + "/") + child, depth + 1);
    }
}

int main(int argc, char** argv) {
    try {
        Registry registry = Registry::open(exampleDirectory(argc, argv));
        registry.transact([](zq::orvane::Transaction& tx) {
            using zq::orvane::Parents;
            tx.set("/plant/pump1", "speed", int32_t{1450}, Parents::create);
            tx.set("/plant/pump1", "running", true);
            tx.set("/plant/pump2", "speed", int32_t{0}, Parents::create);
            tx.set("/plant/valves/v7", "open", 0.75, Parents::create);
            tx.set("/plant", "site", "North");
        });
        list(registry, "/plant", 0);
    } catch (const zq::orvane::RegistryError& e) {
        std::fprintf(stderr, "%s\n", e.what());
        return 1;
    }
    return 0;
}
