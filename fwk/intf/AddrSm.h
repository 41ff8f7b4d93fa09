// The address reactors of one VRF: VrfIpIntfStatusSm / IpIntfStatusSm for IPv4 and their IPv6
// twins VrfIp6IntfStatusSm / Ip6IntfStatusSm, one template each over AddrTraits.h.
//
// VrfIpIntfStatusSm watches the address status of every VRF (Ip::Status) and keeps one
// IpIntfStatusSm while the VRF it serves (vrfName) has an entry there: a notification for the
// served VRF makes a new one (replacing any existing one) while the entry exists, and when the
// entry is gone lets the old one queue every interface it still sees (doPrepareToDie) and drops
// it. Notifications for other VRFs are traced and ignored.
// IpIntfStatusSm watches the served VRF's interfaces and keeps one KelIpIntfStatus notifiee per
// interface (the `ipIntfStatus` collection, made and removed as the watched collection changes).
// Every change it sees — an interface added or removed, its primary or a secondary address
// changed (IPv6: an address of `addr`) — queues the interface once in the interface backlog
// (doAddBacklog(intfId, false)); the drain finds out what changed. Nothing here calls the daemon.
// Trace levels: reactors made or removed and the queuing of a VRF's interfaces at 0, the rest at
// 8. The IPv6 reactors keep the IPv4 wording of their "initialized" messages.
#pragma once

#include <memory>

#include "fwk/framework/Attributes.h"
#include "fwk/intf/AddrTraits.h"
#include "fwk/intf/IntfBacklog.h"
#include "fwk/model/KanetNames.h"

namespace InterfaceRouteInfo {

template <class Traits>
class IntfAddrSmT : public Kel::Reactor {
 public:
  using VrfStatus = typename Traits::VrfStatus;
  using IntfStatus = typename Traits::IntfStatus;
  using VrfStatusPtr = Kel::Ptr<const VrfStatus>;
  using BacklogPtr = Kel::Ptr<IntfBacklog>;

  // Watches one interface's addresses (KelIp6IntfStatus for IPv6).
  class KelIpIntfStatus : public Traits::template IntfStatusAdapter<KelIpIntfStatus> {
   public:
    KelIpIntfStatus(IntfAddrSmT* owner, const Kel::Ptr<const IntfStatus>& intfStatus)
        : owner_(owner) {
      this->notifierIs(intfStatus);
    }
    void handleIpAddress();
    IntfAddrSmT* owner() const { return owner_; }

   private:
    IntfAddrSmT* owner_;
  };

#define KEL_ATTRS_IntfAddrSm(A)                                                        \
  A(INPUT, vrfIpIntfStatus, VrfIpIntfStatus, VrfStatusPtr)                             \
  A(INPUT, intfBacklog, IntfBacklog, BacklogPtr)                                       \
  A(NOTIFIEES, ipIntfStatus, IpIntfStatus, Kanet::IntfId, KelIpIntfStatus, IntfStatus) \
  A(SCALAR, initialized, Initialized, bool, false)                                     \
  A(HANDLER, handleInitialized, HandleInitialized)                                     \
  A(HANDLER, handleIpIntfStatus, HandleIpIntfStatus)                                   \
  A(HANDLER, doPrepareToDie, DoPrepareToDie)
  KEL_ENTITY(IntfAddrSmT, Traits::smType, KEL_ATTRS_IntfAddrSm)
#undef KEL_ATTRS_IntfAddrSm
#define KEL_TWINS_IntfAddrSm(T)               \
  T(INPUT, vrfIpIntfStatus, vrfIp6IntfStatus) \
  T(NOTIFIEES, ipIntfStatus, ip6IntfStatus)   \
  T(HANDLER, handleIpIntfStatus, handleIp6IntfStatus)
  KEL_TWIN_NAMES(Traits::isIp6, KEL_TWINS_IntfAddrSm)
#undef KEL_TWINS_IntfAddrSm

  IntfAddrSmT(const VrfStatusPtr& vrfIpIntfStatus, const BacklogPtr& intfBacklog);

