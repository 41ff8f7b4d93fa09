// The registered name of an attribute's type, for the introspection registry.
//
// typeNameOf<T>() is, in this order: T::kelTypeName() (every KEL_ENTITY type), T::kTypeName (value
// types that name themselves), or Kel::TypeName<T>::value, which the framework specialises for its
// built-in scalars and each library for its value types, next to the type. Pointers to entities
// (Kel::Ptr, const or not) name the entity's type. A type with none of these does not compile
// where its name is first needed, so no attribute is ever registered with an unknown type.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <type_traits>

#include "fwk/framework/Name.h"
#include "fwk/framework/Ptr.h"

namespace Kel {

template <class T>
struct TypeName;

#define KEL_TYPE_NAME(Type, Text)              \
  template <>                                  \
  struct Kel::TypeName<Type> {                 \
    static constexpr const char* value = Text; \
  };

template <class T>
const char* typeNameOf();

namespace detail {
template <class T>
struct TypeNameOf {
  static const char* get() {
    if constexpr (requires { T::kelTypeName(); }) {
      return T::kelTypeName();
    } else if constexpr (requires { T::kTypeName; }) {
      return T::kTypeName;
    } else {
      return TypeName<T>::value;
    }
  }
};
template <class T>
struct TypeNameOf<Ptr<T>> {
  static const char* get() { return typeNameOf<std::remove_const_t<T>>(); }
};
template <class T>
struct TypeNameOf<std::unique_ptr<T>> {
  static const char* get() { return typeNameOf<std::remove_const_t<T>>(); }
};
}  // namespace detail

template <class T>
const char* typeNameOf() {
  return detail::TypeNameOf<std::remove_cvref_t<T>>::get();
}

}  // namespace Kel

KEL_TYPE_NAME(bool, "Kel::Bool")
KEL_TYPE_NAME(double, "Kel::Double")
KEL_TYPE_NAME(std::uint8_t, "Kel::U8")
KEL_TYPE_NAME(std::uint16_t, "Kel::U16")
KEL_TYPE_NAME(std::uint32_t, "Kel::U32")
KEL_TYPE_NAME(std::string, "Kel::String8")
KEL_TYPE_NAME(Kel::Name, "Kel::Name")
