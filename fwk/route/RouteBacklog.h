// The route backlogs of one route input (one routing protocol).
//
// RouteBacklog holds the keys of routes whose state the daemon must be brought in line with; a
// key is present at most once (its value is always true), so many changes of one route before a
// drain cost one daemon update. backlogQuantum (seconds of work per drain batch, default 0.08) and
// backlogDelay (seconds from scheduling to draining, default 0.04) are read by RouteBacklogSm and
// never changed by the module itself.
// UnresolvedRouteBacklog holds the keys whose next hop could not be resolved; nothing drains it
// on a timer: only the daemon's address-change callback moves its keys back into RouteBacklog.
// IPv4 and IPv6 are one template; RouteBacklog/Route6Backlog and UnresolvedRouteBacklog/
// UnresolvedRoute6Backlog are its instances. Both are plain entities: whoever holds one may
// change it, and every change notifies (backlogIs/backlogDel with the key).
#pragma once

#include "fwk/framework/Attributes.h"
#include "fwk/route/RouteTraits.h"

namespace InterfaceRouteInfo {

template <class Traits>
class RouteBacklogT : public Kel::ReferencedEntity {
 public:
  using Key = typename Traits::Key;
#define KEL_ATTRS_RouteBacklog(A)                  \
  A(COLLECTION, backlog, Backlog, Key, bool)       \
  A(SECONDS, backlogQuantum, BacklogQuantum, 0.08) \
  A(SECONDS, backlogDelay, BacklogDelay, 0.04)
  KEL_ENTITY(RouteBacklogT, Traits::routeBacklogType, KEL_ATTRS_RouteBacklog)
#undef KEL_ATTRS_RouteBacklog

  explicit RouteBacklogT(Kel::Name name) : Kel::ReferencedEntity(std::move(name)) {}
};

template <class Traits>
class UnresolvedRouteBacklogT : public Kel::ReferencedEntity {
 public:
  using Key = typename Traits::Key;
#define KEL_ATTRS_UnresolvedRouteBacklog(A) A(COLLECTION, backlog, Backlog, Key, bool)
  KEL_ENTITY(UnresolvedRouteBacklogT, Traits::unresolvedRouteBacklogType,
             KEL_ATTRS_UnresolvedRouteBacklog)
#undef KEL_ATTRS_UnresolvedRouteBacklog

  explicit UnresolvedRouteBacklogT(Kel::Name name) : Kel::ReferencedEntity(std::move(name)) {}
};

using RouteBacklog = RouteBacklogT<Ip4RouteTraits>;
using Route6Backlog = RouteBacklogT<Ip6RouteTraits>;
using UnresolvedRouteBacklog = UnresolvedRouteBacklogT<Ip4RouteTraits>;
using UnresolvedRoute6Backlog = UnresolvedRouteBacklogT<Ip6RouteTraits>;

KEL_FACTORY(routeBacklogFactory, RouteBacklog)
KEL_FACTORY(route6BacklogFactory, Route6Backlog)
KEL_FACTORY(unresolvedRouteBacklogFactory, UnresolvedRouteBacklog)
KEL_FACTORY(unresolvedRoute6BacklogFactory, UnresolvedRoute6Backlog)

}  // namespace InterfaceRouteInfo
