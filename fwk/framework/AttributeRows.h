// The introspection rows KEL_ENTITY (Attributes.h) expands from a type's attribute list, one
// macro per kind: the declared positions (KEL_ENUM_), the registry's rows (KEL_INFO_: name, kind,
// type and key type names, flags), the generic interface's functions (KEL_ACC_, GenericAccess.h)
// the switch of NOTIFIEES collections (KEL_ACTIVE_) and the teardown of owned reactors when the
// owner goes away (KEL_ZOMBIE_, Reactor.h). Also KEL_TWIN_NAMES, for a template that
// stands for two twin types: the names its twin instance registers and answers to.
#pragma once

#define KEL_ENUM_(kind, name, ...) kelAttr_##name,

// ---- registry rows ----
#define KEL_INFO_(kind, ...) KEL_DISPATCH_(KEL_INFO_, kind, __VA_ARGS__)
#define KEL_FLAG_(bit) ::Kel::KelAttrIntrospectionFlags::bit
#define KEL_ROW_(name, kind, Type, key, flags)                                                  \
  {kelAttrName(#name),        0,    ::Kel::AttributeKind::kind, ::Kel::typeNameOf<Type>(), key, \
   ::Kel::typeKindOf<Type>(), flags},
#define KEL_INFO_SCALAR(name, Cap, Type, ...) KEL_ROW_(name, scalar, Type, nullptr, 0u)
#define KEL_INFO_SIGNAL(name, Cap, Type, ...) KEL_ROW_(name, scalar, Type, nullptr, 0u)
#define KEL_INFO_INPUT(name, Cap, Type) KEL_ROW_(name, scalar, Type, nullptr, 0u)
#define KEL_INFO_POINTER(name, Cap, Type) KEL_ROW_(name, pointer, Type, nullptr, 0u)
#define KEL_INFO_SECONDS(name, Cap, Default) \
  {kelAttrName(#name),                       \
   0,                                        \
   ::Kel::AttributeKind::scalar,             \
   "Kel::Seconds",                           \
   nullptr,                                  \
   ::Kel::TypeKind::value,                   \
   KEL_FLAG_(isIndependentDomain)},
#define KEL_INFO_CHILD(name, Cap, Type) \
  KEL_ROW_(name, child, Type, nullptr, KEL_FLAG_(isInstantiating))
#define KEL_KEYED_FLAGS_ (KEL_FLAG_(isCollection) | KEL_FLAG_(hasInternalIndex))
#define KEL_INFO_CHILDREN(name, Cap, Key, Type)            \
  KEL_ROW_(name, children, Type, ::Kel::typeNameOf<Key>(), \
           KEL_KEYED_FLAGS_ | KEL_FLAG_(isInstantiating))
#define KEL_INFO_ENTRIES(name, Cap, Key, Type)               \
  KEL_ROW_(name, collection, Type, ::Kel::typeNameOf<Key>(), \
           KEL_KEYED_FLAGS_ | KEL_FLAG_(isInstantiating))
#define KEL_INFO_COLLECTION(name, Cap, Key, Value) \
  KEL_ROW_(name, collection, Value, ::Kel::typeNameOf<Key>(), KEL_KEYED_FLAGS_)
#define KEL_INFO_NOTIFIEES(name, Cap, Key, Adapter, Watched)   \
  KEL_ROW_(name, notifiees, Watched, ::Kel::typeNameOf<Key>(), \
           KEL_KEYED_FLAGS_ | KEL_FLAG_(isNotifiee))
#define KEL_INFO_HANDLER(name, Cap)                              \
  {kelAttrName(#name),   0,       ::Kel::AttributeKind::handler, \
   "Kel::Function",      nullptr, ::Kel::TypeKind::value,        \
   KEL_FLAG_(isFunction)},
#define KEL_INFO_ACTION(name, Cap) KEL_INFO_HANDLER(name, Cap)

// ---- the two tables, kelAttributes() and kelAccess(), from the list's rows ----
#define KEL_TABLES_(Class, LIST, INFO, ACC)                           \
  template <class KelSelf = Class>                                    \
  static const std::vector<::Kel::AttributeInfo>& kelAttributes() {   \
    static const std::vector<::Kel::AttributeInfo> table =            \
        ::Kel::attributeTable<KelSelf>({LIST(INFO)});                 \
    return table;                                                     \
  }                                                                   \
  template <class KelSelf = Class>                                    \
  static const std::vector<::Kel::AttrAccess<KelSelf>>& kelAccess() { \
    static const std::vector<::Kel::AttrAccess<KelSelf>> table =      \
        ::Kel::accessTable<KelSelf>({LIST(ACC)});                     \
    return table;                                                     \
  }

// ---- generic interface functions ----
#define KEL_ACC_(kind, ...) KEL_DISPATCH_(KEL_ACC_, kind, __VA_ARGS__)
#define KEL_GET_(name) [](const KelSelf& c) -> decltype(auto) { return c.name(); }
#define KEL_ACC_READ_(name, ...) ::Kel::readAccess<KelSelf>(KEL_GET_(name)),
#define KEL_ACC_SCALAR KEL_ACC_READ_
#define KEL_ACC_SIGNAL KEL_ACC_READ_
#define KEL_ACC_INPUT KEL_ACC_READ_
#define KEL_ACC_POINTER KEL_ACC_READ_
#define KEL_ACC_CHILD KEL_ACC_READ_
#define KEL_ACC_SECONDS(name, Cap, Default) \
  ::Kel::secondsAccess<KelSelf>(            \
      KEL_GET_(name),                       \
      +[](KelSelf& c, std::string_view t) { c.name##Is(::Kel::secondsFromText(#name, t)); }),
#define KEL_COLL_(name) [](const KelSelf& c) -> decltype(auto) { return c.name##Collection(); }
#define KEL_ACC_DELETABLE_(name, Cap, Key, ...)     \
  ::Kel::collectionAccess<KelSelf>(KEL_COLL_(name), \
                                   [](KelSelf& c, const Key& k) { c.name##Del(k); }),
#define KEL_ACC_KEPT_(name, ...) ::Kel::collectionAccess<KelSelf>(KEL_COLL_(name), nullptr),
#define KEL_ACC_COLLECTION KEL_ACC_DELETABLE_
#define KEL_ACC_ENTRIES KEL_ACC_DELETABLE_
#define KEL_ACC_CHILDREN KEL_ACC_KEPT_
#define KEL_ACC_NOTIFIEES KEL_ACC_KEPT_
#define KEL_ACC_HANDLER(...) ::Kel::AttrAccess<KelSelf>{},
#define KEL_ACC_ACTION(name, Cap)                                                     \
  ::Kel::actionAccess<KelSelf>([](KelSelf& c, const std::vector<std::string>& args) { \
    ::Kel::callWithText(c, &KelSelf::name, args);                                     \
  }),

// ---- delivery switch of NOTIFIEES collections ----
#define KEL_ACTIVE_(kind, ...) KEL_DISPATCH_(KEL_ACTIVE_, kind, __VA_ARGS__)
#define KEL_ACTIVE_NOTIFIEES(name, ...) \
  for (auto [k, a] : name##_) a.hasNotificationActiveIs(kelActive);
#define KEL_ACTIVE_SCALAR(...)
#define KEL_ACTIVE_SIGNAL(...)
#define KEL_ACTIVE_SECONDS(...)
#define KEL_ACTIVE_INPUT(...)
#define KEL_ACTIVE_POINTER(...)
#define KEL_ACTIVE_CHILD(...)
#define KEL_ACTIVE_CHILDREN(...)
#define KEL_ACTIVE_ENTRIES(...)
#define KEL_ACTIVE_COLLECTION(...)
#define KEL_ACTIVE_HANDLER(...)
#define KEL_ACTIVE_ACTION(...)

// ---- teardown of owned reactors (kelBeforeDelete) ----
#define KEL_ZOMBIE_(kind, ...) KEL_DISPATCH_(KEL_ZOMBIE_, kind, __VA_ARGS__)
#define KEL_ZOMBIE_CHILD(name, ...) ::Kel::zombieTeardown(name##_);
#define KEL_ZOMBIE_CHILDREN(name, ...) \
  for (auto [k, c] : name##_) ::Kel::zombieTeardown(c);
#define KEL_ZOMBIE_SCALAR(...)
#define KEL_ZOMBIE_SIGNAL(...)
#define KEL_ZOMBIE_SECONDS(...)
#define KEL_ZOMBIE_INPUT(...)
#define KEL_ZOMBIE_POINTER(...)
#define KEL_ZOMBIE_ENTRIES(...)
#define KEL_ZOMBIE_COLLECTION(...)
#define KEL_ZOMBIE_NOTIFIEES(...)
#define KEL_ZOMBIE_HANDLER(...)
#define KEL_ZOMBIE_ACTION(...)

// ---- twin names ----
// KEL_TWIN_NAMES(isTwin, LIST) in a class template that stands for two twins; LIST rows are
// T(KIND, declared, twin). When isTwin holds, the instance registers `twin` in place of
// `declared`, and answers to it in the typed interface too: twin(), and per kind the mutators,
// deleters, iterators and counts of the declared attribute under the twin's name.
#define KEL_TWIN_NAMES(isTwin, LIST)                     \
  using KelTwin = std::bool_constant<(isTwin)>;          \
  static const char* kelAttrName(const char* declared) { \
    if (!(isTwin)) return declared;                      \
    LIST(KEL_TWIN_NAME_)                                 \
    return declared;                                     \
  }                                                      \
  LIST(KEL_TWIN_ALIAS_)
#define KEL_TWIN_NAME_(kind, from, to) \
  if (std::string_view(declared) == #from) return #to;
#define KEL_TWIN_FWD_(to, from)                                   \
  template <class... KelA>                                        \
  decltype(auto) to(KelA&&... a) requires(KelTwin::value) {       \
    return this->from(std::forward<KelA>(a)...);                  \
  }                                                               \
  template <class... KelA>                                        \
  decltype(auto) to(KelA&&... a) const requires(KelTwin::value) { \
    return this->from(std::forward<KelA>(a)...);                  \
  }
#define KEL_TWIN_ALIAS_(kind, from, to) KEL_DISPATCH_(KEL_TWIN_, kind, from, to)
#define KEL_TWIN_INPUT(from, to) KEL_TWIN_FWD_(to, from)
#define KEL_TWIN_HANDLER(from, to) KEL_TWIN_FWD_(to, from)
#define KEL_TWIN_CHILD(from, to) \
  KEL_TWIN_FWD_(to, from) KEL_TWIN_FWD_(to##Is, from##Is) KEL_TWIN_FWD_(to##Del, from##Del)
#define KEL_TWIN_CHILDREN(from, to)           \
  KEL_TWIN_CHILD(from, to)                    \
  KEL_TWIN_FWD_(to##DelAll, from##DelAll)     \
  KEL_TWIN_FWD_(to##Iterator, from##Iterator) \
  KEL_TWIN_FWD_(to##Count, from##Count)
#define KEL_TWIN_NOTIFIEES(from, to) \
  KEL_TWIN_CHILD(from, to)           \
  KEL_TWIN_FWD_(to##Iterator, from##Iterator) KEL_TWIN_FWD_(to##Count, from##Count)

// ---- value types ----
// A value type's introspection, from its list of keyed collections of bool, rows A(name, Cap,
// Key): put KEL_VALUE_TYPE(Class, LIST) in its class body.
#define KEL_VALUE_INFO_(name, Cap, Key) KEL_INFO_COLLECTION(name, Cap, Key, bool)
#define KEL_VALUE_ACC_(name, Cap, Key) KEL_ACC_DELETABLE_(name, Cap, Key)
#define KEL_VALUE_TYPE(Class, LIST)                                         \
  static const char* kelAttrName(const char* declared) { return declared; } \
  KEL_TABLES_(Class, LIST, KEL_VALUE_INFO_, KEL_VALUE_ACC_)
