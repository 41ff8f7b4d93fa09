// The generic attribute interface: any registered object reached, read, changed and iterated by
// attribute name, without compiling against its type.
//
// A GenericIf stands for one object (an entity, held by strong pointer, or a copy of a value) and
// answers through its type's record in the registry. Attribute ids are those of the record.
//   attributeOp(read, id)        the attribute's text (the value's text form; an entity by name,
//                                "None" when null; a collection as its member count)
//   attributeOp(set, id, text)   parses text as the attribute's type and sets it through the typed
//                                mutator (which notifies as usual); only for settable attributes
//   object(id)                   the entity an attribute holds or points to (null when none)
//   iterator(id)                 the members of a collection, in its order (plain form)
//   iterator(id, key)            the same, positioned at the member with that key text (keyed
//                                form; a null iterator when there is none)
//   call(id, args)               runs a callable operation with its arguments given as text
//   genericIfListConstructor(v)  a new value of a value type from its attributes' texts
// Errors are Kel::RangeException with a text naming the attribute: an unknown name, reading an
// operation, setting what is not settable, a text that does not parse (the parsers' own texts,
// "junk at column %lld deserializing %s" for leftover text), a wrong number of arguments. A call
// that throws has changed nothing.
// An object reached through a pointer to a const entity (an input) is read-only: set and call
// raise "<Type> is read-only here".
// notifieeNew() makes a generic notifiee watching the entity (GenericNotifiee below); watching is
// reading, so read-only objects can be watched too.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "fwk/framework/Registry.h"

namespace Kel {

enum class AttributeOp { read, set };

class GenericIf;
using GenericIfPtr = std::unique_ptr<GenericIf>;

// A notifiee of one entity, driven by attribute names: the type-erased face of the generic
// adapter GenericIf_Adapter_<T> (GenericIfAdapter.h), which says when callbacks run. Besides the
// declared attributes, the framework rows "isNondestructing" and (for referenced entities)
// "zeroReferencesIs" are reported when the entity's life ends that way.
class GenericNotifiee {
 public:
  using Callback = std::function<void()>;
  virtual ~GenericNotifiee() = default;

  virtual const TypeRecord& type() const = 0;
  // Raises "<Type> has no attribute '<name>'" for an unknown name.
  virtual void onAttributeIs(std::string_view name, Callback callback) = 0;
  virtual void onNotificationExceptionIs(std::function<void(unsigned)> f) = 0;
  // Ids changed and not handled yet, in the order of their first change.
  virtual const std::vector<unsigned>& pending() const = 0;
  virtual void handleNotification() = 0;
  // Watches another entity of the same type, or nothing (null); what was pending is dropped.
  // Raises "<Type> notifiee cannot watch <Other>" for an object of another type.
  virtual void notifierIs(const GenericIf* object) = 0;
};
using GenericNotifieePtr = std::unique_ptr<GenericNotifiee>;

// A walk over one collection attribute. Holds its object alive; a deleted member (deleteCurrent,
// or any removal meanwhile) never invalidates it.
class GenericIterator {
 public:
  virtual ~GenericIterator() = default;
  virtual bool isNull() const = 0;
  virtual void advance() = 0;
  virtual std::string key() const = 0;
  // The member's text (a value's text form, an entity's name).
  virtual std::string value() const = 0;
  // The member as an object, when it is an entity (null otherwise).
  virtual GenericIfPtr object() const = 0;
  // Removes the current member through the collection's typed deleter (which notifies).
  virtual void deleteCurrent() = 0;
};

class GenericIf {
 public:
  virtual ~GenericIf() = default;

  virtual const TypeRecord& type() const = 0;
  // The entity's name, or the value's text.
  virtual std::string strRep() const = 0;
  virtual GenericIfPtr clone() const = 0;

  // The id of the attribute named `name`; raises "<Type> has no attribute '<name>'".
  unsigned attributeId(std::string_view name) const;
  const AttributeRecord& attribute(unsigned id) const;
  std::string attributeString(unsigned id) { return attributeOp(AttributeOp::read, id); }

  virtual std::string attributeOp(AttributeOp op, unsigned id, std::string_view text = {}) = 0;
  virtual GenericIfPtr object(unsigned id) const = 0;
  virtual std::unique_ptr<GenericIterator> iterator(unsigned id) const = 0;
  virtual std::unique_ptr<GenericIterator> iterator(unsigned id, std::string_view key) const = 0;
  virtual void call(unsigned id, const std::vector<std::string>& args) = 0;
  // A new value of this value type built from a generic list: one text per declared attribute,
  // in declaration order, each in the value grammar's attribute syntax ("None", or a collection
  // such as "{'10.0.0.1/24': True}"). Raises "<Type> is not a value type" for an entity type,
  // "<Type> takes N attribute values, M given", or the type's own parse errors.
  virtual GenericIfPtr genericIfListConstructor(const std::vector<std::string>& values) const = 0;

  // A generic notifiee watching this entity; a value raises "<Type> is a value: nothing to
  // watch".
  virtual GenericNotifieePtr notifieeNew() const = 0;
  // Notifiee operations of reactors (others raise "<Type> is not a reactor").
  virtual void hasNotificationActiveIs(bool active) = 0;
  virtual void kelDoZombieReactors(bool doIt) = 0;
};

}  // namespace Kel
