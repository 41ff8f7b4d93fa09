// Kanet::IntfId: the system-wide identifier of an interface ("Ethernet1", "Vlan10", "Loopback0").
// A plain value ordered and hashed by its text; the default is the empty id, which means "no
// interface" (an unset bookmark, a via without an interface). Any text is accepted. Each distinct
// text is held once, counted by the ids that name it, so an id is one pointer (a million routes'
// next hops name a handful of interfaces) and equality compares pointers. Not thread-safe: ids
// live on the daemon's one thread.
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
#include <unordered_map>
#include <utility>

#include "fwk/framework/TypeName.h"

namespace Kanet {

class IntfId {
 public:
  IntfId() = default;
  IntfId(const char* name) : IntfId(std::string_view(name ? name : "")) {}
  IntfId(const std::string& name) : IntfId(std::string_view(name)) {}
  IntfId(std::string_view name) : text_(intern(name)) {}
  IntfId(const IntfId& o) noexcept : text_(o.text_) {
    if (text_) ++text_->ids;
  }
  IntfId(IntfId&& o) noexcept : text_(std::exchange(o.text_, nullptr)) {}
  IntfId& operator=(IntfId o) noexcept {
    std::swap(text_, o.text_);
    return *this;
  }
  ~IntfId() {
    if (text_ && --text_->ids == 0) release(text_);
  }

  const std::string& toString() const { return text_ ? text_->name : emptyText(); }
  bool empty() const { return text_ == nullptr; }
  std::size_t hash() const { return text_ ? text_->hash : emptyHash(); }

  friend bool operator==(const IntfId& a, const IntfId& b) { return a.text_ == b.text_; }
  friend std::strong_ordering operator<=>(const IntfId& a, const IntfId& b) {
    return a.text_ == b.text_ ? std::strong_ordering::equal : a.toString() <=> b.toString();
  }
  friend std::ostream& operator<<(std::ostream& os, const IntfId& id) {
    return os << id.toString();
  }

  // Distinct texts held (for tests: ids that go away give their text back).
  static std::size_t textCount();

 private:
  struct Text {
    std::string name;
    std::size_t hash;
    std::size_t ids;  // ids naming this text
  };
  static std::unordered_map<std::string_view, Text*>& texts();  // each held text by its name
  static Text* intern(std::string_view name);                   // null for the empty text
  static void release(Text* t);
  static const std::string& emptyText();
  static std::size_t emptyHash();

  Text* text_ = nullptr;
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
  size_t operator()(const Kanet::IntfId& id) const noexcept { return id.hash(); }
};

template <>
struct std::hash<Kanet::LoopbackIntfId> : std::hash<Kanet::IntfId> {};

KEL_TYPE_NAME(Kanet::IntfId, "Kanet::IntfId")
