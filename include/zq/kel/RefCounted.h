#ifndef ZQ_KEL_REFCOUNTED_H
#define ZQ_KEL_REFCOUNTED_H

#include <cstdint>

#include "zq/kel/AtomicInt.h"

namespace zq {
namespace kel {

// The root of every public interface: `addRef` and `release` are slots 0 and 1
// of each of them. Objects delete themselves, so the destructor is not public.
class IRefCounted {
  public:
    virtual int32_t addRef() = 0;
    virtual int32_t release() = 0;

  protected:
    ~IRefCounted() = default;
};

// Each public interface derives from this with itself as the argument.
template <class T>
class RefCountedInterface : public IRefCounted {
  protected:
    ~RefCountedInterface() = default;
};

// Holds the count; safe to addRef and release from any thread.
class RefCountedThreadSafePolicy {
  public:
    RefCountedThreadSafePolicy() noexcept : count_(0) {}
    RefCountedThreadSafePolicy(const RefCountedThreadSafePolicy&) = delete;
    RefCountedThreadSafePolicy& operator=(const RefCountedThreadSafePolicy&) = delete;
    virtual ~RefCountedThreadSafePolicy() = default;

  protected:
    osdep::AtomicInt count_;
};

// Implements the counting of interface T. A new object has count 0; its
// creator calls addRef once before handing it out.
template <class T, class Policy>
class RefCountedImplementation : public T, public Policy {
  public:
    int32_t addRef() override { return this->count_.increment(); }
    int32_t release() override {
        const int32_t count = this->count_.decrement();
        if (count == 0) {
            // Through the policy's virtual destructor, so the most-derived one runs.
            delete static_cast<Policy*>(this);
        }
        return count;
    }
    virtual ~RefCountedImplementation() = default;

    // For tests and diagnostics; a plain load.
    int32_t refCount() const { return this->count_.get(); }
};

}  // namespace kel
}  // namespace zq

#endif  // ZQ_KEL_REFCOUNTED_H
