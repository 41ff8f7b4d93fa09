// Kanet::IntfId: the system-wide identifier of an interface ("Ethernet1", "Vlan10", "Loopback0").
// A plain value compared, ordered and hashed by its text; the default is the empty id, which
// means "no interface" (an unset bookmark, a via without an interface). Any text is accepted.
// Kanet::LoopbackIntfId names a loopback interface: "Loopback" followed by one or more decimal
// digits and nothing else. Its static isLoopbackIntfId tells whether any IntfId is of that form;
// the test is case-sensitive ("loopback0" and "Loopback" alone are not loopbacks, nor is a
// sub-interface such as "Loopback1.5").
#pragma once

#include <compare>
#include <cstdint>
#include <functional>
#include <ostream>
#include <string>
#include <string_view>

#include "fwk/framework/TypeName.h"

namespace Kanet {

class IntfId {
 public:
  IntfId() = default;
  IntfId(const char* name) : name_(name ? name : "") {}
  IntfId(std::string name) : name_(std::move(name)) {}
  IntfId(std::string_view name) : name_(name) {}

  const std::string& toString() const { return name_; }
  bool empty() const { return name_.empty(); }

  friend bool operator==(const IntfId&, const IntfId&) = default;
  friend auto operator<=>(const IntfId&, const IntfId&) = default;
  friend std::ostream& operator<<(std::ostream& os, const IntfId& id) { return os << id.name_; }

 private:
  std::string name_;
};

class LoopbackIntfId : public IntfId {
 public:
  static constexpr std::string_view kPrefix = "Loopback";

  // "Loopback<number>".
  explicit LoopbackIntfId(std::uint32_t number)
      : IntfId(std::string(kPrefix) + std::to_string(number)) {}

  static bool isLoopbackIntfId(const IntfId& id) {
    const std::string_view s = id.toString();
    if (s.size() <= kPrefix.size() || s.substr(0, kPrefix.size()) != kPrefix) return false;
    for (char c : s.substr(kPrefix.size())) {
      if (c < '0' || c > '9') return false;
    }
    return true;
  }
};

}  // namespace Kanet

template <>
struct std::hash<Kanet::IntfId> {
  size_t operator()(const Kanet::IntfId& id) const noexcept {
    return std::hash<std::string>()(id.toString());
  }
};

template <>
struct std::hash<Kanet::LoopbackIntfId> : std::hash<Kanet::IntfId> {};

KEL_TYPE_NAME(Kanet::IntfId, "Kanet::IntfId")
