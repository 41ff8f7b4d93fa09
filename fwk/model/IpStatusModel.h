// The address status the module reads, per VRF and interface:
//   Ip::Status.vrfIpIntfStatus: VrfName -> VrfIpIntfStatus
//     VrfIpIntfStatus.ipIntfStatus: IntfId -> IpIntfStatus
//       IpIntfStatus { activeAddrWithMask (primary; 0.0.0.0/0 means none),
//                      activeSecondaryWithMask: IpAddrWithMask -> true }
//   Ip6::Status.vrfIp6IntfStatus: VrfName -> VrfIp6IntfStatus
//     VrfIp6IntfStatus.ip6IntfStatus: IntfId -> Ip6::IntfStatus
//       Ip6::IntfStatus.addr: Ip6AddrWithMask -> AddressInfo
//   Ip6::Status.intf: IntfId -> Ip6::IntfStatus, the same entities seen across VRFs
// IPv6 has two views of one set of entities: the address reactors follow the per-VRF tree,
// interface reconciliation looks an interface up through `intf`. Publishers keep them in step
// with intfNew/intfRemove, which change both views; the generated mutators of either collection
// change only that one. Publishers hold non-const pointers; the module reads through
// Kel::Ptr<const ...>.
#pragma once

#include <ostream>

#include "fwk/framework/Attributes.h"
#include "fwk/model/KanetIntfId.h"
#include "fwk/model/KanetIpAddr.h"
#include "fwk/model/KanetNames.h"

namespace Ip {

class IpIntfStatus : public Kel::Entity {
 public:
#define KEL_ATTRS_IpIntfStatus(A)                                          \
  A(INPUT, intfId, IntfId, Kanet::IntfId)                                  \
  A(SCALAR, activeAddrWithMask, ActiveAddrWithMask, Kanet::IpAddrWithMask, \
    Kanet::IpAddrWithMask())                                               \
  A(COLLECTION, activeSecondaryWithMask, ActiveSecondaryWithMask, Kanet::IpAddrWithMask, bool)
  KEL_ENTITY(IpIntfStatus, "Ip::IpIntfStatus", KEL_ATTRS_IpIntfStatus)
#undef KEL_ATTRS_IpIntfStatus
  explicit IpIntfStatus(const Kanet::IntfId& id) : Kel::Entity(kNamedByKey) { kelInputsIs(id); }
  const Kanet::IntfId& key() const { return intfId(); }
  KEL_NAMED_BY_KEY
};
using IpIntfStatusPtr = Kel::Ptr<IpIntfStatus>;

class VrfIpIntfStatus : public Kel::Entity {
 public:
#define KEL_ATTRS_VrfIpIntfStatus(A)      \
  A(INPUT, vrfName, VrfName, Ip::VrfName) \
  A(COLLECTION, ipIntfStatus, IpIntfStatus, Kanet::IntfId, ::Ip::IpIntfStatusPtr)
  KEL_ENTITY(VrfIpIntfStatus, "Ip::VrfIpIntfStatus", KEL_ATTRS_VrfIpIntfStatus)
#undef KEL_ATTRS_VrfIpIntfStatus
  explicit VrfIpIntfStatus(const Ip::VrfName& vrf) : Kel::Entity(kNamedByKey) { kelInputsIs(vrf); }
  const Ip::VrfName& key() const { return vrfName(); }
  KEL_NAMED_BY_KEY

  // Publishing helper: the interface's status, made on first use.
  IpIntfStatusPtr ipIntfStatusNew(const Kanet::IntfId& id) {
    if (auto s = ipIntfStatus(id)) return s;
    auto s = Kel::make<IpIntfStatus>(id);
    ipIntfStatusIs(id, s);
    return s;
  }
};
using VrfIpIntfStatusPtr = Kel::Ptr<VrfIpIntfStatus>;

class Status : public Kel::Entity {
 public:
#define KEL_ATTRS_IpStatus(A) \
  A(COLLECTION, vrfIpIntfStatus, VrfIpIntfStatus, Ip::VrfName, ::Ip::VrfIpIntfStatusPtr)
  KEL_ENTITY(Status, "Ip::Status", KEL_ATTRS_IpStatus)
#undef KEL_ATTRS_IpStatus
  explicit Status(Kel::Name name) : Kel::Entity(std::move(name)) {}

