// The route input reactor: gateway and backlogs per protocol, one key queued per route change.
#include "fwk/route/RouteInputSm.h"

#include <utility>

#include "fwk/ModuleSupport.h"
#include "fwk/framework/ActivityManager.h"
#include "fwk/framework/Prefetch.h"

namespace InterfaceRouteInfo {

namespace {
// Flags given to gw_init for a protocol's gateway; their meaning is the daemon's.
constexpr flag_t kGatewayFlags = 0x800;
}  // namespace

template <class Traits>
RouteInputSmT<Traits>::RouteInputSmT(const Kel::String8& name, const RouteInputPtr& routeInput,
                                     const DevDirPtr& kernelIntfStatusDir,
                                     const ManagerPtr& intfStatusManager)
    : Kel::Reactor(Kel::Name(name)) {
  kelInputsIs(name, routeInput, kernelIntfStatusDir, intfStatusManager);
  kelRouteInput_.notifierIs(routeInput);
  if (!routeInput) return;
  // The adapters' index is sized once for the whole input. The adapters themselves are made by
  // the first handleInitialized, which the factory runs before it returns: in the walk that
  // queues every key when the input has a protocol (sweep).
  routeReserve(routeInput->routeCount());
  adaptersPending_ = true;
}

// The walks over the input's routes, in order: making the adapters still to be made, queuing
// every key (handleRoute(key)), or both in one walk. Each route costs misses that do not depend
// on the route before it, so the lines of the route kPrefetchAhead further on are asked for early
// and the misses overlap.
template <class Traits>
void RouteInputSmT<Traits>::sweep(bool queue) {
  const bool adapters = std::exchange(adaptersPending_, false);
  const auto* keys = queue ? &routeBacklog()->backlogCollection() : nullptr;
  Kel::forEachAhead(
      routeInput()->routeCollection(),
      [this, adapters, keys](const Key& key, const auto& route) {
        if (adapters) {
          // routeIs reads the route's key, counts a reference in it and registers with it (its
          // first two lines), then finds and fills the key's slot of the adapters' index.
          if (const Route* next = route.ptr()) {
            Kel::prefetch(next);
            Kel::prefetch(reinterpret_cast<const char*>(next) + 64);
          }
          routeCollection().prefetchRun(key);
        }
        if (keys) keys->prefetchRun(key);
      },
      [this, adapters, keys](const Key& key, const auto& route) {
        if (adapters && route) routeIs(route);
        if (keys) handleRoute(key);
      });
}

template <class Traits>
void RouteInputSmT<Traits>::KelRouteInput::onRoute(const Key& key) {
  if (auto r = owner_->routeInput()->route(key)) {
    owner_->routeIs(r);
  } else {
    owner_->routeDel(key);
  }
  owner_->handleRoute(key);
}

// Only a withdraw-all names keys ahead, each a few deletions early: onRoute will then find the
// key's adapter slot and its place in the backlog, so those lines are asked for now. Every key
// still in the input is about to be queued, so the backlog's index is sized for all of them at
// the first hint (at most twice what it needs, when keys are queued already) instead of doubling
// some twenty times inside the call; later hints find it large enough.
template <class Traits>
void RouteInputSmT<Traits>::KelRouteInput::onRoutekelAhead(const Key& key) {
  owner_->routeCollection().prefetchSlot(key);
  if (!owner_->initialized()) return;
  auto* backlog = owner_->routeBacklog().ptr();
  backlog->backlogReserve(backlog->backlogCount() + owner_->routeInput()->routeCount());
  backlog->backlogCollection().prefetchRun(key);
}

template <class Traits>
void RouteInputSmT<Traits>::KelRouteInput::onRoutekelImmediate() {
  const RouteInput& input = *owner_->routeInput();
  for (auto it = owner_->routeIterator(); it; ++it) {
    const Key key = it.key();
    if (!input.route(key)) owner_->routeDel(key);
  }
  for (auto [key, route] : input.routeCollection()) {
    if (route) owner_->routeIs(route);
  }
  owner_->handleRoute();
}

// A route adapter is its base and nothing more: a million of them are a million nodes.
static_assert(sizeof(RouteInputSm::KelRoute) == sizeof(Kel::NotifieeBase));

template <class Traits>
void RouteInputSmT<Traits>::KelRoute::handleVia() {
  IRI_SIGNATURE("void ", Traits::routeInputSmType, "::KelRoute::handleVia()");
  IRI_TRACE_BEGIN();
  this->owner()->handleRoute(this->watched()->key());
  IRI_TRACE_END();
}

template <class Traits>
void RouteInputSmT<Traits>::handleInitialized() {
  IRI_SIGNATURE("void ", Traits::routeInputSmType, "::handleInitialized()");
  IRI_TRACE_BEGIN();
  const auto proto = routeInput()->routingProto();
  if (proto == 0) {
    if (adaptersPending_) sweep(false);
    return;
  }
  IRI_TRACE(0, "Intitiating gateway for protocol " << Traits::gatewayName(name(), *routeInput()));
  gwpIs(gw_init(nullptr, proto, fwk_task, 0, 0, nullptr, kGatewayFlags));
  routeBacklogIs(Kel::Name(name()));
  unresolvedRouteBacklogIs(Kel::Name(name()));
  routeBacklogSmIs(Kel::activityManager()->clock(), routeBacklog(), unresolvedRouteBacklog(),
                   routeInput(), gwp(), kernelIntfStatusDir(), intfStatusManager());
  initializedIs(true);
  handleRoute();
  IRI_TRACE_END();
}

template <class Traits>
void RouteInputSmT<Traits>::handleRoute() {
  IRI_SIGNATURE("void ", Traits::routeInputSmType, "::handleRoute()");
  IRI_TRACE(8, IRI_FUNCTION_NAME_());
  if (!initialized()) {
    if constexpr (Traits::traceUninitializedSweep) IRI_TRACE(9, "uninitialized");
    return;
  }
  // Every key of the input is about to enter the backlog: size its index once, instead of
  // doubling it (and moving every slot) about twenty times inside this one call.
  routeBacklog()->backlogReserve(routeBacklog()->backlogCount() + routeInput()->routeCount());
  sweep(true);
}

template <class Traits>
void RouteInputSmT<Traits>::handleRoute(const Key& key) {
  IRI_SIGNATURE("void ", Traits::routeInputSmType, "::handleRoute(", Traits::keyParam, ")");
  IRI_TRACE(8, IRI_FUNCTION_NAME_() << "RouteKey " << key);
  if (!initialized()) {
    IRI_TRACE(8, IRI_FUNCTION_NAME_() << " uninitialized");
    return;
  }
  IRI_TRACE(8, IRI_FUNCTION_NAME_() << " add " << key << " to backlog");
  routeBacklogSm()->doAddBacklog(key);
  IRI_TRACE_END();
}

template class RouteInputSmT<Ip4RouteTraits>;
template class RouteInputSmT<Ip6RouteTraits>;

}  // namespace InterfaceRouteInfo