  void handleInitialized();
  // Queues every interface of the VRF.
  void handleIpIntfStatus();
  // The single point at which an address change enters the interface backlog.
  void handleIpIntfStatus(Kanet::IntfId intfId);
  // Queues every interface still listed, so the drain re-examines the VRF's interfaces.
  void doPrepareToDie();

  // The watched collection's member `id` was added, replaced or removed: its notifiee follows,
  // then the interface is queued. A resynchronisation does the same for every member.
  void kelIntfStatusChanged(const Kanet::IntfId& id);
  void kelIntfStatusResync();

 private:
  void kelAdapterSync(const Kanet::IntfId& id);
  typename Traits::template VrfStatusAdapter<IntfAddrSmT> kelVrfStatus_{this};
};

template <class Traits>
class VrfAddrSmT : public Kel::Reactor {
 public:
  using Status = typename Traits::Status;
  using StatusPtr = Kel::Ptr<const Status>;
  using BacklogPtr = Kel::Ptr<IntfBacklog>;
  using AddrSm = IntfAddrSmT<Traits>;

#define KEL_ATTRS_VrfAddrSm(A)                     \
  A(INPUT, vrfName, VrfName, Ip::VrfName)          \
  A(INPUT, ipStatus, IpStatus, StatusPtr)          \
  A(INPUT, intfBacklog, IntfBacklog, BacklogPtr)   \
  A(CHILD, ipIntfStatusSm, IpIntfStatusSm, AddrSm) \
  A(SCALAR, initialized, Initialized, bool, false) \
  A(HANDLER, handleInitialized, HandleInitialized) \
  A(HANDLER, handleVrfIpIntfStatus, HandleVrfIpIntfStatus)
  KEL_ENTITY(VrfAddrSmT, Traits::vrfSmType, KEL_ATTRS_VrfAddrSm)
#undef KEL_ATTRS_VrfAddrSm
#define KEL_TWINS_VrfAddrSm(T)              \
  T(INPUT, ipStatus, ip6Status)             \
  T(CHILD, ipIntfStatusSm, ip6IntfStatusSm) \
  T(HANDLER, handleVrfIpIntfStatus, handleVrfIp6IntfStatus)
  KEL_TWIN_NAMES(Traits::isIp6, KEL_TWINS_VrfAddrSm)
#undef KEL_TWINS_VrfAddrSm

  VrfAddrSmT(const Ip::VrfName& vrfName, const StatusPtr& ipStatus, const BacklogPtr& intfBacklog);

  void handleInitialized();
  // Applies the VRF selection rule to every VRF of the status.
  void handleVrfIpIntfStatus();
  // The VRF selection rule for one VRF.
  void handleVrfIpIntfStatus(Ip::VrfName vrf);

 private:
  typename Traits::template StatusAdapter<VrfAddrSmT> kelStatus_{this};
};

using IpIntfStatusSm = IntfAddrSmT<Ip4AddrTraits>;
using Ip6IntfStatusSm = IntfAddrSmT<Ip6AddrTraits>;
using VrfIpIntfStatusSm = VrfAddrSmT<Ip4AddrTraits>;
using VrfIp6IntfStatusSm = VrfAddrSmT<Ip6AddrTraits>;

extern template class IntfAddrSmT<Ip4AddrTraits>;
extern template class IntfAddrSmT<Ip6AddrTraits>;
extern template class VrfAddrSmT<Ip4AddrTraits>;
extern template class VrfAddrSmT<Ip6AddrTraits>;

KEL_FACTORY(ipIntfStatusSmFactory, IpIntfStatusSm)
KEL_FACTORY(ip6IntfStatusSmFactory, Ip6IntfStatusSm)
KEL_FACTORY(vrfIpIntfStatusSmFactory, VrfIpIntfStatusSm)
KEL_FACTORY(vrfIp6IntfStatusSmFactory, VrfIp6IntfStatusSm)

}  // namespace InterfaceRouteInfo