  // Publishing helper: the VRF's entry, made on first use.
  VrfIpIntfStatusPtr vrfIpIntfStatusNew(const Ip::VrfName& vrf) {
    if (auto v = vrfIpIntfStatus(vrf)) return v;
    auto v = Kel::make<VrfIpIntfStatus>(vrf);
    vrfIpIntfStatusIs(vrf, v);
    return v;
  }
};

}  // namespace Ip

namespace Ip6 {

// What the state database knows of one IPv6 address of an interface.
struct AddressInfo {
  Kanet::Ip6AddrWithMask addr;

  friend bool operator==(const AddressInfo&, const AddressInfo&) = default;
  friend std::ostream& operator<<(std::ostream& os, const AddressInfo& a) {
    return os << "AddressInfo(" << a.addr << ")";
  }
};

class IntfStatus : public Kel::Entity {
 public:
#define KEL_ATTRS_Ip6IntfStatus(A)        \
  A(INPUT, intfId, IntfId, Kanet::IntfId) \
  A(COLLECTION, addr, Addr, Kanet::Ip6AddrWithMask, ::Ip6::AddressInfo)
  KEL_ENTITY(IntfStatus, "Ip6::IntfStatus", KEL_ATTRS_Ip6IntfStatus)
#undef KEL_ATTRS_Ip6IntfStatus
  explicit IntfStatus(const Kanet::IntfId& id) : Kel::Entity(kNamedByKey) { kelInputsIs(id); }
  const Kanet::IntfId& key() const { return intfId(); }
  KEL_NAMED_BY_KEY
};
using IntfStatusPtr = Kel::Ptr<IntfStatus>;

class VrfIp6IntfStatus : public Kel::Entity {
 public:
#define KEL_ATTRS_VrfIp6IntfStatus(A)     \
  A(INPUT, vrfName, VrfName, Ip::VrfName) \
  A(COLLECTION, ip6IntfStatus, Ip6IntfStatus, Kanet::IntfId, ::Ip6::IntfStatusPtr)
  KEL_ENTITY(VrfIp6IntfStatus, "Ip6::VrfIp6IntfStatus", KEL_ATTRS_VrfIp6IntfStatus)
#undef KEL_ATTRS_VrfIp6IntfStatus
  explicit VrfIp6IntfStatus(const Ip::VrfName& vrf) : Kel::Entity(kNamedByKey) { kelInputsIs(vrf); }
  const Ip::VrfName& key() const { return vrfName(); }
  KEL_NAMED_BY_KEY
};
using VrfIp6IntfStatusPtr = Kel::Ptr<VrfIp6IntfStatus>;

class Status : public Kel::Entity {
 public:
#define KEL_ATTRS_Ip6Status(A)                                                               \
  A(COLLECTION, vrfIp6IntfStatus, VrfIp6IntfStatus, Ip::VrfName, ::Ip6::VrfIp6IntfStatusPtr) \
  A(COLLECTION, intf, Intf, Kanet::IntfId, ::Ip6::IntfStatusPtr)
  KEL_ENTITY(Status, "Ip6::Status", KEL_ATTRS_Ip6Status)
#undef KEL_ATTRS_Ip6Status
  explicit Status(Kel::Name name) : Kel::Entity(std::move(name)) {}

  // Publishing helpers that keep both views in step. intfNew returns the interface's status in
  // `vrf`, made on first use (an interface listed in another VRF moves: it leaves that one);
  // intfRemove removes the interface from both views (an absent one is ignored).
  IntfStatusPtr intfNew(const Ip::VrfName& vrf, const Kanet::IntfId& id);
  void intfRemove(const Kanet::IntfId& id);
  // The VRF's entry, made on first use.
  VrfIp6IntfStatusPtr vrfIp6IntfStatusNew(const Ip::VrfName& vrf);
};

}  // namespace Ip6

KEL_TYPE_NAME(Ip6::AddressInfo, "Ip6::AddressInfo")
