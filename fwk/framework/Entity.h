// Kel::Entity: a named, reference-counted object with typed attributes and a list of notifiees.
// Entity types declare their attributes once, in a list macro, and KEL_ENTITY (Attributes.h)
// generates from it the storage, accessors, mutators, deleters, the nested Notifiee with one
// callback per attribute, and the attribute table used for introspection. Entities are always
// owned by Kel::Ptr; Entity::liveCount() counts the entities alive in the process, so tests can
// show that a teardown released everything.
#pragma once

#include <cstddef>
#include <string>
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
  const Name& name() const { return name_; }
  // Kept by the framework for the state database's lifecycle; the module's logic ignores it. A
  // change is reported to the notifiees as LifeEvent::isNondestructing.
  bool isNondestructing() const { return isNondestructing_; }
  void isNondestructingIs(bool v) {
    if (v == isNondestructing_) return;
    isNondestructing_ = v;
    kelLifeEventIs(LifeEvent::isNondestructing);
  }
  // The registered name of a declared attribute; a twin type that registers other names than
  // it declares hides this (KEL_TWIN_NAMES, Attributes.h).
  static const char* kelAttrName(const char* declared) { return declared; }

  static long liveCount() { return live_; }

 protected:
  explicit Entity(Name name) : name_(std::move(name)) { ++live_; }
  void kelLifeEventIs(LifeEvent e) const {
    deliver<NotifieeBase>([e](NotifieeBase& n) { n.kelLifeEvent(e); });
  }
  ~Entity() override { --live_; }

 private:
  Name name_;
  bool isNondestructing_ = false;
  static inline long live_ = 0;
};

}  // namespace Kel
