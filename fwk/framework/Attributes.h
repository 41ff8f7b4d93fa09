// Per-attribute code generated from one declaration.
//
// An entity type lists its attributes once, in declaration order, as a list macro:
//   #define KEL_ATTRS_Route(A) A(INPUT, key, Key, Routing::RouteKey)
//     A(SCALAR, tag, Tag, std::uint32_t, 0) A(COLLECTION, via, Via, Routing::ViaKey, ViaPtr)
// (one line per attribute, each ending in a backslash)
// and puts KEL_ENTITY(Route, "Routing::Route", KEL_ATTRS_Route) in its class body. Kinds:
//   SCALAR(name, Cap, Type, default)   value; name(), nameIs(v)
//   POINTER(name, Cap, Type)           Kel::Ptr<const Type>; name(), nameIs(p)
//   INPUT(name, Cap, Type)             constructor parameter, read-only; compared on
//                                      reinstantiation
//   COLLECTION(name, Cap, Key, Value)  name(k) (Value{} when absent), nameIs(k, v), nameDel(k),
//                                      nameDelAll(), nameIterator(), nameCount(), nameCollection()
//   CHILD(name, Cap, Type)             owned child; nameIs(params...) instantiates, nameDel(),
//                                      newCap(params...) builds one without storing it
//   CHILDREN(name, Cap, Key, Type)     keyed owned reactors; nameIs(k, params...) returns the
//                                      member with equal parameters or raises
//                                      Kel::NameInUseException (nameDel(k), nameDelAll())
//   ENTRIES(name, Cap, Key, Type)      keyed entity records made from their key: name(k) (null when
//                                      absent), nameIs(k) finds or makes the member (notifies
//                                      on make), nameDel(k), nameDelAll(), nameIterator(),
//                                      nameCount(); a member type with kelMemberOf(Owner*) is
//                                      told when it joins (owner) and leaves (null)
//   NOTIFIEES(name, Cap, Key, Adapter, Watched)  keyed adapters made from Ptr<const Watched>,
//                                      keyed by the watched entity's key(), held in the
//                                      collection's nodes; null raises Kel::RangeException
//   SIGNAL(name, Cap, Type, default, handler)  a value whose change first calls handler(), then
//                                      notifies (Root's `initialized`)
//   SECONDS(name, Cap, default)        a double of seconds, like SCALAR; the one kind the generic
//                                      interface may set (finite, not negative)
//   HANDLER(name, Cap)                 a hand-written operation; appears in the table only
//   ACTION(name, Cap)                  a hand-written operation the generic interface may call
//                                      (not overloaded; arguments parsed from text)
// Mutators of values notify only when the value changes; collection mutators notify with the key
// (nameDelAll once per key). The nested Notifiee has onCap() for single attributes, onCap(key)
// and onCapkelImmediate() for keyed ones; unless overridden, each reports the attribute to
// kelAttributeChanged (the generic notifiee adapter, GenericIfAdapter.h, records it). Keyed ones
// also have onCapkelAhead(key), a cache hint nameDelAll gives a few keys before it deletes them:
// no change, and nothing is recorded unless overridden.
// The introspection tables kelAttributes() and kelAccess() and the generic interface come from
// the same list (GenericAccess.h); KEL_TWIN_NAMES renames attributes of a twin instance.
// INPUT attributes must be initialised by the type's constructor (kelInputsIs(params...) sets them
// all, in order). Types with commas (templates) must be given an alias first.
#pragma once

#include <memory>
#include <sstream>
#include <string>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

#include "fwk/framework/Entity.h"
#include "fwk/framework/Exception.h"
#include "fwk/framework/HashMap.h"
#include "fwk/framework/Reactor.h"

