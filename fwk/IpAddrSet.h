// InterfaceRouteInfo::IpAddrSet: the addresses of one interface, IPv4 and IPv6, each with its
// prefix length; interface reconciliation builds one from the daemon's view of a link.
//
// A value type: copied by value, compared by contents. Two keyed collections of bool, keyed by
// the address with its mask; the key is the member, the bool is the caller's own mark. For each
// collection `x` (ipAddrWithMask, ip6AddrWithMask):
//   x(a)            the member's bool; false when a is absent (xCollection().contains(a) tells)
//   xIs(a, flag)    add a or set its bool; newX(a, flag) is the same
//   xDel(a), xDelAll()
//   xIterator(), xCount(), xCollection()   iteration in insertion order
// Equality holds when both collections hold the same keys with the same bools, whatever the order
// in which they were inserted.
//
// Text form (toString and operator<<): always exactly
//   Value('InterfaceRouteInfo::IpAddrSet', ** {'ipAddrWithMask': None, 'ip6AddrWithMask': None})
// whatever the collections hold: the text names the type and its attributes only.
// Parsing reads the framework's value grammar (fwk/framework/ValueParse.h), attribute values in
// its collection syntax, for example
//   Value('InterfaceRouteInfo::IpAddrSet', ** {'ipAddrWithMask': {'10.0.0.1/24': True},
//         'ip6AddrWithMask': None})
// so it reads back the text form (an empty set) and Kel::collectionText of either collection.
// A parsed value starts empty; an attribute given twice takes its last value. Errors (all
// Kel::RangeException): "premature end of value type IpAddrSet", "IpAddrSet has no such
// attribute: <name>", the grammar's expected-token error, a key's own fromString error, and for a
// whole text "junk at column %lld deserializing %s". A failed parse builds no value and leaves the
// caller's text position where it was.
#pragma once

#include <cstddef>
#include <ostream>
#include <string>
#include <string_view>

#include "fwk/framework/Attributes.h"
#include "fwk/framework/HashMap.h"
#include "fwk/framework/ValueParse.h"
#include "fwk/model/KanetIpAddr.h"

// The attributes, in declaration order: A(name, Cap, Key). Each is a keyed collection of bool.
#define IRI_ATTRS_IpAddrSet(A)                             \
  A(ipAddrWithMask, IpAddrWithMask, Kanet::IpAddrWithMask) \
  A(ip6AddrWithMask, Ip6AddrWithMask, Kanet::Ip6AddrWithMask)

// Accessors of one collection of a value type (no notification: values have no notifiees).
#define IRI_VALUE_COLLECTION_(name, Cap, Key)                                            \
 public:                                                                                 \
  bool name(const Key& k) const {                                                        \
    const bool* v = name##_.find(k);                                                     \
    return v && *v;                                                                      \
  }                                                                                      \
  void name##Is(const Key& k, bool v) { name##_.insert(k, v); }                          \
  void new##Cap(const Key& k, bool v) { name##_.insert(k, v); }                          \
  void name##Del(const Key& k) { name##_.erase(k); }                                     \
  void name##DelAll() { name##_.clear(); }                                               \
  ::Kel::HashMap<Key, bool>::Iterator name##Iterator() const { return name##_.begin(); } \
  std::size_t name##Count() const { return name##_.size(); }                             \
  const ::Kel::HashMap<Key, bool>& name##Collection() const { return name##_; }          \
                                                                                         \
 private:                                                                                \
  ::Kel::HashMap<Key, bool> name##_;

namespace InterfaceRouteInfo {

class IpAddrSet {
 public:
  static constexpr const char* kTypeName = "InterfaceRouteInfo::IpAddrSet";

  IpAddrSet() = default;
  IpAddrSet(const IpAddrSet& o);
  IpAddrSet& operator=(const IpAddrSet& o);
  // Parses one value starting at `pos`; on success `pos` is moved past its closing ")".
  IpAddrSet(const char*& pos, const char* end);
  // Parses one value at the scanner's position (for values nested in other values' text).
  explicit IpAddrSet(Kel::ValueScanner& s);
  // Parses a whole text: one value, then nothing but blanks.
  static IpAddrSet fromString(std::string_view text);

  const std::string& toString() const;

  friend bool operator==(const IpAddrSet& a, const IpAddrSet& b);

  // Introspection tables, generated from the attribute list.
  KEL_VALUE_TYPE(IpAddrSet, IRI_ATTRS_IpAddrSet)
  friend std::ostream& operator<<(std::ostream& os, const IpAddrSet& v) {
    return os << v.toString();
  }

 private:
  void read(Kel::ValueScanner& s);

  // The collections and their accessors (public).
  IRI_ATTRS_IpAddrSet(IRI_VALUE_COLLECTION_)
};

}  // namespace InterfaceRouteInfo
