#ifndef ZQ_ORVANE_ORVANEATOMICINT_H
#define ZQ_ORVANE_ORVANEATOMICINT_H

#include <cstdint>

#include "zq/kel/AtomicInt.h"

namespace zq {
namespace orvane {

// The counter of the buckets' enumeration handles.
class OrvaneAtomicInt : public kel::osdep::AtomicInt {
  public:
    explicit OrvaneAtomicInt(int32_t value = 0) : AtomicInt(value) {}
    virtual ~OrvaneAtomicInt() = default;

    // Always 1: kept for the slot layout of the counter's table.
    virtual int32_t isAtomic() const { return 1; }

    bool lessOrEqual(const OrvaneAtomicInt& other) const { return get() <= other.get(); }
    bool lessOrEqual(int32_t value) const { return get() <= value; }
};

}  // namespace orvane
}  // namespace zq

#endif  // ZQ_ORVANE_ORVANEATOMICINT_H
