// The routing configuration reactor: one directory reactor per non-empty route input directory.
#include "fwk/route/RoutingConfigSm.h"

#include "fwk/ModuleSupport.h"

namespace InterfaceRouteInfo {

template <class Traits>
RoutingConfigSmT<Traits>::RoutingConfigSmT(const ConfigPtr& routingConfig,
                                           const DevDirPtr& kernelIntfStatusDir,
                                           const ManagerPtr& intfStatusManager)
    : Kel::Reactor(routingConfig ? routingConfig->name() : Kel::Name()) {
  kelInputsIs(routingConfig, kernelIntfStatusDir, intfStatusManager);
  kelRoutingConfig_.notifierIs(routingConfig);
}

template <class Traits>
void RoutingConfigSmT<Traits>::handleInitialized() {
  IRI_SIGNATURE("void ", Traits::routingConfigSmType, "::handleInitialized()");
  IRI_TRACE_BEGIN();
  handleRouteInputDir();
  initializedIs(true);
  IRI_TRACE_END();
}

template <class Traits>
void RoutingConfigSmT<Traits>::handleRouteInputDir() {
  IRI_SIGNATURE("void ", Traits::routingConfigSmType, "::handleRouteInputDir()");
  IRI_TRACE_BEGIN();
  const Kel::Ptr<const Kel::Dir>& dir = routingConfig()->routeInputDir();
  if (dir && !dir->name().empty()) {
    routeInputDirSmIs(dir, kernelIntfStatusDir(), intfStatusManager());
  }
  IRI_TRACE_END();
}

template class RoutingConfigSmT<Ip4RouteTraits>;
template class RoutingConfigSmT<Ip6RouteTraits>;

}  // namespace InterfaceRouteInfo