namespace Kel {

template <class T>
struct IsPtr : std::false_type {};
template <class T>
struct IsPtr<Ptr<T>> : std::true_type {};

// Text of a value in framework messages: an entity by its name, "None" for null.
template <class T>
std::string kelText(const T& v) {
  std::ostringstream os;
  os.precision(12);
  if constexpr (IsPtr<T>::value) {
    if (!v) return "None";
    os << v->name();
  } else if constexpr (std::is_pointer_v<T>) {
    if (!v) return "None";
    os << static_cast<const void*>(v);
  } else if constexpr (std::is_same_v<T, bool>) {
    os << (v ? "True" : "False");
  } else if constexpr (std::is_integral_v<T> && sizeof(T) == 1) {
    os << static_cast<int>(v);
  } else {
    os << v;
  }
  return os.str();
}

// Builds a reactor or entity and runs its handleInitialized (when it has one) before returning.
// A reactor learns here which of the notifiees made during its construction are its members
// (Reactor::hasNotificationActiveIs switches them).
template <class T, class... Args>
Ptr<T> instantiate(Args&&... args) {
  Ptr<T> p;
  if constexpr (std::is_base_of_v<Reactor, T>) {
    std::vector<NotifieeBase*> made;
    struct Restore {
      std::vector<NotifieeBase*>* old;
      ~Restore() { NotifieeBase::collectorIs(old); }
    } restore{NotifieeBase::collectorIs(&made)};
    p = Ptr<T>(new T(std::forward<Args>(args)...));
    p->kelAdopt(
        made, p.ptr(), sizeof(T),
        +[](Reactor& r, bool active) { static_cast<T&>(r).kelCollectionsActiveIs(active); });
  } else {
    p = Ptr<T>(new T(std::forward<Args>(args)...));
  }
  if constexpr (requires(T & t) { t.handleInitialized(); }) p->handleInitialized();
  return p;
}

// The collection of a NOTIFIEES attribute. An adapter watches the entity it was made for as long
// as it is a member, so it gives its key (the watched entity's), and its node keeps no copy.
struct WatchedKey {
  template <class Adapter>
  const auto& operator()(const Adapter& a) const {
    return a.watched()->key();
  }
};
template <class Key, class Adapter>
using NotifieeMap = HashMap<Key, Adapter, std::hash<Key>, WatchedKey>;

namespace detail {
// The walk of the innermost generated xDelAll() running: its collection and its iterator, which
// stands on the member whose deletion it is notifying.
struct DelAllWalk {
  const void* map = nullptr;
  const void* it = nullptr;
};
inline DelAllWalk delAllWalk;
// Names the walk while it lives, and restores the one it hides (a notifiee may run another).
struct DelAllWalkScope {
  DelAllWalkScope(const void* map, const void* it) : saved(delAllWalk) { delAllWalk = {map, it}; }
  ~DelAllWalkScope() { delAllWalk = saved; }
  DelAllWalkScope(const DelAllWalkScope&) = delete;
  DelAllWalkScope& operator=(const DelAllWalkScope&) = delete;
  DelAllWalk saved;
};
}  // namespace detail

// A generated lookup: k's value in m, or null. While m's xDelAll() notifies about a member (a
// notifiee asking whether that key is still there), that key is answered from the walk's node,
// so the withdraw-all does not read the index for it.
template <class Map, class K>
[[gnu::always_inline]] inline auto lookupMember(const Map& m, const K& k) -> decltype(m.find(k)) {
  if (detail::delAllWalk.map == &m) [[unlikely]] {
    const auto [v, on] =
        m.atWalk(*static_cast<const typename Map::Iterator*>(detail::delAllWalk.it), k);
    if (on) return v;
  }
  return m.find(k);
}

// A notifiee a reactor adds to a NOTIFIEES collection takes the reactor's delivery switch.
template <class Owner>
void followDeliverySwitch(const Owner& owner, NotifieeBase& n) {
  if constexpr (std::is_base_of_v<Reactor, Owner>)
    n.hasNotificationActiveIs(owner.hasNotificationActive());
}

// Tells a collection member that it joined `owner`'s collection (or left it: null), when its type
// wants to know (it has kelMemberOf(Owner*)).
template <class T, class Owner>
void memberOf(T& member, Owner* owner) {
  if constexpr (requires { member.kelMemberOf(owner); }) member.kelMemberOf(owner);
}

namespace detail {
template <class Tuple, std::size_t... I, class... Args>
void checkParams(const Tuple& have, const char* const* names, std::index_sequence<I...>,
                 const Args&... args) {
  std::string bad;
  auto one = [&](auto idx, const auto& arg) {
    constexpr std::size_t i = decltype(idx)::value;
    using Stored = std::decay_t<std::tuple_element_t<i, Tuple>>;
    Stored v(arg);
    if (bad.empty() && !(std::get<i>(have) == v)) {
      bad = std::string(
                "Reinstantiating the pointer interface where constructor parameter "
                "attribute _") +
            names[i] + " has a different value of " + kelText(v) + " not allowed";
    }
  };
  (one(std::integral_constant<std::size_t, I>{}, args), ...);
  if (!bad.empty()) throw NameInUseException(bad);
}
}  // namespace detail

// Raises the name-in-use exception when a parameter differs from the member's constructor input.
template <class T, class... Args>
void checkReinstantiation(const T& existing, const Args&... args) {
  auto have = existing.kelCtorParams();
  static_assert(std::tuple_size_v<decltype(have)> == sizeof...(Args),
                "reinstantiation must pass every constructor parameter");
  detail::checkParams(have, T::kelCtorParamNames(), std::index_sequence_for<Args...>{}, args...);
}

}  // namespace Kel

