#ifndef ZQ_KEL_ATOMICINT_H
#define ZQ_KEL_ATOMICINT_H

#include <atomic>
#include <cstdint>

namespace zq {
namespace kel {
namespace osdep {

// One signed 32-bit counter, safe to change from any thread. `get` gives no
// ordering; the changes are compare-and-swap loops.
class AtomicInt {
  public:
    // A sequentially consistent store: the value is in place, with a full
    // barrier, before the object is used.
    explicit AtomicInt(int32_t value = 0) noexcept : value_(0) {
        value_.store(value, std::memory_order_seq_cst);
    }
    AtomicInt(const AtomicInt&) = delete;
    AtomicInt& operator=(const AtomicInt&) = delete;

    int32_t increment() noexcept { return update(1); }
    int32_t decrement() noexcept { return update(-1); }
    int32_t get() const noexcept { return value_.load(std::memory_order_relaxed); }
    void set(int32_t value) noexcept {
        int32_t seen = value_.load(std::memory_order_relaxed);
        while (!value_.compare_exchange_weak(seen, value, std::memory_order_acq_rel)) {
        }
    }

  private:
    // One locked add, not a compare-and-swap loop that contending threads
    // repeat. Atomic signed arithmetic wraps like the hardware word; so does
    // the sum returned.
    int32_t update(int32_t delta) noexcept {
        const int32_t seen = value_.fetch_add(delta, std::memory_order_acq_rel);
        return static_cast<int32_t>(static_cast<uint32_t>(seen) + static_cast<uint32_t>(delta));
    }

    std::atomic<int32_t> value_;
};

static_assert(sizeof(AtomicInt) == 4, "AtomicInt is one 32-bit word");

}  // namespace osdep
}  // namespace kel
}  // namespace zq

#endif  // ZQ_KEL_ATOMICINT_H
