// Names with a byte limit: Kanet::NamespaceName (a network namespace, at most 150 bytes) and
// Ip::VrfName (a VRF, at most 100 bytes).
// Both are plain values compared (exactly, case-sensitively), ordered and hashed by their bytes;
// the default is the empty name. The limit is checked whenever a name is made from text: a longer
// text raises Kel::RangeException "<Type>::bytes > <limit> not allowed" and no name is made. The
// empty default is always within the limit. Names are made implicitly from const char* and
// std::string, so `vrfName == "default"` compares with a literal.
#pragma once

#include <compare>
#include <cstddef>
#include <functional>
#include <ostream>
#include <string>
#include <string_view>

#include "fwk/framework/Exception.h"
#include "fwk/framework/TypeName.h"

namespace Kanet {

// A name of at most Traits::maxBytes bytes; Traits::typeName names the type in the error text.
template <class Traits>
class BoundedName {
 public:
  static constexpr std::size_t maxBytes = Traits::maxBytes;

  BoundedName() = default;
  BoundedName(const char* s) : s_(s ? s : "") { check(); }
  BoundedName(std::string s) : s_(std::move(s)) { check(); }
  BoundedName(std::string_view s) : s_(s) { check(); }

  const std::string& toString() const { return s_; }
  const std::string& str() const { return s_; }
  bool empty() const { return s_.empty(); }
  std::size_t bytes() const { return s_.size(); }

  friend bool operator==(const BoundedName&, const BoundedName&) = default;
  friend auto operator<=>(const BoundedName&, const BoundedName&) = default;
  friend std::ostream& operator<<(std::ostream& os, const BoundedName& n) { return os << n.s_; }

 private:
  void check() const {
    if (s_.size() > maxBytes) {
      throw Kel::RangeException(std::string(Traits::typeName) + "::bytes > " +
                                std::to_string(maxBytes) + " not allowed");
    }
  }

  std::string s_;
};

struct NamespaceNameTraits {
  static constexpr const char* typeName = "NamespaceName";
  static constexpr std::size_t maxBytes = 150;
};
using NamespaceName = BoundedName<NamespaceNameTraits>;

}  // namespace Kanet

namespace Ip {

struct VrfNameTraits {
  static constexpr const char* typeName = "VrfName";
  static constexpr std::size_t maxBytes = 100;
};
using VrfName = Kanet::BoundedName<VrfNameTraits>;

}  // namespace Ip

template <class Traits>
struct std::hash<Kanet::BoundedName<Traits>> {
  size_t operator()(const Kanet::BoundedName<Traits>& n) const noexcept {
    return std::hash<std::string>()(n.toString());
  }
};

KEL_TYPE_NAME(Kanet::NamespaceName, "Kanet::NamespaceName")
KEL_TYPE_NAME(Ip::VrfName, "Ip::VrfName")
