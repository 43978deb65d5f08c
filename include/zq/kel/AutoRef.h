#ifndef ZQ_KEL_AUTOREF_H
#define ZQ_KEL_AUTOREF_H

#include <utility>

namespace zq {
namespace kel {

// Holds one reference on a reference-counted object.
template <class T>
class AutoRef {
  public:
    AutoRef() noexcept : ptr_(nullptr) {}
    AutoRef(T* ptr) : ptr_(ptr) {  // NOLINT(google-explicit-constructor): handed out by value
        if (ptr_ != nullptr) {
            ptr_->addRef();
        }
    }
    AutoRef(const AutoRef& other) : AutoRef(other.ptr_) {}
    AutoRef(AutoRef&& other) noexcept : ptr_(other.ptr_) { other.ptr_ = nullptr; }
    template <class U>
    AutoRef(const AutoRef<U>& other) : AutoRef(other.get()) {}  // NOLINT: upcast like a pointer
    // Upcast that takes the reference over: no count moves.
    template <class U>
    AutoRef(AutoRef<U>&& other) noexcept : ptr_(other.ptr_) {  // NOLINT: as the copy
        other.ptr_ = nullptr;
    }
    ~AutoRef() { reset(); }

    AutoRef& operator=(const AutoRef& other) {
        reset(other.ptr_);
        return *this;
    }
    AutoRef& operator=(AutoRef&& other) noexcept {
        if (this != &other) {
            T* old = ptr_;
            ptr_ = other.ptr_;
            other.ptr_ = nullptr;
            if (old != nullptr) {
                old->release();
            }
        }
        return *this;
    }

    T* get() const noexcept { return ptr_; }
    T* operator->() const noexcept { return ptr_; }
    T& operator*() const noexcept { return *ptr_; }
    explicit operator bool() const noexcept { return ptr_ != nullptr; }

    // Takes a reference on the new pointer before dropping the old one, so
    // resetting to the pointer already held is safe.
    void reset(T* ptr = nullptr) {
        if (ptr != nullptr) {
            ptr->addRef();
        }
        T* old = ptr_;
        ptr_ = ptr;
        if (old != nullptr) {
            old->release();
        }
    }

  private:
    template <class U>
    friend class AutoRef;
    T* ptr_;
};

}  // namespace kel
}  // namespace zq

#endif  // ZQ_KEL_AUTOREF_H
