#ifndef ZQ_ORVANE_REGISTRY_H
#define ZQ_ORVANE_REGISTRY_H

// The registry for C++17 clients: RAII transactions, typed values,
// UTF-8 names, std::error_code or exceptions. A thin layer over the
// interfaces of <zq/orvane/Orvane.h>, which stay available through manager().
//
//   auto registry = zq::orvane::Registry::open("/var/lib/app/registry");
//   int32_t speed = registry.get_or<int32_t>("/pump", "speed", 1200);
//   registry.transact([&](zq::orvane::Transaction& tx) {
//       tx.set("/pump", "speed", int32_t{1450});
//       tx.set("/pump", "label", "Feed pump");
//   });

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>
#include <vector>

#include "zq/kel/AutoRef.h"
#include "zq/kel/Export.h"
#include "zq/orvane/IBucketManager.h"
#include "zq/orvane/RegistryError.h"
#include "zq/orvane/RegistryValue.h"
#include "zq/orvane/StatusCodes.h"
#include "zq/orvane/Transaction.h"
#include "zq/orvane/Watch.h"

namespace zq {
namespace orvane {

enum class Access : uint8_t { read_write, read_only };

// A process's handle on its registry. Paths are "/" or "/name/name..."; paths,
// names and strings are UTF-8 (text that is not gives
// status::kKelInvalidSequence). Every operation comes twice: one reports
// through a std::error_code and never throws, the other throws
// RegistryError. A missing bucket or value is not an error: the result is
// empty.
//
// Movable, not copyable. Reads are safe from any number of threads at once;
// each sees every commit finished before it began, by this process or
// another. A process has one manager: open it once and share the Registry,
// or adopt() the manager other code of the process opened.
class ZQ_EXPORT Registry {
  public:
    // Not open: every operation fails with status::kStoreNotOpen.
    Registry() noexcept = default;
    Registry(Registry&& other) noexcept = default;
    Registry& operator=(Registry&& other) noexcept = default;
    Registry(const Registry&) = delete;
    Registry& operator=(const Registry&) = delete;
    ~Registry() = default;

    // Opens the registry in `directory`, or in the default one when empty.
    // Read-only use changes no file and refuses every transaction; a
    // process that may not write the directory gets it whatever it asks.
    static Registry open(std::string_view directory, Access access, std::error_code& ec) noexcept;
    static Registry open(std::string_view directory = std::string_view(),
                         Access access = Access::read_write) {
        std::error_code ec;
        Registry registry = open(directory, access, ec);
        detail::throwIf(ec, "opening the registry");
        return registry;
    }
    // Wraps a manager made through the raw interface.
    static Registry adopt(kel::AutoRef<IBucketManager> manager) noexcept;

    bool is_open() const noexcept { return static_cast<bool>(manager_); }
    bool read_only() const noexcept;
    // The raw interface, for what this layer does not cover.
    IBucketManager* manager() const noexcept { return manager_.get(); }

    // The value `name` of bucket `path`, of whatever type.
    std::optional<Value> value(std::string_view path, std::string_view name,
                               std::error_code& ec) const noexcept;
    std::optional<Value> value(std::string_view path, std::string_view name) const {
        return detail::orThrow("reading a value",
                               [&](std::error_code& ec) { return value(path, name, ec); });
    }

    // The value as a T (int32_t, std::string, std::vector<double>, ...: one
    // of Value's alternatives); a value of another type is
    // status::kWrongType, never converted.
    template <class T>
    std::optional<T> get(std::string_view path, std::string_view name, std::error_code& ec) const {
        std::optional<Value> found = value(path, name, ec);
        if (!found) {
            return std::nullopt;
        }
        if (T* typed = std::get_if<T>(&*found)) {
            return std::move(*typed);
        }
        ec = make_error_code(status::kWrongType);
        return std::nullopt;
    }
    template <class T>
    std::optional<T> get(std::string_view path, std::string_view name) const {
        return detail::orThrow("reading a value",
                               [&](std::error_code& ec) { return get<T>(path, name, ec); });
    }

    // As get, with `fallback` for a missing bucket or value (and on error).
    template <class T>
    T get_or(std::string_view path, std::string_view name, T fallback, std::error_code& ec) const {
        std::optional<T> found = get<T>(path, name, ec);
        return found ? std::move(*found) : std::move(fallback);
    }
    template <class T>
    T get_or(std::string_view path, std::string_view name, T fallback) const {
        return detail::orThrow("reading a value", [&](std::error_code& ec) {
            return get_or<T>(path, name, std::move(fallback), ec);
        });
    }
    std::string get_or(std::string_view path, std::string_view name, const char* fallback) const {
        return get_or<std::string>(path, name, std::string(fallback));
    }

    bool exists(std::string_view path, std::error_code& ec) const noexcept;
    bool exists(std::string_view path) const {
        return detail::orThrow("looking for a bucket",
                               [&](std::error_code& ec) { return exists(path, ec); });
    }

    // Every data value of bucket `path`; empty when the bucket is missing.
    std::optional<ValueMap> bucket(std::string_view path, std::error_code& ec) const noexcept;
    std::optional<ValueMap> bucket(std::string_view path) const {
        return detail::orThrow("reading a bucket",
                               [&](std::error_code& ec) { return bucket(path, ec); });
    }

    // The data values of bucket `path` in the bucket's order, without the
    // links to its children; nothing when the bucket is missing.
    std::vector<std::pair<std::string, Value>> values(std::string_view path,
                                                      std::error_code& ec) const noexcept;
    std::vector<std::pair<std::string, Value>> values(std::string_view path) const {
        return detail::orThrow("reading a bucket",
                               [&](std::error_code& ec) { return values(path, ec); });
    }

    // The short names of the children of bucket `path` ("eth0" for
    // "/network/eth0"); nothing when the bucket is missing.
    std::vector<std::string> children(std::string_view path, std::error_code& ec) const noexcept;
    std::vector<std::string> children(std::string_view path) const {
        return detail::orThrow("listing children",
                               [&](std::error_code& ec) { return children(path, ec); });
    }

    // Every change other processes (and this one) commit to `path` and its
    // descendants from now on, or after `since` (a Watch::state()); see
    // <zq/orvane/Watch.h>. Null on failure.
    std::unique_ptr<Watch> watch(std::string_view path, std::error_code& ec,
                                 std::string_view since = std::string_view()) const noexcept;
    std::unique_ptr<Watch> watch(std::string_view path,
                                 std::string_view since = std::string_view()) const {
        return detail::orThrow("watching",
                               [&](std::error_code& ec) { return watch(path, ec, since); });
    }

    // Runs `body` in a transaction and commits it; a throw out of `body`
    // commits nothing. `body` is not called when the transaction is refused.
    template <class Body>
    void transact(Body&& body, std::error_code& ec) {
        Transaction tx(*this);
        if (tx.active()) {
            std::forward<Body>(body)(tx);
        }
        tx.commit(ec);
    }
    template <class Body>
    void transact(Body&& body) {
        std::error_code ec;
        transact(std::forward<Body>(body), ec);
        detail::throwIf(ec, "a transaction");
    }

  private:
    explicit Registry(kel::AutoRef<IBucketManager> manager) noexcept;

    kel::AutoRef<IBucketManager> manager_;
};

}  // namespace orvane
}  // namespace zq

#endif  // ZQ_ORVANE_REGISTRY_H
