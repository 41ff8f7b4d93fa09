// IpAddrSet: copying, equality, text form and parser, each generated over the attribute list.
#include "fwk/IpAddrSet.h"

namespace InterfaceRouteInfo {

namespace {

template <class K>
void copyMembers(const Kel::HashMap<K, bool>& from, Kel::HashMap<K, bool>& to) {
  to.clear();
  for (auto [key, value] : from) to.insert(key, value);
}

template <class K>
bool sameMembers(const Kel::HashMap<K, bool>& a, const Kel::HashMap<K, bool>& b) {
  if (a.size() != b.size()) return false;
  for (auto [key, value] : a) {
    const bool* other = b.find(key);
    if (!other || *other != value) return false;
  }
  return true;
}

}  // namespace

IpAddrSet::IpAddrSet(const IpAddrSet& o) { *this = o; }

IpAddrSet& IpAddrSet::operator=(const IpAddrSet& o) {
  if (this == &o) return *this;
#define IRI_COPY_(name, Cap, Key) copyMembers(o.name##_, name##_);
  IRI_ATTRS_IpAddrSet(IRI_COPY_);
#undef IRI_COPY_
  return *this;
}

bool operator==(const IpAddrSet& a, const IpAddrSet& b) {
#define IRI_SAME_(name, Cap, Key) \
  if (!sameMembers(a.name##_, b.name##_)) return false;
  IRI_ATTRS_IpAddrSet(IRI_SAME_);
#undef IRI_SAME_
  return true;
}

const std::string& IpAddrSet::toString() const {
  static const std::string text = [] {
    std::string attrs;
#define IRI_TEXT_(name, Cap, Key) \
  attrs += std::string(attrs.empty() ? "" : ", ") + "'" #name "': None";
    IRI_ATTRS_IpAddrSet(IRI_TEXT_);
#undef IRI_TEXT_
    return std::string("Value('") + kTypeName + "', ** {" + attrs + "})";
  }();
  return text;
}

void IpAddrSet::read(Kel::ValueScanner& s) {
  s.expect("Value");
  s.expect("(");
  s.expect(std::string("'") + kTypeName + "'");
  s.expect(",");
  s.expect("**");
  s.expect("{");
  if (!s.accept("}")) {
    do {
      const std::string attr = s.quoted();
      s.expect(":");
#define IRI_READ_(name, Cap, Key)    \
  if (attr == #name) {               \
    Kel::readCollection(s, name##_); \
    continue;                        \
  }
      IRI_ATTRS_IpAddrSet(IRI_READ_);
#undef IRI_READ_
      throw Kel::RangeException("IpAddrSet has no such attribute: " + attr);
    } while (s.expectOneOf({",", "}"}) == 0);
  }
  s.expect(")");
}

IpAddrSet::IpAddrSet(Kel::ValueScanner& s) { read(s); }

IpAddrSet::IpAddrSet(const char*& pos, const char* end) {
  Kel::ValueScanner s(pos, end, "IpAddrSet");
  read(s);
  pos = s.pos();
}

IpAddrSet IpAddrSet::fromString(std::string_view text) {
  Kel::ValueScanner s(text, "IpAddrSet");
  IpAddrSet v(s);
  s.expectEndOfText();
  return v;
}

}  // namespace InterfaceRouteInfo
