// The generic attribute interface of one type, GenericIf_<T>, and the pieces it is generated
// from.
//
// KEL_ENTITY (Attributes.h) expands a type's attribute list into two tables: kelAttributes()
// (names, kinds, type names, flags: what the registry records) and kelAccess() (per attribute,
// the functions that read it as text, set it from text, reach the entity it holds, walk its
// members or call it). Both start with the framework's own rows (isNondestructing; for reactors
// kelFwkActivity, hasNotificationActiveIs, kelDoZombieReactors; for referenced entities
// zeroReferencesIs), so an id is the same position in both and in the registry's record.
// GenericIf_<T> answers every generic request with those functions; nothing is written per
// attribute. Values are read and written as text: strepToValue<T>(text) parses one value of T
// (numbers, True/False, names, and every type with fromString) and raises "junk at column %lld
// deserializing %s" when anything but blanks follows it.
// Settable through the generic interface are only the attributes declared SECONDS (the backlog
// timing): a time must be finite and not negative, else "<attr>: <text> not allowed (seconds must
// be finite and not negative)". Callable are only those declared ACTION.
#pragma once

#include <cmath>
#include <cstdlib>
#include <initializer_list>
#include <memory>
#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

#include "fwk/framework/Attributes.h"
#include "fwk/framework/GenericIf.h"
#include "fwk/framework/Reactor.h"
#include "fwk/framework/Registry.h"
#include "fwk/framework/TypeName.h"
#include "fwk/framework/ValueParse.h"

KEL_TYPE_NAME(Kel::Entity, "Kel::Entity")

namespace Kel {

// ---- values as text ----

template <class T>
T strepToValue(std::string_view text) {
  ValueScanner s(text, typeNameOf<T>());
  if constexpr (std::is_same_v<T, bool>) {
    const bool v = s.boolean();
    s.expectEndOfText();
    return v;
  } else if constexpr (std::is_arithmetic_v<T>) {
    const std::string whole(text);
    char* end = nullptr;
    T v{};
    if constexpr (std::is_floating_point_v<T>) {
      v = static_cast<T>(std::strtod(whole.c_str(), &end));
    } else {
      const unsigned long long u = std::strtoull(whole.c_str(), &end, 10);
      v = static_cast<T>(u);
      if (whole.find('-') != std::string::npos || static_cast<unsigned long long>(v) != u) {
        throw RangeException(std::string(typeNameOf<T>()) + "::value " + whole + " not allowed");
      }
    }
    if (end == whole.c_str()) throw RangeException("expected a number at column 0");
    s.skip(static_cast<std::size_t>(end - whole.c_str()));
    s.expectEndOfText();
    return v;
  } else if constexpr (requires { T::fromString(text); }) {
    return T::fromString(text);
  } else if constexpr (std::is_constructible_v<T, std::string> && !std::is_aggregate_v<T>) {
    return T(std::string(text));
  } else {
    throw RangeException(std::string(typeNameOf<T>()) + " cannot be read from text");
  }
}

// A member's or an attribute's text: an entity by name ("None" when null), a notifiee by the
// name of the entity it watches, anything else by its text form.
template <class V>
std::string memberText(const V& v) {
  if constexpr (requires { v.notifier(); }) {  // a notifiee: the entity it watches
    return v.notifier() ? std::string(v.notifier()->name()) : std::string("None");
  } else if constexpr (std::is_same_v<V, ActivityManager*>) {
    return v ? "Kel::ActivityManager" : "None";
  } else {
    return kelText(v);
  }
}

template <class T>
class GenericIf_;

template <class T>
concept Generic = requires {
  T::template kelAccess<T>();
};

// The entity a value holds or points to, as a GenericIf (null when null, or not an entity of a
// generated type). A pointer to a const entity gives a read-only interface.
template <class V>
GenericIfPtr objectOf(const V& v) {
  if constexpr (IsPtr<V>::value) {
    using T = std::remove_pointer_t<decltype(v.ptr())>;
    using Bare = std::remove_const_t<T>;
    if constexpr (Generic<Bare>) {
      if (!v) return nullptr;
      return std::make_unique<GenericIf_<Bare>>(Ptr<Bare>(const_cast<Bare*>(v.ptr())),
                                                std::is_const_v<T>);
    } else {
      return nullptr;
    }
  } else if constexpr (requires { v.notifier(); }) {
    return objectOf(v.notifier());
  } else {
    return nullptr;
  }
}

template <class V>
constexpr bool navigable() {
  if constexpr (IsPtr<V>::value) {
    return Generic<std::remove_const_t<std::remove_pointer_t<decltype(std::declval<V>().ptr())>>>;
  } else {
    return false;
  }
}

template <class T>
using Holder = std::conditional_t<std::is_base_of_v<Entity, T>, Ptr<T>, std::shared_ptr<T>>;

// ---- one attribute's functions ----

template <class C>
struct AttrAccess {
  std::string (*read)(const C&) = nullptr;      // null: an operation
  void (*set)(C&, std::string_view) = nullptr;  // null: not settable
  GenericIfPtr (*object)(const C&) = nullptr;   // null: holds no entity
  std::unique_ptr<GenericIterator> (*iterate)(const Holder<C>&, bool readOnly,
                                              const std::string_view* key) = nullptr;
  void (*call)(C&, const std::vector<std::string>&) = nullptr;  // null: not callable
};

template <class C, class Get>
AttrAccess<C> readAccess(Get) {
  AttrAccess<C> a;
  a.read = +[](const C& c) { return memberText(Get{}(c)); };
  using V = std::remove_cvref_t<decltype(Get{}(std::declval<const C&>()))>;
  if constexpr (navigable<V>()) a.object = +[](const C& c) { return objectOf(Get{}(c)); };
  return a;
}

double secondsFromText(const char* attr, std::string_view text);

template <class C, class Get>
AttrAccess<C> secondsAccess(Get get, void (*set)(C&, std::string_view)) {
  AttrAccess<C> a = readAccess<C>(get);
  a.set = set;
  return a;
}

template <class C, class Coll, class Del>
class CollectionIterator : public GenericIterator {
 public:
  using Map = std::remove_cvref_t<decltype(Coll{}(std::declval<const C&>()))>;
  CollectionIterator(Holder<C> owner, bool readOnly, typename Map::Iterator it)
      : owner_(std::move(owner)), readOnly_(readOnly), it_(std::move(it)) {}
  bool isNull() const override { return !it_; }
  void advance() override { ++it_; }
  std::string key() const override { return kelText(it_.key()); }
  std::string value() const override { return memberText(it_.value()); }
  GenericIfPtr object() const override { return objectOf(it_.value()); }
  void deleteCurrent() override {
    if constexpr (std::is_same_v<Del, std::nullptr_t>) {
      throw RangeException(std::string(typeNameOf<C>()) + ": members are not deletable here");
    } else {
      if (readOnly_) throw RangeException(std::string(typeNameOf<C>()) + " is read-only here");
      const auto k = it_.key();
      Del{}(*owner_, k);
    }
  }

