// The route input directory reactor: one route input reactor per protocol name.
#include "fwk/route/RouteInputDirSm.h"

#include "fwk/ModuleSupport.h"

namespace InterfaceRouteInfo {

template <class Traits>
RouteInputDirSmT<Traits>::RouteInputDirSmT(const DirPtr& routeInputDir,
                                           const DevDirPtr& kernelIntfStatusDir,
                                           const ManagerPtr& intfStatusManager)
    : Kel::Reactor(routeInputDir ? routeInputDir->name() : Kel::Name()) {
  kelInputsIs(routeInputDir, kernelIntfStatusDir, intfStatusManager);
  kelRouteInputDir_.notifierIs(routeInputDir);
}

template <class Traits>
void RouteInputDirSmT<Traits>::handleInitialized() {
  IRI_SIGNATURE("void ", Traits::routeInputDirSmType, "::handleInitialized()");
  IRI_TRACE_BEGIN();
  initializedIs(true);
  handleRouteInputDir();
  IRI_TRACE_END();
}

template <class Traits>
void RouteInputDirSmT<Traits>::handleRouteInputDir() {
  IRI_SIGNATURE("void ", Traits::routeInputDirSmType, "::", Traits::handleInputDir, "()");
  IRI_TRACE(8, IRI_FUNCTION_NAME_());
  for (auto [name, entity] : routeInputDir()->entityPtrCollection()) handleRouteInputDir(name);
}

template <class Traits>
void RouteInputDirSmT<Traits>::handleRouteInputDir(const Kel::Name& name) {
  IRI_SIGNATURE("void ", Traits::routeInputDirSmType, "::", Traits::handleInputDir, "(Kel::Name)");
  if constexpr (Traits::traceDirEntryName) {
    IRI_TRACE(8, IRI_FUNCTION_NAME_() << " name " << name);
  } else {
    IRI_TRACE(8, IRI_FUNCTION_NAME_());
  }
  const Kel::EntityPtr entity = routeInputDir()->entityPtr(name);
  const Kel::Ptr<InputSm> existing = routeInputSm(name);
  if (entity && !existing) {
    IRI_TRACE(0, Traits::instantiatingInputSm << name);
    // An entity of another type under the name is not a route input: no reactor for it.
    const auto routeInput = Kel::ptr_cast<const RouteInput>(entity);
    if (!routeInput) return;
    routeInputSmIs(name, routeInput, kernelIntfStatusDir(), intfStatusManager());
    return;
  }
  if (!existing) return;
  IRI_TRACE(0, Traits::deletingInputSm << name);
  if (existing->initialized()) existing->routeBacklogSm()->doPrepareToDie();
  routeInputSmDel(name);
}

template <class Traits>
void RouteInputDirSmT<Traits>::doPrepareToDie() {
  IRI_SIGNATURE("void ", Traits::routeInputDirSmType, "::doPrepareToDie()");
  IRI_TRACE_BEGIN();
  for (auto [name, entity] : routeInputDir()->entityPtrCollection()) {
    const Kel::Ptr<InputSm> sm = routeInputSm(name);
    if (!sm) continue;
    if (sm->routeBacklogSm()) sm->routeBacklogSm()->doPrepareToDie();
    routeInputSmDel(name);
  }
  IRI_TRACE_END();
}

template class RouteInputDirSmT<Ip4RouteTraits>;
template class RouteInputDirSmT<Ip6RouteTraits>;

}  // namespace InterfaceRouteInfo
