// The introspection registry: namespaces, types and their attributes, by name.
//
// A library registers its types once per process, before any object of them is reached by name:
// namespaceOpen, then per type typeOpen, attributeAdd in declaration order, typeClose, and finally
// namespaceClose. Registering a type name twice raises Kel::RangeException "<Type> is registered
// already". Types of other libraries that attributes refer to are looked up with typeRef, which
// records a name it does not know yet under that library (outside any namespace being
// registered), so every attribute has a type record. Records never move or die: pointers to them
// stay valid for the life of the process.
// Attribute records carry a small id, their position in the type's list (unique within the type),
// and six introspection flag bits (KelAttrIntrospectionFlags).
#pragma once

#include <deque>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "fwk/framework/Entity.h"
#include "fwk/framework/Exception.h"

namespace Kel {

// Six bits describing an attribute; a value above 0x3f raises Kel::RangeException
// "KelAttrIntrospectionFlags::value > 0x3f not allowed".
class KelAttrIntrospectionFlags {
 public:
  static constexpr unsigned isFunction = 0x01;           // an operation, not stored data
  static constexpr unsigned hasInternalIndex = 0x02;     // a keyed collection with its own index
  static constexpr unsigned isIndependentDomain = 0x04;  // set by tools, never by the module
  static constexpr unsigned isInstantiating = 0x08;      // made by its owner (children, entries)
  static constexpr unsigned isCollection = 0x10;
  static constexpr unsigned isNotifiee = 0x20;  // members are notifiees of other entities

  KelAttrIntrospectionFlags() = default;
  explicit KelAttrIntrospectionFlags(unsigned value) : value_(value) {
    if (value > 0x3f) throw RangeException("KelAttrIntrospectionFlags::value > 0x3f not allowed");
  }
  unsigned value() const { return value_; }
  bool has(unsigned bit) const { return (value_ & bit) != 0; }
  friend bool operator==(KelAttrIntrospectionFlags, KelAttrIntrospectionFlags) = default;

 private:
  unsigned value_ = 0;
};

struct TypeRecord;

struct AttributeRecord {
  std::string name;
  unsigned id;
  const TypeRecord* type;
  const TypeRecord* keyType;  // null unless a keyed collection
  AttributeKind kind;
  KelAttrIntrospectionFlags flags;
};

struct TypeRecord {
  std::string name;  // qualified, "InterfaceRouteInfo::Root"
  TypeKind kind;
  bool reactor = false;
  std::string nameSpace;  // empty for a type only referred to
  std::vector<AttributeRecord> attributes;
  bool closed = false;

  // The attribute of that name, or null.
  const AttributeRecord* attribute(std::string_view attrName) const;
};

struct NamespaceRecord {
  std::string name;
  std::vector<const TypeRecord*> types;  // in registration order
  bool closed = false;
};

class Registry {
 public:
  NamespaceRecord& namespaceOpen(const std::string& name);
  void namespaceClose(const std::string& name);
  TypeRecord& typeOpen(const std::string& name, TypeKind kind, bool reactor);
  const AttributeRecord& attributeAdd(TypeRecord& type, const AttributeInfo& info);
  void typeClose(TypeRecord& type);

  // Describes a type of another library on first use by name (outside any namespace): the same
  // record typeRef made, filled in once; later calls return it as it is.
  TypeRecord& typeDescribe(const std::string& name, TypeKind kind, bool reactor, bool& isNew);

  // The type of that name, or null.
  const TypeRecord* type(std::string_view name) const;
  // The type of that name, recorded as another library's when unknown.
  const TypeRecord& typeRef(const std::string& name, TypeKind kind);
  // The namespace of that name, or null.
  const NamespaceRecord* nameSpace(std::string_view name) const;

 private:
  std::deque<TypeRecord> types_;
  std::deque<NamespaceRecord> namespaces_;
  std::map<std::string, TypeRecord*, std::less<>> byName_;
  NamespaceRecord* open_ = nullptr;
};

// The process's registry.
Registry& registry();

}  // namespace Kel
