// Registration of the module's types for the generic attribute interface.
//
// kelInitInterfaceRouteInfo() registers, once per process (later calls do nothing), the namespace
// "InterfaceRouteInfo" and each of the module's types, in the order of IRI_TYPES, with its
// attributes in declaration order (the framework's rows first), their ids and introspection
// flags; types of other libraries that attributes refer to are looked up, not registered. Call
// it before reaching any object by name.
// moduleObject(root) is the generic interface of a Root (the starting point of a path);
// genericIfFromText(typeName, text) parses a value of a registered value type (IpAddrSet).
#pragma once

#include <string>
#include <string_view>

#include "fwk/IpAddrSet.h"
#include "fwk/Root.h"
#include "fwk/framework/GenericIf.h"

// The module's registered types, in registration order: T(Type).
#define IRI_TYPES(T)                                                                             \
  T(IpAddrSet)                                                                                   \
  T(IntfBackLogEntry)                                                                            \
  T(IntfBacklog)                                                                                 \
  T(RouteBacklog)                                                                                \
  T(Route6Backlog) T(UnresolvedRouteBacklog) T(UnresolvedRoute6Backlog) T(Root) T(IntfBacklogSm) \
      T(IntfStatusSm) T(IpIntfStatusSm) T(Ip6IntfStatusSm) T(VrfIpIntfStatusSm)                  \
          T(VrfIp6IntfStatusSm) T(RouteBacklogSm) T(Route6BacklogSm) T(RouteInputSm)             \
              T(Route6InputSm) T(RouteInputDirSm) T(Route6InputDirSm) T(RoutingConfigSm)         \
                  T(Routing6ConfigSm) T(LoopbackSm)

namespace InterfaceRouteInfo {

void kelInitInterfaceRouteInfo();

Kel::GenericIfPtr moduleObject(const Kel::Ptr<Root>& root);

// Raises Kel::RangeException when typeName is no registered value type of the module, or the text
// does not parse.
Kel::GenericIfPtr genericIfFromText(std::string_view typeName, std::string_view text);

}  // namespace InterfaceRouteInfo
