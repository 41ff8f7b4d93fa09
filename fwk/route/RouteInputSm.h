// RouteInputSm / Route6InputSm: the reactor over one protocol's route input.
//
// Watches the input's routingProto (a change runs handleInitialized again) and its route
// collection, and keeps one KelRoute notifiee per route (the `route` collection, keyed by the
// route's key), which watches that route's vias and tag. Every added, changed or removed route,
// every via change and every tag change queues the route's key once through
// RouteBacklogSm::doAddBacklog; nothing is filtered here, the drain decides what the key means.
// Owns, once initialized, the protocol's daemon gateway (gwp, from gw_init), the two backlogs and
// the backlog reactor. While routingProto is 0 it stays uninitialized: it creates nothing and
// queues nothing; the sweep at the end of handleInitialized catches up on every route.
// Odd but required: each run of handleInitialized asks the daemon for a new gateway without
// releasing the previous one and replaces the backlogs and the backlog reactor.
// Whoever drops an initialized RouteInputSm must first call routeBacklogSm()->doPrepareToDie().
// The IPv6 twin has the same member names (routeBacklog, routeBacklogSm, ...) on Routing6 types.
#pragma once

#include <memory>

#include "fwk/framework/Attributes.h"
#include "fwk/framework/Handles.h"
#include "fwk/model/InterfaceModel.h"
#include "fwk/route/RouteBacklog.h"
#include "fwk/route/RouteBacklogSm.h"
#include "fwk/route/RouteTraits.h"

namespace InterfaceRouteInfo {

template <class Traits>
class RouteInputSmT : public Kel::Reactor {
 public:
  using Key = typename Traits::Key;
  using RouteInput = typename Traits::RouteInput;
  using Route = typename Traits::Route;
  using Via = typename Traits::Via;
  using Backlog = RouteBacklogT<Traits>;
  using Unresolved = UnresolvedRouteBacklogT<Traits>;
  using BacklogSm = RouteBacklogSmT<Traits>;
  using RouteInputPtr = Kel::Ptr<const RouteInput>;
  using DevDirPtr = Kel::Ptr<const Interface::DeviceIntfStatusDir>;
  using ManagerPtr = Kel::Ptr<const Interface::NetNsIntfStatusManager>;
  using GwPtr = gw_entry*;

  // Watches one route: a via change, a whole-via resynchronisation or a tag change queues it.
  // There is one for every route of the input, so it names its reactor by handle, not pointer.
  class KelRoute : public Route::Notifiee {
   public:
    KelRoute(RouteInputSmT* owner, const Kel::Ptr<const Route>& route) {
      this->ownerHandleIs(owner->handle_.value());
      this->notifierIs(route);
    }
    void onVia(const Via&) override { handleVia(); }
    void onViakelImmediate() override { handleVia(); }
    void onTag() override { handleVia(); }
    void handleVia();
    RouteInputSmT* owner() const { return Kel::Handles<RouteInputSmT>::at(this->ownerHandle()); }
  };

  // Watches the route input: the protocol number and the route collection.
  class KelRouteInput : public RouteInput::Notifiee {
   public:
    explicit KelRouteInput(RouteInputSmT* owner) : owner_(owner) {}
    void onRoutingProto() override { owner_->handleInitialized(); }
    void onRoute(const Key& key) override;
    void onRoutekelImmediate() override;
    void onRoutekelAhead(const Key& key) override;
    RouteInputSmT* owner() const { return owner_; }

   private:
    RouteInputSmT* owner_;
  };

#define KEL_ATTRS_RouteInputSm(A)                                      \
  A(INPUT, name, Name, Kel::String8)                                   \
  A(INPUT, routeInput, RouteInput, RouteInputPtr)                      \
  A(INPUT, kernelIntfStatusDir, KernelIntfStatusDir, DevDirPtr)        \
  A(INPUT, intfStatusManager, IntfStatusManager, ManagerPtr)           \
  A(SCALAR, gwp, Gwp, GwPtr, nullptr)                                  \
  A(CHILD, routeBacklog, RouteBacklog, Backlog)                        \
  A(CHILD, unresolvedRouteBacklog, UnresolvedRouteBacklog, Unresolved) \
  A(CHILD, routeBacklogSm, RouteBacklogSm, BacklogSm)                  \
  A(NOTIFIEES, route, Route, Key, KelRoute, Route)                     \
  A(SCALAR, initialized, Initialized, bool, false)                     \
  A(HANDLER, handleInitialized, HandleInitialized)                     \
  A(HANDLER, handleRoute, HandleRoute)
  KEL_ENTITY(RouteInputSmT, Traits::routeInputSmType, KEL_ATTRS_RouteInputSm)
#undef KEL_ATTRS_RouteInputSm
#define KEL_TWINS_RouteInputSm(T)                           \
  T(INPUT, routeInput, route6Input)                         \
  T(CHILD, routeBacklog, route6Backlog)                     \
  T(CHILD, unresolvedRouteBacklog, unresolvedRoute6Backlog) \
  T(CHILD, routeBacklogSm, route6BacklogSm)
  KEL_TWIN_NAMES(Traits::isIp6, KEL_TWINS_RouteInputSm)
#undef KEL_TWINS_RouteInputSm

  RouteInputSmT(const Kel::String8& name, const RouteInputPtr& routeInput,
                const DevDirPtr& kernelIntfStatusDir, const ManagerPtr& intfStatusManager);

  void handleInitialized();
  // Queues every route of the input (a whole-collection sweep).
  void handleRoute();
  // The single point at which a route's key enters the backlog.
  void handleRoute(const Key& key);

 private:
  // Names this reactor to its route adapters, none of which is made before it.
  Kel::Handle<RouteInputSmT> handle_{this};
  // One walk over the input's routes, in order: makes each route's adapter while they are still
  // to be made, then, when `queue`, queues its key (handleRoute(key)).
  void sweep(bool queue);
  // The input's adapters are still to be made (from construction to the first handleInitialized).
  bool adaptersPending_ = false;
  KelRouteInput kelRouteInput_{this};
};

using RouteInputSm = RouteInputSmT<Ip4RouteTraits>;
using Route6InputSm = RouteInputSmT<Ip6RouteTraits>;

extern template class RouteInputSmT<Ip4RouteTraits>;
extern template class RouteInputSmT<Ip6RouteTraits>;

KEL_FACTORY(routeInputSmFactory, RouteInputSm)
KEL_FACTORY(route6InputSmFactory, Route6InputSm)

}  // namespace InterfaceRouteInfo
