// RouteBacklogSm / Route6BacklogSm: drains one protocol's route backlog into the daemon.
//
// Keys arrive through doAddBacklog (one per changed route); the backlog's notification arms the
// clock for now + backlogDelay (scheduleBacklog). When the clock fires, handleBacklog takes keys
// out of the backlog one at a time, each in its own rt_open/rt_close bracket, and decides by
// looking the route up again: present means doAddRoute(key, true), absent doDeleteRoute(key). It
// stops once backlogQuantum seconds have passed (checked after each key, so a batch always
// processes one key and may overrun by its last), then re-arms the clock if keys are left.
// With the environment variable INTERFACEROUTEINFOSM_TEST set, keys are consumed without
// touching the daemon (read for every key).
// Invariants: backlogScheduled is true exactly while the clock is armed by scheduleBacklog; a
// non-empty backlog always has a drain scheduled once handleInitialized has run; a key leaves the
// backlog before it is processed and is never re-queued by the drain itself.
// Owns `gwp` (the protocol's daemon gateway) from creation; doPrepareToDie deletes the protocol's
// routes and frees it, and must be called before the reactor is dropped if it was initialized.
// Callers must not call doAddRoute / doDeleteRoute outside an rt_open/rt_close bracket.
#pragma once

#include <array>
#include <cstddef>
#include <optional>

#include "fwk/daemon/corvd.h"
#include "fwk/framework/ActivityManager.h"
#include "fwk/framework/Attributes.h"
#include "fwk/framework/Clock.h"
#include "fwk/model/InterfaceModel.h"
#include "fwk/route/RouteBacklog.h"
#include "fwk/route/RouteTraits.h"

namespace InterfaceRouteInfo {

template <class Traits>
class RouteBacklogSmT : public Kel::Reactor {
 public:
  using Key = typename Traits::Key;
  using RouteInput = typename Traits::RouteInput;
  using Backlog = RouteBacklogT<Traits>;
  using Unresolved = UnresolvedRouteBacklogT<Traits>;
  using BacklogPtr = Kel::Ptr<Backlog>;
  using UnresolvedPtr = Kel::Ptr<Unresolved>;
  using RouteInputPtr = Kel::Ptr<const RouteInput>;
  using DevDirPtr = Kel::Ptr<const Interface::DeviceIntfStatusDir>;
  using ManagerPtr = Kel::Ptr<const Interface::NetNsIntfStatusManager>;
  using ClockPtr = Kel::Ptr<Kel::Clock>;
  using GwPtr = gw_entry*;

  // Fires handleBacklog when the clock reaches its timeMin.
  class KelBacklogClock : public Kel::Clock::Notifiee {
   public:
    explicit KelBacklogClock(RouteBacklogSmT* owner) : owner_(owner) {}
    void onTime() override { owner_->handleBacklog(); }
    RouteBacklogSmT* owner() const { return owner_; }

   private:
    RouteBacklogSmT* owner_;
  };

  // A new key or a new delay schedules a drain; a new quantum is read by the running drain.
  class KelRouteBacklog : public Backlog::Notifiee {
   public:
    explicit KelRouteBacklog(RouteBacklogSmT* owner) : owner_(owner) {}
    void onBacklog(const Key&) override { owner_->scheduleBacklog(); }
    void onBacklogDelay() override { owner_->scheduleBacklog(); }
    RouteBacklogSmT* owner() const { return owner_; }