// A type's factory, `name(params...)`: takes exactly the constructor's parameters, builds the
// object and, when it has a handleInitialized (a reactor), runs its first scan before returning.
#define KEL_FACTORY(name, Type)                                      \
  template <class... KelArgs>                                        \
  ::Kel::Ptr<Type> name(KelArgs&&... args) {                         \
    return ::Kel::instantiate<Type>(std::forward<KelArgs>(args)...); \
  }

// ---- dispatch by kind ----
#define KEL_DISPATCH_(prefix, kind, ...) prefix##kind(__VA_ARGS__)

// ---- notifiee callbacks ----
#define KEL_CB_(kind, ...) KEL_DISPATCH_(KEL_CB_, kind, __VA_ARGS__)
#define KEL_CB_ONE_(name, Cap) \
  virtual void on##Cap() { kelAttributeChanged(kelAttr_##name); }
#define KEL_CB_SCALAR(name, Cap, ...) KEL_CB_ONE_(name, Cap)
#define KEL_CB_SECONDS(name, Cap, ...) KEL_CB_ONE_(name, Cap)
#define KEL_CB_POINTER(name, Cap, ...) KEL_CB_ONE_(name, Cap)
#define KEL_CB_INPUT(name, Cap, ...)
#define KEL_CB_SIGNAL(name, Cap, ...) KEL_CB_ONE_(name, Cap)
#define KEL_CB_HANDLER(name, Cap)
#define KEL_CB_ACTION(name, Cap)
#define KEL_CB_CHILD(name, Cap, ...) KEL_CB_ONE_(name, Cap)
#define KEL_CB_KEYED_(name, Cap, Key)                                                    \
  virtual void on##Cap(const Key&) { kelAttributeChanged(kelAttr_##name); }              \
  virtual void on##Cap##kelImmediate() { kelAttributeChanged(kelAttr_##name); }          \
  /* A hint from nameDelAll: key will be deleted (and notified) a few steps from now. */ \
  virtual void on##Cap##kelAhead(const Key&) {}
#define KEL_CB_COLLECTION(name, Cap, Key, ...) KEL_CB_KEYED_(name, Cap, Key)
#define KEL_CB_CHILDREN(name, Cap, Key, ...) KEL_CB_KEYED_(name, Cap, Key)
#define KEL_CB_ENTRIES(name, Cap, Key, ...) KEL_CB_KEYED_(name, Cap, Key)
#define KEL_CB_NOTIFIEES(name, Cap, Key, ...) KEL_CB_KEYED_(name, Cap, Key)