 private:
  Holder<C> owner_;
  bool readOnly_;
  typename Map::Iterator it_;
};

template <class C, class Coll, class Del>
AttrAccess<C> collectionAccess(Coll, Del) {
  AttrAccess<C> a;
  a.read = +[](const C& c) {
    std::string out = "{";
    for (auto [key, value] : Coll{}(c)) {
      if (out.size() > 1) out += ", ";
      out += quotedText(kelText(key)) + ": " + memberText(value);
    }
    return out + "}";
  };
  a.iterate = +[](const Holder<C>& h, bool readOnly,
                  const std::string_view* key) -> std::unique_ptr<GenericIterator> {
    using It = CollectionIterator<C, Coll, Del>;
    const auto& map = Coll{}(*h);
    if (!key) return std::make_unique<It>(h, readOnly, map.begin());
    using K = std::remove_cvref_t<decltype(map.begin().key())>;
    const K k = strepToValue<K>(*key);
    if (!map.find(k)) return std::make_unique<It>(h, readOnly, map.end());
    return std::make_unique<It>(h, readOnly, map.resumeAt(k));
  };
  return a;
}

template <class C, class... P, std::size_t... I>
void callParsed(C& c, void (C::*f)(P...), const std::vector<std::string>& args,
                std::index_sequence<I...>);

// Parses every argument first, then calls: a bad argument changes nothing.
template <class C, class... P>
void callWithText(C& c, void (C::*f)(P...), const std::vector<std::string>& args) {
  if (args.size() != sizeof...(P)) {
    throw RangeException("takes " + std::to_string(sizeof...(P)) + " argument(s), given " +
                         std::to_string(args.size()));
  }
  callParsed(c, f, args, std::index_sequence_for<P...>{});
}

template <class C, class... P, std::size_t... I>
void callParsed(C& c, void (C::*f)(P...), const std::vector<std::string>& args,
                std::index_sequence<I...>) {
  std::tuple<std::remove_cvref_t<P>...> values{strepToValue<std::remove_cvref_t<P>>(args[I])...};
  std::apply([&](auto&... v) { (c.*f)(v...); }, values);
}

template <class C, class Call>
AttrAccess<C> actionAccess(Call) {
  AttrAccess<C> a;
  a.call = +[](C& c, const std::vector<std::string>& args) { Call{}(c, args); };
  return a;
}

// ---- the framework's rows ----

template <class C>
constexpr bool isReactor = std::is_base_of_v<Reactor, C>;
template <class C>
constexpr bool isReferenced = std::is_base_of_v<ReferencedEntity, C>;

template <class C>
void entityRows(std::vector<AttributeInfo>& t, std::vector<AttrAccess<C>>& a);

template <class C>
void frameworkRows(std::vector<AttributeInfo>& t, std::vector<AttrAccess<C>>& a) {
  if constexpr (std::is_base_of_v<Entity, C>) entityRows(t, a);
}

template <class C>
void entityRows(std::vector<AttributeInfo>& t, std::vector<AttrAccess<C>>& a) {
  constexpr unsigned fn = KelAttrIntrospectionFlags::isFunction;
  auto row = [&](const char* name, const char* type, unsigned flags, auto get) {
    t.push_back({name, 0, flags ? AttributeKind::handler : AttributeKind::scalar, type, nullptr,
                 TypeKind::value, flags});
    a.push_back(readAccess<C>(get));
  };
  row("isNondestructing", "Kel::Bool", 0, [](const C& c) { return c.isNondestructing(); });
  if constexpr (isReactor<C>) {
    row("kelFwkActivity", "Kel::ActivityManager", 0, [](const C& c) { return c.kelFwkActivity(); });
    row("hasNotificationActiveIs", "Kel::Function", fn,
        [](const C& c) { return c.hasNotificationActive(); });
    row("kelDoZombieReactors", "Kel::Function", fn,
        [](const C& c) { return c.kelZombieReactors(); });
  }
  if constexpr (isReferenced<C>) {
    row("zeroReferencesIs", "Kel::Function", fn, [](const C& c) { return c.zeroReferences(); });
  }
}

template <class T>
TypeKind typeKindOf() {
  if constexpr (IsPtr<T>::value) {
    return typeKindOf<std::remove_const_t<std::remove_pointer_t<decltype(T().ptr())>>>();
  } else {
    return std::is_base_of_v<Entity, T> ? TypeKind::entity : TypeKind::value;
  }
}

// The tables of C: the framework's rows, then the declared ones; ids are positions.
template <class C>
std::vector<AttributeInfo> attributeTable(std::initializer_list<AttributeInfo> declared) {
  std::vector<AttributeInfo> t;
  std::vector<AttrAccess<C>> unused;
  frameworkRows<C>(t, unused);
  t.insert(t.end(), declared.begin(), declared.end());
  for (unsigned i = 0; i < t.size(); ++i) t[i].id = i;
  return t;
}

template <class C>
std::vector<AttrAccess<C>> accessTable(std::initializer_list<AttrAccess<C>> declared) {
  std::vector<AttributeInfo> unused;
  std::vector<AttrAccess<C>> a;
  frameworkRows<C>(unused, a);
  a.insert(a.end(), declared.begin(), declared.end());
  return a;
}

// How many framework rows precede the declared attributes of C.
template <class C>
unsigned frameworkRowCount() {
  if constexpr (!std::is_base_of_v<Entity, C>) return 0;
  return 1 + (isReactor<C> ? 3 : 0) + (isReferenced<C> ? 1 : 0);
}

// ---- registration ----

template <class T>
void registerAttributes(Registry& r, TypeRecord& rec) {
  for (const AttributeInfo& info : T::kelAttributes()) r.attributeAdd(rec, info);
  r.typeClose(rec);
}

// Registers T in the namespace being registered.
template <class T>
void registerType(Registry& r) {
  constexpr TypeKind kind = std::is_base_of_v<Entity, T> ? TypeKind::entity : TypeKind::value;
  registerAttributes<T>(r, r.typeOpen(typeNameOf<T>(), kind, isReactor<T>));
}

// T's record: the registered one, or, for a type of another library reached by name, one made
// on first use.
template <class T>
const TypeRecord& typeRecord() {
  Registry& r = registry();
  if (const TypeRecord* t = r.type(typeNameOf<T>()); t && t->closed) return *t;
  constexpr TypeKind kind = std::is_base_of_v<Entity, T> ? TypeKind::entity : TypeKind::value;
  bool isNew = false;
  TypeRecord& rec = r.typeDescribe(typeNameOf<T>(), kind, isReactor<T>, isNew);
  if (isNew) registerAttributes<T>(r, rec);
  return rec;
}

// ---- the generic interface of T ----

template <class T>
class GenericIf_ : public GenericIf {
 public:
  GenericIf_(Holder<T> object, bool readOnly) : object_(std::move(object)), readOnly_(readOnly) {}

