// RoutingConfigSm / Routing6ConfigSm: keeps the route input directory reactor of a routing
// configuration.
//
// Watches the configuration's routeInputDir. A set directory with a non-empty name gets a
// RouteInputDirSm (a new one each time the directory changes); a directory that goes away leaves
// the existing directory reactor and its route input reactors in place, deliberately: only a new
// non-empty directory replaces it. The root makes one per VRF for IPv4 and, in the VRF "default",
// one for IPv6; both keep the handler name handleRouteInputDir.
#pragma once

#include "fwk/framework/Attributes.h"
#include "fwk/model/InterfaceModel.h"
#include "fwk/route/RouteInputDirSm.h"
#include "fwk/route/RouteTraits.h"

namespace InterfaceRouteInfo {

template <class Traits>
class RoutingConfigSmT : public Kel::Reactor {
 public:
  using Config = typename Traits::Config;
  using DirSm = RouteInputDirSmT<Traits>;
  using ConfigPtr = Kel::Ptr<const Config>;
  using DevDirPtr = Kel::Ptr<const Interface::DeviceIntfStatusDir>;
  using ManagerPtr = Kel::Ptr<const Interface::NetNsIntfStatusManager>;

  class KelRoutingConfig : public Config::Notifiee {
   public:
    explicit KelRoutingConfig(RoutingConfigSmT* owner) : owner_(owner) {}
    void onRouteInputDir() override { owner_->handleRouteInputDir(); }
    RoutingConfigSmT* owner() const { return owner_; }

   private:
    RoutingConfigSmT* owner_;
  };

#define KEL_ATTRS_RoutingConfigSm(A)                            \
  A(INPUT, routingConfig, RoutingConfig, ConfigPtr)             \
  A(INPUT, kernelIntfStatusDir, KernelIntfStatusDir, DevDirPtr) \
  A(INPUT, intfStatusManager, IntfStatusManager, ManagerPtr)    \
  A(CHILD, routeInputDirSm, RouteInputDirSm, DirSm)             \
  A(SCALAR, initialized, Initialized, bool, false)              \
  A(HANDLER, handleInitialized, HandleInitialized)              \
  A(HANDLER, handleRouteInputDir, HandleRouteInputDir)
  KEL_ENTITY(RoutingConfigSmT, Traits::routingConfigSmType, KEL_ATTRS_RoutingConfigSm)
#undef KEL_ATTRS_RoutingConfigSm
#define KEL_TWINS_RoutingConfigSm(T)      \
  T(INPUT, routingConfig, routing6Config) \
  T(CHILD, routeInputDirSm, route6InputDirSm)
  KEL_TWIN_NAMES(Traits::isIp6, KEL_TWINS_RoutingConfigSm)
#undef KEL_TWINS_RoutingConfigSm

  RoutingConfigSmT(const ConfigPtr& routingConfig, const DevDirPtr& kernelIntfStatusDir,
                   const ManagerPtr& intfStatusManager);

  void handleInitialized();
  void handleRouteInputDir();

 private:
  KelRoutingConfig kelRoutingConfig_{this};
};

using RoutingConfigSm = RoutingConfigSmT<Ip4RouteTraits>;
using Routing6ConfigSm = RoutingConfigSmT<Ip6RouteTraits>;

extern template class RoutingConfigSmT<Ip4RouteTraits>;
extern template class RoutingConfigSmT<Ip6RouteTraits>;

KEL_FACTORY(routingConfigSmFactory, RoutingConfigSm)
KEL_FACTORY(routing6ConfigSmFactory, Routing6ConfigSm)

}  // namespace InterfaceRouteInfo
