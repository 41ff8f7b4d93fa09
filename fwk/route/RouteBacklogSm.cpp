// The route backlog drain: scheduling, time-bounded batches, withdrawal.
#include "fwk/route/RouteBacklogSm.h"

#include <cstdlib>
#include <type_traits>

#include "fwk/ModuleSupport.h"
#include "fwk/framework/Prefetch.h"
#include "fwk/framework/Time.h"

namespace InterfaceRouteInfo {

namespace {
// Set (to any value) to run the backlog machinery without touching the daemon.
constexpr const char* kTestEnvironment = "INTERFACEROUTEINFOSM_TEST";
}  // namespace

template <class Traits>
RouteBacklogSmT<Traits>::RouteBacklogSmT(const ClockPtr& clock, const BacklogPtr& backlog,
                                         const UnresolvedPtr& unresolved,
                                         const RouteInputPtr& routeInput, gw_entry* gwp,
                                         const DevDirPtr& kernelIntfStatusDir,
                                         const ManagerPtr& intfStatusManager)
    : Kel::Reactor(backlog ? backlog->name() : Kel::Name()) {
  kelInputsIs(clock, backlog, unresolved, routeInput, gwp, kernelIntfStatusDir, intfStatusManager);
  kelBacklogClock_.notifierIs(clock);
  kelRouteBacklog_.notifierIs(backlog);
}

template <class Traits>
void RouteBacklogSmT<Traits>::handleInitialized() {
  IRI_SIGNATURE("void ", Traits::routeBacklogSmType, "::handleInitialized()");
  IRI_TRACE_BEGIN();
  kelBacklogClock_.timeMinIs(Kel::endOfTime);
  initializedIs(true);
  scheduleBacklog();
  IRI_TRACE_END();
}

template <class Traits>
void RouteBacklogSmT<Traits>::scheduleBacklog() {
  IRI_SIGNATURE("void ", Traits::routeBacklogSmType, "::scheduleBacklog()");
  IRI_TRACE(8, IRI_FUNCTION_NAME_());
  if (backlogScheduled()) return;
  kelBacklogClock_.timeMinIs(Kel::now() + routeBacklog()->backlogDelay());
  backlogScheduledIs(true);
}

template <class Traits>
void RouteBacklogSmT<Traits>::doAddBacklog(const Key& key) {
  IRI_SIGNATURE("void ", Traits::routeBacklogSmType, "::doAddBacklog(", Traits::keyParam, ")");
  IRI_TRACE(8, IRI_FUNCTION_NAME_() << " key " << key);
  routeBacklog()->backlogIs(key, true);
  if constexpr (Traits::traceAddBacklogEnd) IRI_TRACE_END();
}

// The drain waits mostly on dependent cache misses per key: the backlog's index slot (to take
// the key out), the route collection's slot, its node, and the route itself. The keys to come are
// the backlog's next members in order, so it asks for them ahead: slots 12 keys ahead, the
// route's node 6 keys ahead (its slot fetched meanwhile), the route 2 keys ahead. These
// are hints only: what the drain reads and does is the same. One scout walks the order, one
// member a key as the drain takes the first member out each time; the nearer hints reuse the keys
// it named earlier instead of walking the order again.
template <class Traits>
template <class Keys, class Routes>
void RouteBacklogSmT<Traits>::prefetchAhead(const Keys& keys, const Routes& routes,
                                            Scouts<Keys>& scouts) {
  using S = Scouts<Keys>;
  auto& named = scouts.named[scouts.step % S::kFar];
  named.reset();
  if (const Key* far = scouts.far.step(keys)) {
    named = *far;
    keys.prefetchSlot(*far);
    routes.prefetchSlot(*far);
  }
  if (const Key* near = scouts.namedAgo(S::kFar - S::kNear)) routes.prefetchNode(*near);
  if (const Key* close = scouts.namedAgo(S::kFar - S::kClose)) {
    const auto* route = routes.prefetchNode(*close);
    if (route && route->ptr()) Kel::prefetch(route->ptr());
  }
  ++scouts.step;
}

template <class Traits>
void RouteBacklogSmT<Traits>::handleBacklog() {
  IRI_SIGNATURE("void ", Traits::routeBacklogSmType, "::handleBacklog()");
  Backlog& backlog = *routeBacklog();
  IRI_TRACE(8, IRI_FUNCTION_NAME_() << " backlog size " << backlog.backlogCount());
  kelBacklogClock_.timeMinIs(Kel::endOfTime);
  const double startTime = Kel::now();
  // Always the first member: the key leaves the collection before it is processed, so the walk
  // needs no iterator (and the collection forgets each key at once instead of at the end).
  const auto& keys = backlog.backlogCollection();
  const auto& routes = routeInput()->routeCollection();
  Scouts<std::remove_cvref_t<decltype(keys)>> scouts;
  while (backlog.backlogCount() != 0) {
    // The first member, read without a walk (a walk alive would keep erased members around).
    const Key key = *keys.peek(0);
    prefetchAhead(keys, routes, scouts);
    backlog.backlogDel(key);
    if (!std::getenv(kTestEnvironment)) {
      rt_open(fwk_task);
      if (routeInput()->route(key)) {
        doAddRoute(key, true);
      } else {
        doDeleteRoute(key);
      }
      rt_close(fwk_task, 0, 1, 0);
    }
    if (Kel::now() >= startTime + backlog.backlogQuantum()) break;
  }
  backlogScheduledIs(false);
  if (backlog.backlogCount() != 0) scheduleBacklog();
  backlogCountIs(backlogCount() + 1);
  IRI_TRACE(8, "backlog size " << backlog.backlogCount());
}

template <class Traits>
void RouteBacklogSmT<Traits>::doPrepareToDie() {
  IRI_SIGNATURE("void ", Traits::routeBacklogSmType, "::doPrepareToDie()");
  if (!initialized()) return;
  IRI_TRACE_BEGIN();
  rt_open(fwk_task);
  for (auto [key, route] : routeInput()->routeCollection()) doDeleteRoute(key);
  rt_close(fwk_task, 0, 1, 0);
  gw_free(gwp());
  // It holds nothing in the daemon any more: a second call (a teardown after the owner's own
  // call) does nothing.
  initializedIs(false);
  IRI_TRACE_END();
}

template class RouteBacklogSmT<Ip4RouteTraits>;
template class RouteBacklogSmT<Ip6RouteTraits>;

}  // namespace InterfaceRouteInfo
