// Names and short strings of the framework. Kel::Name names an entity and keys directories;
// Kel::String8 is the framework's plain text attribute type. Both are value types compared by
// their bytes; an empty Name means "no name".
#pragma once

#include <functional>
#include <ostream>
#include <string>
#include <string_view>

namespace Kel {

using String8 = std::string;

class Name {
 public:
  Name() = default;
  Name(const char* s) : s_(s) {}
  Name(std::string s) : s_(std::move(s)) {}
  Name(std::string_view s) : s_(s) {}

  const std::string& string() const { return s_; }
  const std::string& toString() const { return s_; }
  bool empty() const { return s_.empty(); }
  operator const std::string&() const { return s_; }

  friend bool operator==(const Name& a, const Name& b) = default;
  friend auto operator<=>(const Name& a, const Name& b) = default;
  friend std::ostream& operator<<(std::ostream& os, const Name& n) { return os << n.s_; }

 private:
  std::string s_;
};

}  // namespace Kel

template <>
struct std::hash<Kel::Name> {
  size_t operator()(const Kel::Name& n) const noexcept {
    return std::hash<std::string>()(n.string());
  }
};
