// Intrusive reference counting for every framework object.
// A PtrInterface carries its own count; Kel::Ptr takes a reference on copy and drops one on
// destruction, and the object is deleted when the count returns to zero. Objects are created with
// a count of zero and must be handed to a Ptr at once (use Kel::make). Just before an object is
// deleted it gets kelBeforeDelete(), still whole. A count that would go
// negative is a broken invariant and aborts. ValidPtr is a Ptr that is never null: making one
// from null raises Kel::Exception "null ValidPtr". Single-threaded: counts are plain integers.
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <utility>

#include "fwk/framework/Exception.h"

namespace Kel {

class PtrInterface {
 public:
  long references() const { return refs_; }
  void newRef() const { ++refs_; }
  void deleteRef() const {
    if (refs_ <= 0) {
      std::fprintf(stderr, "Kel::PtrInterface: reference count of %p below zero\n",
                   static_cast<const void*>(this));
      std::abort();
    }
    if (refs_ > 1) {
      --refs_;
      return;
    }
    // The last reference: the object may still act (kelBeforeDelete) while a guard reference
    // keeps references taken and dropped meanwhile from deleting it twice.
    const_cast<PtrInterface*>(this)->kelBeforeDelete();
    if (--refs_ == 0) delete this;
  }

 protected:
  PtrInterface() = default;
  // Runs once when the last reference is dropped, before the object is deleted, with the object
  // still whole. Entities use it to tear down the reactors they own (Attributes.h).
  virtual void kelBeforeDelete() {}
  PtrInterface(const PtrInterface&) : refs_(0) {}
  PtrInterface& operator=(const PtrInterface&) { return *this; }
  virtual ~PtrInterface() {
    if (refs_ != 0) {
      std::fprintf(stderr, "Kel::PtrInterface: object %p destroyed while referenced (%ld)\n",
                   static_cast<const void*>(this), static_cast<long>(refs_));
      std::abort();
    }
  }

  // A byte beside the count that the derived class may use (an entity keeps its lifecycle flag
  // and whether it has a name text here): it fills what would be padding, so a million routes do
  // not each pay 8 bytes for it.
  std::uint8_t kelSpare_ = 0;

 private:
  mutable std::uint32_t refs_ = 0;
};

template <class T>
class Ptr {
 public:
  Ptr() = default;
  Ptr(std::nullptr_t) {}
  Ptr(T* p) : p_(p) { ref(); }
  Ptr(const Ptr& o) : p_(o.p_) { ref(); }
  Ptr(Ptr&& o) noexcept : p_(o.p_) { o.p_ = nullptr; }
  template <class U, class = std::enable_if_t<std::is_convertible_v<U*, T*>>>
  Ptr(const Ptr<U>& o) : p_(o.ptr()) {
    ref();
  }
  ~Ptr() { unref(); }

  Ptr& operator=(const Ptr& o) {
    Ptr(o).swap(*this);
    return *this;
  }
  Ptr& operator=(Ptr&& o) noexcept {
    Ptr(std::move(o)).swap(*this);
    return *this;
  }
  void swap(Ptr& o) noexcept { std::swap(p_, o.p_); }

  T* ptr() const { return p_; }
  T* operator->() const { return p_; }
  T& operator*() const { return *p_; }
  explicit operator bool() const { return p_ != nullptr; }
  friend bool operator==(const Ptr& a, const Ptr& b) { return a.p_ == b.p_; }
  friend bool operator==(const Ptr& a, std::nullptr_t) { return a.p_ == nullptr; }

 private:
  void ref() const {
    if (p_) p_->newRef();
  }
  void unref() const {
    if (p_) p_->deleteRef();
  }
  T* p_ = nullptr;
};

// A pointer that is never null; the check happens when it is made.
template <class T>
class ValidPtr : public Ptr<T> {
 public:
  ValidPtr(T* p) : Ptr<T>(p) { check(); }
  ValidPtr(const Ptr<T>& p) : Ptr<T>(p) { check(); }

 private:
  void check() const {
    if (!this->ptr()) throw Exception("null ValidPtr");
  }
};

template <class T, class... Args>
Ptr<T> make(Args&&... args) {
  return Ptr<T>(new T(std::forward<Args>(args)...));
}

// Type-checked downcast; null when the object is not a T.
template <class T, class U>
Ptr<T> ptr_cast(const Ptr<U>& p) {
  return Ptr<T>(dynamic_cast<T*>(p.ptr()));
}

}  // namespace Kel

template <class T>
struct std::hash<Kel::Ptr<T>> {
  size_t operator()(const Kel::Ptr<T>& p) const noexcept { return std::hash<T*>()(p.ptr()); }
};