  const TypeRecord& type() const override { return typeRecord<T>(); }
  std::string strRep() const override {
    if constexpr (std::is_base_of_v<Entity, T>) {
      return object_->name();
    } else {
      return object_->toString();
    }
  }
  GenericIfPtr clone() const override {
    if constexpr (std::is_base_of_v<Entity, T>) {
      return std::make_unique<GenericIf_>(object_, readOnly_);
    } else {
      return std::make_unique<GenericIf_>(std::make_shared<T>(*object_), readOnly_);
    }
  }
  // The value of a value type (for its GenericIf made from text).
  const T& typed() const { return *object_; }
  // The entity itself (for the generic notifiee).
  const Holder<T>& entity() const { return object_; }
  GenericNotifieePtr notifieeNew() const override;  // GenericIfAdapter.h

  std::string attributeOp(AttributeOp op, unsigned id, std::string_view text) override {
    const AttrAccess<T>& a = access(id);
    if (op == AttributeOp::read) {
      if (!a.read) throw RangeException(name(id) + " is an operation, not a value");
      return a.read(*object_);
    }
    if (!a.set) throw RangeException(name(id) + " is not settable");
    writable();
    a.set(*object_, text);
    return {};
  }
  GenericIfPtr object(unsigned id) const override {
    const AttrAccess<T>& a = access(id);
    if (!a.object) throw RangeException(name(id) + " is not an object");
    return a.object(*object_);
  }
  std::unique_ptr<GenericIterator> iterator(unsigned id) const override {
    return iterate(id, nullptr);
  }
  std::unique_ptr<GenericIterator> iterator(unsigned id, std::string_view key) const override {
    return iterate(id, &key);
  }
  void call(unsigned id, const std::vector<std::string>& args) override {
    const AttrAccess<T>& a = access(id);
    if (!a.call) throw RangeException(name(id) + " is not an operation that can be called");
    writable();
    a.call(*object_, args);
  }
  GenericIfPtr genericIfListConstructor(const std::vector<std::string>& values) const override {
    if constexpr (std::is_base_of_v<Entity, T>) {
      throw RangeException(type().name + " is not a value type");
    } else {
      // The value's text in the value grammar, parsed as any text form is: one parser, one set
      // of errors.
      const std::vector<AttributeRecord>& attrs = type().attributes;
      if (values.size() != attrs.size()) {
        throw RangeException(type().name + " takes " + std::to_string(attrs.size()) +
                             " attribute values, " + std::to_string(values.size()) + " given");
      }
      std::string text = "Value('" + type().name + "', ** {";
      for (std::size_t i = 0; i < attrs.size(); ++i) {
        text += (i ? ", '" : "'") + attrs[i].name + "': " + values[i];
      }
      text += "})";
      return std::make_unique<GenericIf_>(std::make_shared<T>(strepToValue<T>(text)), false);
    }
  }
  void hasNotificationActiveIs(bool active) override {
    if constexpr (isReactor<T>) {
      object_->hasNotificationActiveIs(active);
    } else {
      notReactor(active);
    }
  }
  void kelDoZombieReactors(bool doIt) override {
    if constexpr (isReactor<T>) {
      object_->kelDoZombieReactors(doIt);
    } else {
      notReactor(doIt);
    }
  }