// ---- constructor inputs ----
#define KEL_TIE_(kind, ...) KEL_DISPATCH_(KEL_TIE_, kind, __VA_ARGS__)
#define KEL_TIE_INPUT(name, ...) std::tie(name##_),
#define KEL_TIE_SCALAR(...)
#define KEL_TIE_SIGNAL(...)
#define KEL_TIE_POINTER(...)
#define KEL_TIE_COLLECTION(...)
#define KEL_TIE_CHILD(...)
#define KEL_TIE_CHILDREN(...)
#define KEL_TIE_ENTRIES(...)
#define KEL_TIE_NOTIFIEES(...)
#define KEL_TIE_HANDLER(...)
#define KEL_TIE_SECONDS(...)
#define KEL_TIE_ACTION(...)
#define KEL_PNAME_(kind, ...) KEL_DISPATCH_(KEL_PNAME_, kind, __VA_ARGS__)
#define KEL_PNAME_INPUT(name, ...) #name,
#define KEL_PNAME_SCALAR(...)
#define KEL_PNAME_SIGNAL(...)
#define KEL_PNAME_POINTER(...)
#define KEL_PNAME_COLLECTION(...)
#define KEL_PNAME_CHILD(...)
#define KEL_PNAME_CHILDREN(...)
#define KEL_PNAME_ENTRIES(...)
#define KEL_PNAME_NOTIFIEES(...)
#define KEL_PNAME_HANDLER(...)
#define KEL_PNAME_SECONDS(...)
#define KEL_PNAME_ACTION(...)

// ---- members ----
#define KEL_MEMBER_(kind, ...) KEL_DISPATCH_(KEL_MEMBER_, kind, __VA_ARGS__)

