#include "fwk/Registration.h"

#include "fwk/framework/GenericAccess.h"

namespace InterfaceRouteInfo {

void kelInitInterfaceRouteInfo() {
  Kel::Registry& r = Kel::registry();
  if (r.nameSpace("InterfaceRouteInfo")) return;
  r.namespaceOpen("InterfaceRouteInfo");
#define IRI_REGISTER_(Type) Kel::registerType<Type>(r);
  IRI_TYPES(IRI_REGISTER_)
#undef IRI_REGISTER_
  r.namespaceClose("InterfaceRouteInfo");
}

Kel::GenericIfPtr moduleObject(const Kel::Ptr<Root>& root) { return Kel::genericIf(root); }

Kel::GenericIfPtr genericIfFromText(std::string_view typeName, std::string_view text) {
  if (typeName == IpAddrSet::kTypeName) return Kel::genericIfFromText<IpAddrSet>(text);
  throw Kel::RangeException(std::string(typeName) + " is no value type of InterfaceRouteInfo");
}

}  // namespace InterfaceRouteInfo
