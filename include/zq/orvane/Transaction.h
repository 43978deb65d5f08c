#ifndef ZQ_ORVANE_TRANSACTION_H
#define ZQ_ORVANE_TRANSACTION_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <system_error>

#include "zq/kel/AutoRef.h"
#include "zq/kel/Export.h"
#include "zq/kel/Guid.h"
#include "zq/orvane/IBucketManager.h"
#include "zq/orvane/RegistryError.h"
#include "zq/orvane/RegistryValue.h"

namespace zq {
namespace orvane {

class Registry;

// Whether a change may make the missing buckets above the one it names.
enum class Parents : uint8_t { must_exist, create };

// Changes to a registry that reach the disk together or not at all. The
// constructor begins the transaction, waiting while another process holds
// one; commit() writes the changes and ends it; the destructor ends it
// whatever happened, dropping what was not committed. So no failure, thrown
// or returned, leaves the process lock held.
//
// The first failure sticks: later changes do nothing, and commit() reports
// that failure instead of writing. A refused begin is such a failure too
// (status::kReadOnly on a read-only registry, status::kAlreadyUpdating while
// another thread of this process has a transaction open), so the constructor
// never throws.
//
// The Registry's reads see what is committed, not this transaction's own
// pending changes.
//
// A transaction belongs to no thread: it may be made on one, changed on
// another and destroyed on a third, though not used by two at once.
class ZQ_EXPORT Transaction {
  public:
    explicit Transaction(Registry& registry) noexcept;
    Transaction(Transaction&& other) noexcept;
    Transaction(const Transaction&) = delete;
    Transaction& operator=(const Transaction&) = delete;
    Transaction& operator=(Transaction&&) = delete;
    ~Transaction();

    // The first failure; empty while all went well.
    std::error_code error() const noexcept { return error_; }
    // Begun, and neither committed nor failed.
    bool active() const noexcept { return open_ && !error_; }

    // Stores `value` under `name` in bucket `path`, making the bucket when
    // it is missing. True when done.
    bool set(std::string_view path, std::string_view name, Value value,
             Parents parents = Parents::must_exist) noexcept;
    // A literal is a UTF-8 string, never a bool (and a 0 stays an int32_t:
    // no overload takes a pointer).
    template <size_t N>
    bool set(std::string_view path, std::string_view name, const char (&text)[N],
             Parents parents = Parents::must_exist) {
        return set(path, name, Value(std::string(text)), parents);
    }
    // Makes the bucket `path` unless it exists; true when it exists after.
    bool create(std::string_view path, Parents parents = Parents::must_exist) noexcept;
    // Removes bucket `path` with every bucket below it; true when it existed.
    bool remove(std::string_view path) noexcept;
    // Removes value `name` of bucket `path`; true when it existed.
    bool remove(std::string_view path, std::string_view name) noexcept;

    // Writes every change with one commit, then ends the transaction; on
    // return without an error the changes are on disk.
    void commit(std::error_code& ec) noexcept;
    void commit() {
        std::error_code ec;
        commit(ec);
        detail::throwIf(ec, "committing a transaction");
    }

  private:
    template <class Body>
    bool change(Body&& body) noexcept;
    bool put(const kel::AutoRef<IBucket>& bucket, bool replace, Parents parents,
             kel::StatusChain& status);
    void end() noexcept;

    kel::AutoRef<IBucketManager> manager_;
    kel::Guid id_;
    std::error_code error_;
    bool open_ = false;  // begun and not yet ended
};

}  // namespace orvane
}  // namespace zq

#endif  // ZQ_ORVANE_TRANSACTION_H
