#include "fwk/framework/Registry.h"

namespace Kel {

const AttributeRecord* TypeRecord::attribute(std::string_view attrName) const {
  for (const AttributeRecord& a : attributes) {
    if (a.name == attrName) return &a;
  }
  return nullptr;
}

NamespaceRecord& Registry::namespaceOpen(const std::string& name) {
  for (NamespaceRecord& n : namespaces_) {
    if (n.name == name) throw RangeException(name + " is registered already");
  }
  open_ = &namespaces_.emplace_back(NamespaceRecord{name, {}, false});
  return *open_;
}

void Registry::namespaceClose(const std::string& name) {
  if (!open_ || open_->name != name) throw RangeException("namespace " + name + " is not open");
  open_->closed = true;
  open_ = nullptr;
}

TypeRecord& Registry::typeOpen(const std::string& name, TypeKind kind, bool reactor) {
  if (!open_) throw RangeException("no namespace is open to register " + name);
  auto it = byName_.find(name);
  TypeRecord* t = nullptr;
  if (it != byName_.end()) {
    // Referred to before by another type's attribute: registering fills that record in.
    if (!it->second->nameSpace.empty()) throw RangeException(name + " is registered already");
    t = it->second;
  } else {
    t = &types_.emplace_back();
    t->name = name;
    byName_.emplace(name, t);
  }
  t->kind = kind;
  t->reactor = reactor;
  t->nameSpace = open_->name;
  open_->types.push_back(t);
  return *t;
}

const AttributeRecord& Registry::attributeAdd(TypeRecord& type, const AttributeInfo& info) {
  if (type.closed) throw RangeException(type.name + " is closed");
  if (type.attribute(info.name)) {
    throw RangeException(type.name + "::" + info.name + " is registered already");
  }
  AttributeRecord a{info.name,
                    static_cast<unsigned>(type.attributes.size()),
                    &typeRef(info.typeName, info.typeKind),
                    info.keyTypeName ? &typeRef(info.keyTypeName, TypeKind::value) : nullptr,
                    info.kind,
                    KelAttrIntrospectionFlags(info.flags)};
  return type.attributes.emplace_back(std::move(a));
}

TypeRecord& Registry::typeDescribe(const std::string& name, TypeKind kind, bool reactor,
                                   bool& isNew) {
  TypeRecord& t = const_cast<TypeRecord&>(typeRef(name, kind));
  isNew = !t.closed;
  if (isNew) {
    t.kind = kind;
    t.reactor = reactor;
  }
  return t;
}

void Registry::typeClose(TypeRecord& type) { type.closed = true; }

const TypeRecord* Registry::type(std::string_view name) const {
  auto it = byName_.find(name);
  return it == byName_.end() ? nullptr : it->second;
}

const TypeRecord& Registry::typeRef(const std::string& name, TypeKind kind) {
  if (const TypeRecord* t = type(name)) return *t;
  TypeRecord& t = types_.emplace_back();
  t.name = name;
  t.kind = kind;
  byName_.emplace(name, &t);
  return t;
}

const NamespaceRecord* Registry::nameSpace(std::string_view name) const {
  for (const NamespaceRecord& n : namespaces_) {
    if (n.name == name) return &n;
  }
  return nullptr;
}

Registry& registry() {
  static Registry r;
  return r;
}

}  // namespace Kel
