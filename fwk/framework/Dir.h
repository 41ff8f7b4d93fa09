// Kel::Dir: a directory of named entities of any type, such as the route input directory in which
// each routing protocol publishes its route input under the protocol's name. Members are looked up
// by name and cast to their type by the reader (Kel::ptr_cast, which yields null on a wrong type).
#pragma once

#include "fwk/framework/Attributes.h"

namespace Kel {

using EntityPtr = Ptr<Entity>;

class Dir : public Entity {
 public:
#define KEL_ATTRS_Dir(A) A(COLLECTION, entityPtr, EntityPtr, ::Kel::Name, ::Kel::EntityPtr)
  KEL_ENTITY(Dir, "Kel::Dir", KEL_ATTRS_Dir)

  explicit Dir(Name name) : Entity(std::move(name)) {}
};

}  // namespace Kel
