// Intrusive reference counting, the shared ownership of the whole code base.
//
// IRefCounted carries an atomic 32-bit count; AddRef and Release are thread-safe and
// Release deletes the object when the count reaches zero. A new object starts at 0:
// the first CRefPtr that takes it owns it. CRefPtr<T> is the smart pointer to such
// objects (elements, JSON values, scheduled items, streams). A CRefPtr itself is not
// thread-safe: one pointer variable belongs to one thread at a time, while the
// object it points to may be shared.
#pragma once

#include <atomic>
#include <cstdint>
#include <utility>

namespace apm {
namespace base {

class IRefCounted {
 public:
  IRefCounted() = default;
  IRefCounted(const IRefCounted&) : refCount_(0) {}
  IRefCounted& operator=(const IRefCounted&) { return *this; }
  virtual ~IRefCounted() = default;

  // Returns the new count.
  uint32_t AddRef() const { return refCount_.fetch_add(1, std::memory_order_relaxed) + 1; }

  // Returns the new count; deletes the object at zero.
  uint32_t Release() const {
    uint32_t remaining = refCount_.fetch_sub(1, std::memory_order_acq_rel) - 1;
    if (remaining == 0) delete this;
    return remaining;
  }

 private:
  mutable std::atomic<uint32_t> refCount_{0};
};

template <class T>
class CRefPtr {
 public:
  CRefPtr() = default;
  CRefPtr(T* object) : object_(object) { if (object_) object_->AddRef(); }  // NOLINT: implicit by design
  CRefPtr(const CRefPtr& other) : CRefPtr(other.object_) {}
  CRefPtr(CRefPtr&& other) noexcept : object_(other.object_) { other.object_ = nullptr; }
  template <class U>
  CRefPtr(const CRefPtr<U>& other) : CRefPtr(other.get()) {}  // NOLINT: implicit by design
  ~CRefPtr() { if (object_) object_->Release(); }

  CRefPtr& operator=(const CRefPtr& other) { CRefPtr(other).swap(*this); return *this; }
  CRefPtr& operator=(CRefPtr&& other) noexcept { CRefPtr(std::move(other)).swap(*this); return *this; }
  CRefPtr& operator=(T* object) { CRefPtr(object).swap(*this); return *this; }

  void swap(CRefPtr& other) noexcept { std::swap(object_, other.object_); }
  void reset() { CRefPtr().swap(*this); }

  T* get() const { return object_; }
  T* operator->() const { return object_; }
  T& operator*() const { return *object_; }
  explicit operator bool() const { return object_ != nullptr; }

 private:
  T* object_ = nullptr;
};

template <class T, class U>
bool operator==(const CRefPtr<T>& a, const CRefPtr<U>& b) { return a.get() == b.get(); }
template <class T, class U>
bool operator!=(const CRefPtr<T>& a, const CRefPtr<U>& b) { return a.get() != b.get(); }

}  // namespace base
}  // namespace apm
