// InterfaceRouteInfo::Root: the module's spine, one per VRF.
// The host makes a Root with rootFactory, sets its inputs in any order and finally sets
// `initialized`; handleInitialized then checks the required inputs (a missing one stops the
// process by assertion) and instantiates the reactors in a fixed order, each running its first
// full scan as it is made: the device directory "fwk" and the interface status manager, the
// interface backlog and its drainer, the IPv4 address reactor, the IPv4 route reactor, in the VRF
// named exactly "default" the IPv6 address and route reactors, and the loopback reactor. The Root
// then becomes theRoot (the one the daemon's address-change hook serves) and hooks fwk_task.
// Setting `initialized` false only traces; setting it true again re-runs the start-up. Every
// child dies with the Root.
// theRoot lives in a slot: a host that runs one world per VRF in one process (each with its own
// daemon and activity loop) gives each world its own slot (theRootSlotIs) and switches it with
// the world.
#pragma once

#include "fwk/daemon/corvd.h"
#include "fwk/framework/Attributes.h"
#include "fwk/intf/AddrSm.h"
#include "fwk/intf/IntfBacklog.h"
#include "fwk/intf/IntfBacklogSm.h"
#include "fwk/intf/LoopbackSm.h"
#include "fwk/model/InterfaceModel.h"
#include "fwk/model/IpStatusModel.h"
#include "fwk/model/KanetNames.h"
#include "fwk/model/RoutingModel.h"
#include "fwk/route/RoutingConfigSm.h"

namespace InterfaceRouteInfo {

class Root : public Kel::Entity {
 public:
#define KEL_ATTRS_Root(A)                                                                    \
  A(SCALAR, vrfName, VrfName, Ip::VrfName, Ip::VrfName())                                    \
  A(SCALAR, netNs, NetNs, Kanet::NamespaceName, Kanet::NamespaceName())                      \
  A(POINTER, allIntfStatusDir, AllIntfStatusDir, Interface::AllIntfStatusDir)                \
  A(POINTER, allIntfStatusLocalDir, AllIntfStatusLocalDir, Interface::AllIntfStatusLocalDir) \
  A(POINTER, ipStatus, IpStatus, Ip::Status)                                                 \
  A(POINTER, ip6Status, Ip6Status, Ip6::Status)                                              \
  A(POINTER, routingConfig, RoutingConfig, Routing::Config)                                  \
  A(POINTER, routing6Config, Routing6Config, Routing6::Config)                               \
  A(CHILD, intfStatusManager, IntfStatusManager, Interface::NetNsIntfStatusManager)          \
  A(CHILD, kernelIntfStatusDir, KernelIntfStatusDir, Interface::DeviceIntfStatusDir)         \
  A(CHILD, intfBacklog, IntfBacklog, IntfBacklog)                                            \
  A(CHILD, intfBacklogSm, IntfBacklogSm, IntfBacklogSm)                                      \
  A(CHILD, vrfIpIntfStatusSm, VrfIpIntfStatusSm, VrfIpIntfStatusSm)                          \
  A(CHILD, vrfIp6IntfStatusSm, VrfIp6IntfStatusSm, VrfIp6IntfStatusSm)                       \
  A(CHILD, routingConfigSm, RoutingConfigSm, RoutingConfigSm)                                \
  A(CHILD, routing6ConfigSm, Routing6ConfigSm, Routing6ConfigSm)                             \
  A(CHILD, loopbackSm, LoopbackSm, LoopbackSm)                                               \
  A(HANDLER, handleIfaChange, HandleIfaChange)                                               \
  A(SIGNAL, initialized, Initialized, bool, false, handleInitialized)                        \
  A(HANDLER, handleInitialized, HandleInitialized)
  KEL_ENTITY(Root, "InterfaceRouteInfo::Root", KEL_ATTRS_Root)
#undef KEL_ATTRS_Root

  explicit Root(Kel::Name name) : Kel::Entity(std::move(name)) {}

  void handleInitialized();
  // The daemon's address-change hook (installed on fwk_task by start-up); serves theRoot().
  static void handleIfaChange(_task* tp, _if_addr* ifap);
};

// The Root whose start-up ran last (in the current slot), or null.
const Kel::Ptr<Root>& theRoot();
// Forgets theRoot (for tests and an orderly host shutdown).
void theRootDel();
// Makes `slot` the place theRoot is kept (null: the process's own slot). The caller keeps the
// slot alive while it is in use.
void theRootSlotIs(Kel::Ptr<Root>* slot);

Kel::Ptr<Root> rootFactory(Kel::Name name);

}  // namespace InterfaceRouteInfo