 private:
  const AttrAccess<T>& access(unsigned id) const {
    attribute(id);  // raises on an unknown id
    return T::template kelAccess<T>()[id];
  }
  std::string name(unsigned id) const { return type().name + "::" + attribute(id).name; }
  std::unique_ptr<GenericIterator> iterate(unsigned id, const std::string_view* key) const {
    const AttrAccess<T>& a = access(id);
    if (!a.iterate) throw RangeException(name(id) + " is not a collection");
    return a.iterate(object_, readOnly_, key);
  }
  void writable() const {
    if (readOnly_) throw RangeException(type().name + " is read-only here");
  }
  [[noreturn]] void notReactor(bool) const {
    throw RangeException(type().name + " is not a reactor");
  }

  Holder<T> object_;
  bool readOnly_;
};

template <class T>
GenericIfPtr genericIf(const Ptr<T>& object) {
  return object ? std::make_unique<GenericIf_<T>>(object, false) : nullptr;
}

// A value of a value type parsed from its text form, as a GenericIf.
template <class T>
GenericIfPtr genericIfFromText(std::string_view text) {
  return std::make_unique<GenericIf_<T>>(std::make_shared<T>(strepToValue<T>(text)), false);
}

}  // namespace Kel

// GenericIf_::notifieeNew needs the adapter, which needs GenericIf_.
#include "fwk/framework/GenericIfAdapter.h"
