// Kel::Handles<T>: small numbers naming the live objects of type T that take one, so that an
// object made by the million (a reactor's adapter for each watched entity) can reach its owner
// through two bytes instead of a pointer. A Handle member takes its number when its owner is built
// and gives it back when the owner goes; numbers are reused, lowest first. Handles run on the
// framework's single thread. At most 65,535 owners of one type live at once; one more is refused
// with a Kel::RangeException.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "fwk/framework/Exception.h"
#include "fwk/framework/TypeName.h"

namespace Kel {

template <class T>
class Handles {
 public:
  // The owner named h (null: none; h came from a Handle that is gone, or is 0).
  static T* at(std::uint16_t h) { return table()[h]; }

 private:
  template <class>
  friend class Handle;
  static std::uint16_t add(T* owner) {
    std::vector<T*>& t = table();
    for (std::size_t h = 1; h < t.size(); ++h) {
      if (t[h]) continue;
      t[h] = owner;
      return static_cast<std::uint16_t>(h);
    }
    if (t.size() > UINT16_MAX) {
      throw RangeException("more than 65535 live " + std::string(typeNameOf<T>()) + " not allowed");
    }
    t.push_back(owner);
    return static_cast<std::uint16_t>(t.size() - 1);
  }
  static void remove(std::uint16_t h) {
    std::vector<T*>& t = table();
    t[h] = nullptr;
    while (t.size() > 1 && !t.back()) t.pop_back();
  }
  // Slot 0 names nothing. Never destroyed: an owner may outlive static destruction.
  static std::vector<T*>& table() {
    static auto* t = new std::vector<T*>{nullptr};
    return *t;
  }
};

// The handle of one owner, held as a member of it: not copied or moved with it.
template <class T>
class Handle {
 public:
  explicit Handle(T* owner) : h_(Handles<T>::add(owner)) {}
  ~Handle() { Handles<T>::remove(h_); }
  Handle(const Handle&) = delete;
  Handle& operator=(const Handle&) = delete;
  std::uint16_t value() const { return h_; }

 private:
  std::uint16_t h_;
};

}  // namespace Kel
