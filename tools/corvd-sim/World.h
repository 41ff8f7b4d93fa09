// One VRF's world in corvd-sim. On a router each VRF is served by its own daemon process, with
// its own replica of the state database; corvd-sim runs them in one process, one World each:
// its own in-memory daemon (tables, counters, fwk_task), its own activity loop and clocks, its
// own slot for the module's theRoot, and its own state-database objects. The host publishes each
// event into the worlds it concerns, entering each in turn; a delivery inside one world reaches
// only that world's reactors, so a handler that calls the daemon always finds its own.
// enter() makes the world current (daemon instance, activity manager, theRoot slot); the host
// must enter a world before it changes any of the world's objects or runs its loop, and World's
// destructor tears the module down inside the world before freeing the world's daemon.
#pragma once

#include <map>
#include <string>

#include "fwk/Root.h"
#include "fwk/daemon/corvd.h"
#include "fwk/framework/ActivityManager.h"
#include "fwk/framework/Dir.h"

namespace CorvdSim {

class World {
 public:
  // A world for `vrf` whose manual time starts at `now`, or on the real clock.
  World(const std::string& vrf, double now, bool realTime = false);
  ~World();
  World(const World&) = delete;
  World& operator=(const World&) = delete;

  void enter();
  // Back to the process's own daemon, activity manager and theRoot slot.
  static void leave();
  // The world entered last, or null after leave() (trace lines name its VRF and time).
  static World* current();

  const std::string& vrf() const { return vrf_; }
  bool isDefault() const { return vrf_ == "default"; }
  Kel::ActivityManager& activity() { return activity_; }

  // Starts the VRF's Root (once); IPv6 status and routing only in "default".
  void startRoot();
  // Stops the VRF's module: its Root is released (its reactors prepare to die, so its routes are
  // withdrawn and its gateways freed) and the daemon's address-change hook is unhooked. The
  // daemon and the state database stay; startRoot may start the module again.
  void stopRoot();
  const Kel::Ptr<InterfaceRouteInfo::Root>& root() const { return root_; }
  // Calls fn(sm, ipv6) for every route input reactor (IPv4, then IPv6) of the world's module.
  template <class Fn>
  void forEachRouteInputSm(Fn fn) const {
    if (!root_) return;
    auto walk = [&](const auto& configSm, bool ipv6) {
      if (!configSm || !configSm->routeInputDirSm()) return;
      for (auto [name, sm] : configSm->routeInputDirSm()->routeInputSmCollection()) fn(*sm, ipv6);
    };
    walk(root_->routingConfigSm(), false);
    walk(root_->routing6ConfigSm(), true);
  }

  // The state-database replica.
  Kel::Ptr<Interface::AllIntfStatusDir> all;
  Kel::Ptr<Interface::AllIntfStatusLocalDir> local;
  Kel::Ptr<KernelNetworkInfo::Root> kernel;  // the namespace's devices
  Kel::Ptr<Ip::Status> ipStatus;
  Kel::Ptr<Ip6::Status> ip6Status;
  Kel::Ptr<Routing::Config> config;
  Kel::Ptr<Routing6::Config> config6;
  Kel::Ptr<Kel::Dir> dir;
  Kel::Ptr<Kel::Dir> dir6;
  std::map<std::string, Kel::Ptr<Routing::RouteInput>> inputs;
  std::map<std::string, Kel::Ptr<Routing6::RouteInput>> inputs6;

 private:
  std::string vrf_;
  corvd_instance* daemon_;
  Kel::ActivityManager activity_;
  Kel::Ptr<InterfaceRouteInfo::Root> theRoot_;  // the world's theRoot slot
  Kel::Ptr<InterfaceRouteInfo::Root> root_;
};

}  // namespace CorvdSim