   private:
    RouteBacklogSmT* owner_;
  };

#define KEL_ATTRS_RouteBacklogSm(A)                                       \
  A(INPUT, backlogClock, BacklogClock, ClockPtr)                          \
  A(INPUT, routeBacklog, RouteBacklog, BacklogPtr)                        \
  A(INPUT, unresolvedRouteBacklog, UnresolvedRouteBacklog, UnresolvedPtr) \
  A(INPUT, routeInput, RouteInput, RouteInputPtr)                         \
  A(INPUT, gwp, Gwp, GwPtr)                                               \
  A(INPUT, kernelIntfStatusDir, KernelIntfStatusDir, DevDirPtr)           \
  A(INPUT, intfStatusManager, IntfStatusManager, ManagerPtr)              \
  A(SCALAR, backlogScheduled, BacklogScheduled, bool, false)              \
  A(SCALAR, backlogCount, BacklogCount, std::uint32_t, 0)                 \
  A(SCALAR, initialized, Initialized, bool, false)                        \
  A(HANDLER, handleInitialized, HandleInitialized)                        \
  A(HANDLER, handleBacklog, HandleBacklog)                                \
  A(ACTION, doAddBacklog, DoAddBacklog)                                   \
  A(HANDLER, doAddRoute, DoAddRoute)                                      \
  A(HANDLER, doDeleteRoute, DoDeleteRoute)                                \
  A(HANDLER, doPrepareToDie, DoPrepareToDie)
  KEL_ENTITY(RouteBacklogSmT, Traits::routeBacklogSmType, KEL_ATTRS_RouteBacklogSm)
#undef KEL_ATTRS_RouteBacklogSm
#define KEL_TWINS_RouteBacklogSm(T)                         \
  T(INPUT, routeBacklog, route6Backlog)                     \
  T(INPUT, unresolvedRouteBacklog, unresolvedRoute6Backlog) \
  T(INPUT, routeInput, route6Input)
  KEL_TWIN_NAMES(Traits::isIp6, KEL_TWINS_RouteBacklogSm)
#undef KEL_TWINS_RouteBacklogSm

  RouteBacklogSmT(const ClockPtr& clock, const BacklogPtr& backlog, const UnresolvedPtr& unresolved,
                  const RouteInputPtr& routeInput, gw_entry* gwp,
                  const DevDirPtr& kernelIntfStatusDir, const ManagerPtr& intfStatusManager);

  void handleInitialized();
  void scheduleBacklog();
  void handleBacklog();
  void doAddBacklog(const Key& key);
  // Enters or changes the route of `key` in the daemon (inside an rt_open/rt_close bracket).
  // With `retry`, a next hop that no daemon interface serves parks the key in the unresolved
  // backlog; the other unresolvable cases always do.
  void doAddRoute(const Key& key, bool retry);
  // Deletes this protocol's daemon entries of the prefix: all of them when the route is gone,
  // those matching none of its vias when it is still present (inside a bracket).
  void doDeleteRoute(const Key& key);
  void doPrepareToDie();

  // The armed time of the drain clock (Kel::endOfTime when disarmed); for inspection.
  double backlogClockTimeMin() const { return kelBacklogClock_.timeMin(); }

 private:
  // Where the drain's hints stand in the backlog: one scout 12 keys ahead of the first, and the
  // keys it named 6 and 10 steps ago, now 6 and 2 keys ahead (copies: a hint may name a key
  // that has left the backlog meanwhile, never memory that has).
  template <class Keys>
  struct Scouts {
    static constexpr std::size_t kFar = 12, kNear = 6, kClose = 2;
    typename Keys::Scout far{kFar};
    std::array<std::optional<Key>, kFar> named{};  // by step, modulo kFar
    std::size_t step = 0;
    // The key the far scout named `back` (< kFar) steps ago, if it named one (none before the
    // drain's first steps: those places are not written yet).
    const Key* namedAgo(std::size_t back) const {
      const auto& k = named[(step + kFar - back) % kFar];
      return k ? &*k : nullptr;
    }
  };
  template <class Keys, class Routes>
  void prefetchAhead(const Keys& keys, const Routes& routes, Scouts<Keys>& scouts);
  KelBacklogClock kelBacklogClock_{this};
  KelRouteBacklog kelRouteBacklog_{this};
};

using RouteBacklogSm = RouteBacklogSmT<Ip4RouteTraits>;
using Route6BacklogSm = RouteBacklogSmT<Ip6RouteTraits>;

extern template class RouteBacklogSmT<Ip4RouteTraits>;
extern template class RouteBacklogSmT<Ip6RouteTraits>;

KEL_FACTORY(routeBacklogSmFactory, RouteBacklogSm)
KEL_FACTORY(route6BacklogSmFactory, Route6BacklogSm)

}  // namespace InterfaceRouteInfo
