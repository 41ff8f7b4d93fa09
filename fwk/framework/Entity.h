// Kel::Entity: a named, reference-counted object with typed attributes and a list of notifiees.
// Entity types declare their attributes once, in a list macro, and KEL_ENTITY (Attributes.h)
// generates from it the storage, accessors, mutators, deleters, the nested Notifiee with one
// callback per attribute, and the attribute table used for introspection. Entities are always
// owned by Kel::Ptr; Entity::liveCount() counts the entities alive in the process, so tests can
// show that a teardown released everything.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "fwk/framework/Name.h"
#include "fwk/framework/Notifiee.h"
#include "fwk/framework/Ptr.h"

namespace Kel {

enum class AttributeKind { scalar, pointer, child, collection, children, notifiees, handler };
enum class TypeKind { value, entity };

// One row of a type's attribute table, generated from its declaration (Attributes.h): the name
// (as registered), the id (its position in the table), the kind, the names of its type and, for
// a keyed collection, of its key (null otherwise), whether its type is a value or an entity, and
// the introspection flag bits (Registry.h).
struct AttributeInfo {
  const char* name;
  unsigned id;
  AttributeKind kind;
  const char* typeName;
  const char* keyTypeName;
  TypeKind typeKind;
  unsigned flags;
};

class Entity : public PtrInterface, public NotifierBase {
 public:
  // Its name: the text it was made with or, for an entity named by its key (made with
  // kNamedByKey: routes, interface and VRF status entries), its key's text, made when asked.
  Name name() const { return (kelSpare_ & kHasText) ? Name(texts().at(this)) : kelKeyName(); }
  // Kept by the framework for the state database's lifecycle; the module's logic ignores it. A
  // change is reported to the notifiees as LifeEvent::isNondestructing.
  bool isNondestructing() const { return (kelSpare_ & kNondestructing) != 0; }
  void isNondestructingIs(bool v) {
    if (v == isNondestructing()) return;
    kelSpare_ ^= kNondestructing;
    kelLifeEventIs(LifeEvent::isNondestructing);
  }
  // The registered name of a declared attribute; a twin type that registers other names than
  // it declares hides this (KEL_TWIN_NAMES, Attributes.h).
  static const char* kelAttrName(const char* declared) { return declared; }

  static long liveCount() { return live_; }

 protected:
  explicit Entity(Name name) {
    ++live_;
    if (name.empty()) return;
    texts().emplace(this, name.string());
    kelSpare_ |= kHasText;
  }
  enum NamedByKey { kNamedByKey };
  explicit Entity(NamedByKey) { ++live_; }
  // The name of an entity made with kNamedByKey; such a type overrides it (KEL_NAMED_BY_KEY).
  virtual Name kelKeyName() const { return Name(); }
  void kelLifeEventIs(LifeEvent e) const {
    deliver<NotifieeBase>([e](NotifieeBase& n) { n.kelLifeEvent(e); });
  }
  ~Entity() override {
    --live_;
    if (kelSpare_ & kHasText) texts().erase(this);
  }

 private:
  // The bits of the byte PtrInterface spares.
  static constexpr std::uint8_t kNondestructing = 1;
  static constexpr std::uint8_t kHasText = 2;  // its name is in texts()
  // The names of the entities named by a text (reactors, inputs, directories: a few hundred),
  // apart from the entities, so that the million named by their keys carry no pointer for one.
  // Never destroyed: an entity may outlive static destruction.
  static std::unordered_map<const Entity*, std::string>& texts() {
    static auto* t = new std::unordered_map<const Entity*, std::string>;
    return *t;
  }
  static inline long live_ = 0;
};
// Three words (the vtable, the count with its spare byte, the notifiee list): a million routes
// each pay for every word here.
static_assert(sizeof(Entity) == 3 * sizeof(void*));

}  // namespace Kel

// In an entity type made with Entity(kNamedByKey): its name is the text of its key().
#define KEL_NAMED_BY_KEY                                                            \
 protected:                                                                         \
  ::Kel::Name kelKeyName() const override { return ::Kel::Name(key().toString()); } \
                                                                                    \
 public:
