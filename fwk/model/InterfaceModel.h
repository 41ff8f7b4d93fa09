// The interface status model the module reads, in its minimal form:
//   AllIntfStatusDir.intfStatus: IntfId -> IntfStatus (every interface of the system)
//   AllIntfStatusLocalDir: the local interface status (kept as an input; not read yet)
//   DeviceIntfStatusDir.intfStatusAndDeviceName: IntfId -> {IntfStatus, device name}, the
//     interfaces of one network namespace as the kernel names them; filled by the manager
//   NetNsIntfStatusManager: merges the two for one namespace and owns the kernel's view
//     (KernelNetworkInfo::Root)
// Publishers hold non-const pointers; the module reads through Kel::Ptr<const ...>.
#pragma once

#include <cstdint>
#include <ostream>
#include <unordered_map>

#include "fwk/framework/Attributes.h"
#include "fwk/model/KanetIntfId.h"
#include "fwk/model/KanetNames.h"

namespace KernelNetworkInfo {

// The kernel's view of network devices for one namespace.
class Root : public Kel::Entity {
 public:
#define KEL_ATTRS_KniRoot(A) A(SCALAR, deviceCount, DeviceCount, std::uint32_t, 0)
  KEL_ENTITY(Root, "KernelNetworkInfo::Root", KEL_ATTRS_KniRoot)
#undef KEL_ATTRS_KniRoot
  explicit Root(Kel::Name name) : Kel::Entity(std::move(name)) {}
};

}  // namespace KernelNetworkInfo

namespace Interface {

class IntfStatus : public Kel::Entity {
 public:
#define KEL_ATTRS_IntfStatus(A)                       \
  A(INPUT, intfId, IntfId, Kanet::IntfId)             \
  A(SCALAR, deviceName, DeviceName, Kel::String8, "") \
  A(SCALAR, ifIndex, IfIndex, std::uint32_t, 0)       \
  A(SCALAR, operStatusUp, OperStatusUp, bool, false)
  KEL_ENTITY(IntfStatus, "Interface::IntfStatus", KEL_ATTRS_IntfStatus)
#undef KEL_ATTRS_IntfStatus
  explicit IntfStatus(const Kanet::IntfId& id) : Kel::Entity(id.toString()) { kelInputsIs(id); }
};
using IntfStatusPtr = Kel::Ptr<IntfStatus>;

// An interface of a namespace as the kernel names it; the empty value means "no such interface".
struct IntfStatusAndDeviceName {
  Kel::Ptr<const IntfStatus> intfStatus;
  Kel::String8 deviceName;

  bool empty() const { return !intfStatus; }
  friend bool operator==(const IntfStatusAndDeviceName& a,
                         const IntfStatusAndDeviceName& b) = default;
  friend std::ostream& operator<<(std::ostream& os, const IntfStatusAndDeviceName& v) {
    return os << "(" << (v.intfStatus ? v.intfStatus->name().string() : "None") << ", "
              << v.deviceName << ")";
  }
};

class AllIntfStatusDir : public Kel::Entity {
 public:
#define KEL_ATTRS_AllIntfStatusDir(A) \
  A(COLLECTION, intfStatus, IntfStatus, Kanet::IntfId, IntfStatusPtr)
  KEL_ENTITY(AllIntfStatusDir, "Interface::AllIntfStatusDir", KEL_ATTRS_AllIntfStatusDir)
#undef KEL_ATTRS_AllIntfStatusDir
  explicit AllIntfStatusDir(Kel::Name name) : Kel::Entity(std::move(name)) {}
};

class AllIntfStatusLocalDir : public Kel::Entity {
 public:
#define KEL_ATTRS_AllIntfStatusLocalDir(A) \
  A(COLLECTION, intfStatusLocal, IntfStatusLocal, Kanet::IntfId, bool)
  KEL_ENTITY(AllIntfStatusLocalDir, "Interface::AllIntfStatusLocalDir",
             KEL_ATTRS_AllIntfStatusLocalDir)
#undef KEL_ATTRS_AllIntfStatusLocalDir
  explicit AllIntfStatusLocalDir(Kel::Name name) : Kel::Entity(std::move(name)) {}
};

class DeviceIntfStatusDir : public Kel::Entity {
 public:
#define KEL_ATTRS_DeviceIntfStatusDir(A)                                         \
  A(COLLECTION, intfStatusAndDeviceName, IntfStatusAndDeviceName, Kanet::IntfId, \
    IntfStatusAndDeviceName)
  KEL_ENTITY(DeviceIntfStatusDir, "Interface::DeviceIntfStatusDir", KEL_ATTRS_DeviceIntfStatusDir)
#undef KEL_ATTRS_DeviceIntfStatusDir
  explicit DeviceIntfStatusDir(Kel::Name name) : Kel::Entity(std::move(name)) {}
};

// Keeps the namespace's DeviceIntfStatusDir in step with AllIntfStatusDir and answers lookups of
// an interface status by kernel device name. Made with the parameters the module passes
// (activity configuration, ARP directory and ARP shared data are accepted and unused: null).
class NetNsIntfStatusManager : public Kel::Entity {
 public:
  class KelAllIntfStatusDir : public AllIntfStatusDir::Notifiee {
   public:
    explicit KelAllIntfStatusDir(NetNsIntfStatusManager* owner) : owner_(owner) {}
    void onIntfStatus(const Kanet::IntfId& id) override { owner_->handleIntfStatus(id); }
    void onIntfStatuskelImmediate() override { owner_->handleIntfStatus(); }

   private:
    NetNsIntfStatusManager* owner_;
  };

#define KEL_ATTRS_NetNsIntfStatusManager(A)                                                     \
  A(INPUT, allIntfStatusDir, AllIntfStatusDir, Kel::Ptr<const AllIntfStatusDir>)                \
  A(INPUT, allIntfStatusLocalDir, AllIntfStatusLocalDir, Kel::Ptr<const AllIntfStatusLocalDir>) \
  A(INPUT, kernelIntfStatusDir, KernelIntfStatusDir, Kel::Ptr<DeviceIntfStatusDir>)             \
  A(INPUT, netNs, NetNs, Kanet::NamespaceName)                                                  \
  A(CHILD, kernelNetworkInfoRoot, KernelNetworkInfoRoot, KernelNetworkInfo::Root)
  KEL_ENTITY(NetNsIntfStatusManager, "Interface::NetNsIntfStatusManager",
             KEL_ATTRS_NetNsIntfStatusManager)
#undef KEL_ATTRS_NetNsIntfStatusManager

  NetNsIntfStatusManager(const void* activityConfig, Kel::Ptr<const AllIntfStatusDir> all,
                         Kel::Ptr<const AllIntfStatusLocalDir> local,
                         Kel::Ptr<DeviceIntfStatusDir> kernelDir, const void* arpDir,
                         const void* arpShared, const Kanet::NamespaceName& netNs);

  // The status of the interface whose kernel device name is deviceName, or null.
  Kel::Ptr<const IntfStatus> intfStatusByDeviceName(const Kel::String8& deviceName) const;

  void handleIntfStatus(const Kanet::IntfId& id);
  void handleIntfStatus();

 private:
  KelAllIntfStatusDir kelAllIntfStatusDir_{this};
  std::unordered_map<Kel::String8, Kanet::IntfId> byDeviceName_;
};

KEL_FACTORY(netNsIntfStatusManagerFactory, NetNsIntfStatusManager)

}  // namespace Interface

namespace Ip {
// The IPv4 status of every VRF; its per-VRF content arrives with interface mirroring.
class Status : public Kel::Entity {
 public:
#define KEL_ATTRS_IpStatus(A) A(COLLECTION, vrf, Vrf, Ip::VrfName, bool)
  KEL_ENTITY(Status, "Ip::Status", KEL_ATTRS_IpStatus)
#undef KEL_ATTRS_IpStatus
  explicit Status(Kel::Name name) : Kel::Entity(std::move(name)) {}
};
}  // namespace Ip

namespace Ip6 {
class Status : public Kel::Entity {
 public:
#define KEL_ATTRS_Ip6Status(A) A(COLLECTION, vrf, Vrf, Ip::VrfName, bool)
  KEL_ENTITY(Status, "Ip6::Status", KEL_ATTRS_Ip6Status)
#undef KEL_ATTRS_Ip6Status
  explicit Status(Kel::Name name) : Kel::Entity(std::move(name)) {}
};
}  // namespace Ip6