#define KEL_MEMBER_SCALAR(name, Cap, Type, Default) \
 public:                                            \
  const Type& name() const { return name##_; }      \
  void name##Is(const Type& v) {                    \
    if (name##_ == v) return;                       \
    name##_ = v;                                    \
    kelNotify([](Notifiee& n) { n.on##Cap(); });    \
  }                                                 \
                                                    \
 private:                                           \
  Type name##_ = Default;

#define KEL_MEMBER_POINTER(name, Cap, Type)                      \
 public:                                                         \
  const ::Kel::Ptr<const Type>& name() const { return name##_; } \
  void name##Is(const ::Kel::Ptr<const Type>& v) {               \
    if (name##_ == v) return;                                    \
    name##_ = v;                                                 \
    kelNotify([](Notifiee& n) { n.on##Cap(); });                 \
  }                                                              \
                                                                 \
 private:                                                        \
  ::Kel::Ptr<const Type> name##_;

#define KEL_MEMBER_INPUT(name, Cap, Type)      \
 public:                                       \
  const Type& name() const { return name##_; } \
                                               \
 private:                                      \
  Type name##_{};

#define KEL_MEMBER_HANDLER(name, Cap)
#define KEL_MEMBER_ACTION(name, Cap)
#define KEL_MEMBER_SECONDS(name, Cap, Default) KEL_MEMBER_SCALAR(name, Cap, double, Default)

#define KEL_MEMBER_SIGNAL(name, Cap, Type, Default, handler) \
 public:                                                     \
  const Type& name() const { return name##_; }               \
  void name##Is(const Type& v) {                             \
    if (name##_ == v) return;                                \
    name##_ = v;                                             \
    handler();                                               \
    kelNotify([](Notifiee& n) { n.on##Cap(); });             \
  }                                                          \
                                                             \
 private:                                                    \
  Type name##_ = Default;

#define KEL_MEMBER_COLLECTION(name, Cap, Key, Value)                                               \
 public:                                                                                           \
  Value name(const Key& k) const {                                                                 \
    const Value* v = ::Kel::lookupMember(name##_, k);                                              \
    return v ? *v : Value{};                                                                       \
  }                                                                                                \
  void name##Is(const Key& k, const Value& v) {                                                    \
    if (!name##_.assign(k, v)) return;                                                             \
    kelNotify([&k](Notifiee& n) { n.on##Cap(k); });                                                \
  }                                                                                                \
  void name##Del(const Key& k) {                                                                   \
    Value old{};                                                                                   \
    if (name##_.erase(k, old)) name##Gone_(k, old);                                                \
  }                                                                                                \
  KEL_DEL_ALL_(name, Cap, Key, Value)                                                              \
  /* Tells every notifiee to rescan the whole collection. */                                       \
  void name##Resync() const {                                                                      \
    kelNotify([](Notifiee& n) { n.on##Cap##kelImmediate(); });                                     \
  }                                                                                                \
  typename ::Kel::HashMap<Key, Value>::Iterator name##Iterator() const { return name##_.begin(); } \
  std::size_t name##Count() const { return name##_.size(); }                                       \
  /* Room for n members without growing the index (a caller about to add that many). */            \
  void name##Reserve(std::size_t n) { name##_.reserve(n); }                                        \
  const ::Kel::HashMap<Key, Value>& name##Collection() const { return name##_; }                   \
                                                                                                   \
 private:                                                                                          \
  void name##Gone_(const Key& k, Value&) {                                                         \
    kelNotify([&k](Notifiee& n) { n.on##Cap(k); });                                                \
  }                                                                                                \
  ::Kel::HashMap<Key, Value> name##_;

#define KEL_MEMBER_CHILD(name, Cap, Type)                                       \
 public:                                                                        \
  const ::Kel::Ptr<Type>& name() const { return name##_; }                      \
  template <class... Args>                                                      \
  ::Kel::Ptr<Type> name##Is(Args&&... args) {                                   \
    ::Kel::Ptr<Type> c = ::Kel::instantiate<Type>(std::forward<Args>(args)...); \
    name##_ = c;                                                                \
    kelNotify([](Notifiee& n) { n.on##Cap(); });                                \
    return c;                                                                   \
  }                                                                             \
  template <class... Args>                                                      \
  static ::Kel::Ptr<Type> new##Cap(Args&&... args) {                            \
    return ::Kel::instantiate<Type>(std::forward<Args>(args)...);               \
  }                                                                             \
  void name##Del() {                                                            \
    if (!name##_) return;                                                       \
    ::Kel::Ptr<Type> old = std::move(name##_);                                  \
    name##_ = nullptr;                                                          \
    kelNotify([](Notifiee& n) { n.on##Cap(); });                                \
  }                                                                             \
                                                                                \
 private:                                                                       \
  ::Kel::Ptr<Type> name##_;

// Removes every member of `name`, each through nameDel so that each is notified. Each notifiee
// is also told, by onCapkelAhead(key), the key that will go kPrefetchAhead deletions later, so
// that it can ask for the lines its own handling of that key will read (a withdraw-all of a
// million routes waits mostly on such misses). The hint changes nothing and is not a change.
// Each member is erased where the walk stands (what nameDel(k) does, without looking k up), then
// nameGone_, the kind's own rest of nameDel, follows.
#define KEL_DEL_ALL_(name, Cap, Key, Value)                                   \
  void name##DelAll() {                                                       \
    auto ahead = name##_.begin();                                             \
    for (std::size_t i = 0; i < ::Kel::kPrefetchAhead && ahead; ++i) ++ahead; \
    auto it = name##_.begin();                                                \
    const ::Kel::detail::DelAllWalkScope kelWalk(&name##_, &it);              \
    for (; it; ++it) {                                                        \
      if (ahead) {                                                            \
        const Key& a = ahead.key();                                           \
        ::Kel::prefetchPointee(ahead.value());                                \
        kelNotify([&a](Notifiee& n) { n.on##Cap##kelAhead(a); });             \
        ++ahead;                                                              \
      }                                                                       \
      const Key k = it.key();                                                 \
      Value old{};                                                            \
      if (name##_.eraseAt(it, old)) name##Gone_(k, old);                      \
    }                                                                         \
  }

// What the keyed collections of entities share: lookup (null when absent), DelAll, iteration,
// count, and the storage.
#define KEL_PTR_MEMBERS_(name, Cap, Key, Type)                                              \
 public:                                                                                    \
  ::Kel::Ptr<Type> name(const Key& k) const {                                               \
    const ::Kel::Ptr<Type>* v = ::Kel::lookupMember(name##_, k);                            \
    return v ? *v : ::Kel::Ptr<Type>();                                                     \
  }                                                                                         \
  KEL_DEL_ALL_(name, Cap, Key, ::Kel::Ptr<Type>)                                            \
  void name##Del(const Key& k) {                                                            \
    ::Kel::Ptr<Type> old;                                                                   \
    if (name##_.erase(k, old)) name##Gone_(k, old);                                         \
  }                                                                                         \
  typename ::Kel::HashMap<Key, ::Kel::Ptr<Type>>::Iterator name##Iterator() const {         \
    return name##_.begin();                                                                 \
  }                                                                                         \
  std::size_t name##Count() const { return name##_.size(); }                                \
  const ::Kel::HashMap<Key, ::Kel::Ptr<Type>>& name##Collection() const { return name##_; } \
                                                                                            \
 private:                                                                                   \
  ::Kel::HashMap<Key, ::Kel::Ptr<Type>> name##_;

#define KEL_MEMBER_CHILDREN(name, Cap, Key, Type)                \
  KEL_PTR_MEMBERS_(name, Cap, Key, Type)                         \
 public:                                                         \
  template <class... Args>                                       \
  ::Kel::Ptr<Type> name##Is(const Key& k, const Args&... args) { \
    if (const ::Kel::Ptr<Type>* have = name##_.find(k)) {        \
      ::Kel::checkReinstantiation(**have, k, args...);           \
      return *have;                                              \
    }                                                            \
    ::Kel::Ptr<Type> c = ::Kel::instantiate<Type>(k, args...);   \
    name##_.insert(k, c);                                        \
    kelNotify([&k](Notifiee& n) { n.on##Cap(k); });              \
    return c;                                                    \
  }                                                              \
                                                                 \
 private:                                                        \
  void name##Gone_(const Key& k, ::Kel::Ptr<Type>&) {            \
    kelNotify([&k](Notifiee& n) { n.on##Cap(k); });              \
  }

#define KEL_MEMBER_ENTRIES(name, Cap, Key, Type)                      \
  KEL_PTR_MEMBERS_(name, Cap, Key, Type)                              \
 public:                                                              \
  ::Kel::Ptr<Type> name##Is(const Key& k) {                           \
    if (const ::Kel::Ptr<Type>* have = name##_.find(k)) return *have; \
    ::Kel::Ptr<Type> c = ::Kel::make<Type>(k);                        \
    name##_.insert(k, c);                                             \
    ::Kel::memberOf(*c, this);                                        \
    kelNotify([&k](Notifiee& n) { n.on##Cap(k); });                   \
    return c;                                                         \
  }                                                                   \
                                                                      \
 private:                                                             \
  void name##Gone_(const Key& k, ::Kel::Ptr<Type>& old) {             \
    ::Kel::memberOf(*old, static_cast<decltype(this)>(nullptr));      \
    kelNotify([&k](Notifiee& n) { n.on##Cap(k); });                   \
  }

// The adapters live in the collection's nodes (no heap block of their own); none moves while it
// is a member. They are not counted among the adapters a reactor's factory sees being made (those
// are its own members): they follow the reactor's delivery switch through the collection.
#define KEL_MEMBER_NOTIFIEES(name, Cap, Key, Adapter, Watched)                               \
 public:                                                                                     \
  Adapter* name(const Key& k) const {                                                        \
    return const_cast<::Kel::NotifieeMap<Key, Adapter>&>(name##_).find(k);                   \
  }                                                                                          \
  Adapter* name##Is(const ::Kel::Ptr<const Watched>& kelW) {                                 \
    if (!kelW) {                                                                             \
      throw ::Kel::RangeException(std::string("null _" #name " parameter to mutator for ") + \
                                  kelTypeName() + "::" #name " not allowed\"");              \
    }                                                                                        \
    const Key k = kelW->key();                                                               \
    /* One probe: an adapter already watching kelW stays, with nothing notified. */          \
    std::pair<std::pair<Adapter*, bool>, bool> kelR;                                         \
    {                                                                                        \
      const ::Kel::NotifieeBase::CollectorPause kelPause;                                    \
      kelR = name##_.emplaceUnless(                                                          \
          k, [&kelW](const Adapter& have) { return have.notifier() == kelW; }, this, kelW);  \
    }                                                                                        \
    Adapter* a = kelR.first.first;                                                           \
    if (!kelR.second) return a;                                                              \
    ::Kel::followDeliverySwitch(*this, *a);                                                  \
    kelNotify([&k](Notifiee& n) { n.on##Cap(k); });                                          \
    return a;                                                                                \
  }                                                                                          \
  void name##Del(const Key& k) {                                                             \
    if (!name##_.erase(k)) return;                                                           \
    kelNotify([&k](Notifiee& n) { n.on##Cap(k); });                                          \
  }                                                                                          \
  typename ::Kel::NotifieeMap<Key, Adapter>::Iterator name##Iterator() const {               \
    return name##_.begin();                                                                  \
  }                                                                                          \
  std::size_t name##Count() const { return name##_.size(); }                                 \
  /* Room for n adapters without growing the index (a reactor about to watch that many). */  \
  void name##Reserve(std::size_t n) { name##_.reserve(n); }                                  \
  const ::Kel::NotifieeMap<Key, Adapter>& name##Collection() const { return name##_; }       \
                                                                                             \
 private:                                                                                    \
  ::Kel::NotifieeMap<Key, Adapter> name##_;

// ---- the whole entity body ----
#define KEL_ENTITY(Class, QualifiedName, LIST)                                              \
 public:                                                                                    \
  /* Declared attributes by position (the framework's rows come first in the tables). */    \
  enum KelAttrDeclared : unsigned { LIST(KEL_ENUM_) kelAttrDeclaredCount };                 \
  /* Holds a reference to its notifier (counted by hand: the base's pointer is the only     \
     copy, which keeps a million route adapters a pointer smaller). */                      \
  class Notifiee : public ::Kel::NotifieeBase {                                             \
   public:                                                                                  \
    Notifiee() = default;                                                                   \
    ~Notifiee() override { notifierIs(nullptr); }                                           \
    ::Kel::Ptr<const Class> notifier() const { return ::Kel::Ptr<const Class>(watched()); } \
    /* The watched entity without a reference of its own (null: none). */                   \
    const Class* watched() const { return static_cast<const Class*>(notifierBase()); }      \
    void notifierIs(const ::Kel::Ptr<const Class>& n) {                                     \
      const Class* old = watched();                                                         \
      if (n.ptr() == old) return;                                                           \
      if (n) n->newRef();                                                                   \
      notifierBaseIs(n.ptr());                                                              \
      if (old) old->deleteRef();                                                            \
    }                                                                                       \
    /* Every callback not overridden lands here with the attribute's declared position. */  \
    virtual void kelAttributeChanged(unsigned) {}                                           \
    LIST(KEL_CB_)                                                                           \
  };                                                                                        \
  static const char* kelTypeName() { return QualifiedName; }                                \
  KEL_TABLES_(Class, LIST, KEL_INFO_, KEL_ACC_)                                             \
  /* Switches the notifiees of the NOTIFIEES collections (reactors). */                     \
  void kelCollectionsActiveIs([[maybe_unused]] bool kelActive) { LIST(KEL_ACTIVE_) }        \
  auto kelCtorParams() const { return std::tuple_cat(LIST(KEL_TIE_) std::tuple<>()); }      \
  static const char* const* kelCtorParamNames() {                                           \
    static const char* const names[] = {LIST(KEL_PNAME_) nullptr};                          \
    return names;                                                                           \
  }                                                                                         \
                                                                                            \
 protected:                                                                                 \
  template <class... Args>                                                                  \
  void kelInputsIs(Args&&... args) {                                                        \
    std::apply([&](auto&... field) { ((field = std::forward<Args>(args)), ...); },          \
               std::tuple_cat(LIST(KEL_TIE_) std::tuple<>()));                              \
  }                                                                                         \
  template <class F>                                                                        \
  void kelNotify(F&& f) const {                                                             \
    deliver<Notifiee>(f);                                                                   \
  }                                                                                         \
  /* The owner is going away: the reactors it alone holds prepare to die first. */          \
  void kelBeforeDelete() override{LIST(KEL_ZOMBIE_)} LIST(KEL_MEMBER_) public:

#include "fwk/framework/AttributeRows.h"
#include "fwk/framework/GenericAccess.h"
