// The interface status model the module reads, in its minimal form:
//   AllIntfStatusDir.intfStatus: IntfId -> IntfStatus (every interface of the system, with its
//     kernel device name, ifIndex, MTU and oper status)
//   AllIntfStatusLocalDir.kernelNetworkInfo: namespace name -> KernelNetworkInfo::Root (the
//     kernel's devices of each local network namespace)
//   DeviceIntfStatusDir.intfStatusAndDeviceName: IntfId -> {IntfStatus, device name}, the
//     interfaces local to one namespace; kept by the manager below
//   NetNsIntfStatusManager: keeps the namespace's DeviceIntfStatusDir from both of the above
// An interface is local to the namespace, and so in its DeviceIntfStatusDir, exactly while it
// has an IntfStatus whose device name names a kernel device of that namespace. Replacing the
// kernel device of a local interface (a device made again, under a new ifIndex) notifies the
// directory's watchers of the interface's entry (removed and put back).
// An IntfStatus's ifIndex is its device's kernel ifIndex: its agent keeps the two equal, and
// sets it before the device appears in the namespace (routes through a local interface read it).
// Publishers hold non-const pointers; the module reads through Kel::Ptr<const ...>. An
// IntfStatus's device name is fixed once published: a renamed interface is published as a new
// IntfStatus under its IntfId.
#pragma once

#include <cstdint>
#include <ostream>
#include <unordered_map>

#include "fwk/framework/Attributes.h"
#include "fwk/model/KanetIntfId.h"
#include "fwk/model/KanetNames.h"
#include "fwk/model/KernelNetworkInfo.h"

namespace Interface {

// The operational state of an interface as its status agent reports it.
enum class IntfOperStatus : std::uint8_t { intfOperUnknown = 0, intfOperUp = 1, intfOperDown = 2 };
std::ostream& operator<<(std::ostream& os, IntfOperStatus s);

class IntfStatus : public Kel::Entity {
 public:
#define KEL_ATTRS_IntfStatus(A)                       \
  A(INPUT, intfId, IntfId, Kanet::IntfId)             \
  A(SCALAR, deviceName, DeviceName, Kel::String8, "") \
  A(SCALAR, ifIndex, IfIndex, std::uint32_t, 0)       \
  A(SCALAR, mtu, Mtu, std::uint16_t, 1500)            \
  A(SCALAR, operStatus, OperStatus, ::Interface::IntfOperStatus, IntfOperStatus::intfOperUnknown)
  KEL_ENTITY(IntfStatus, "Interface::IntfStatus", KEL_ATTRS_IntfStatus)
#undef KEL_ATTRS_IntfStatus
  explicit IntfStatus(const Kanet::IntfId& id) : Kel::Entity(kNamedByKey) { kelInputsIs(id); }
  const Kanet::IntfId& key() const { return intfId(); }
  KEL_NAMED_BY_KEY
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
#define KEL_ATTRS_AllIntfStatusLocalDir(A)                                  \
  A(COLLECTION, kernelNetworkInfo, KernelNetworkInfo, Kanet::NamespaceName, \
    ::KernelNetworkInfo::RootPtr)
  KEL_ENTITY(AllIntfStatusLocalDir, "Interface::AllIntfStatusLocalDir",
             KEL_ATTRS_AllIntfStatusLocalDir)
#undef KEL_ATTRS_AllIntfStatusLocalDir
  explicit AllIntfStatusLocalDir(Kel::Name name) : Kel::Entity(std::move(name)) {}

  // Publishing helper: the kernel view of namespace `netNs`, made on first use.
  ::KernelNetworkInfo::RootPtr kernelNetworkInfoNew(const Kanet::NamespaceName& netNs) {
    if (auto r = kernelNetworkInfo(netNs)) return r;
    auto r = Kel::make<::KernelNetworkInfo::Root>(Kel::Name("kernelNetworkInfo-" + netNs.str()));
    kernelNetworkInfoIs(netNs, r);
    return r;
  }
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

// Keeps the namespace's DeviceIntfStatusDir from AllIntfStatusDir and the namespace's kernel view
// (kernelNetworkInfoRoot, taken from AllIntfStatusLocalDir when the manager is made; an empty
// view of its own when the namespace has none yet, so a publisher makes the namespace's view
// before it starts a Root) and answers lookups of an interface status by kernel device name.
// Made with the parameters the module passes (activity configuration, ARP directory and ARP
// shared data are accepted and unused: null). When two interfaces name the same device, the one
// published last is the device's.
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
  class KelKernelNetworkInfoRoot : public ::KernelNetworkInfo::Root::Notifiee {
   public:
    explicit KelKernelNetworkInfoRoot(NetNsIntfStatusManager* owner) : owner_(owner) {}
    void onInterfaceByName(const Kel::String8& name) override { owner_->handleKernelIntf(name); }
    void onInterfaceByNamekelImmediate() override { owner_->handleIntfStatus(); }

   private:
    NetNsIntfStatusManager* owner_;
  };

#define KEL_ATTRS_NetNsIntfStatusManager(A)                                                     \
  A(INPUT, allIntfStatusDir, AllIntfStatusDir, Kel::Ptr<const AllIntfStatusDir>)                \
  A(INPUT, allIntfStatusLocalDir, AllIntfStatusLocalDir, Kel::Ptr<const AllIntfStatusLocalDir>) \
  A(INPUT, kernelIntfStatusDir, KernelIntfStatusDir, Kel::Ptr<DeviceIntfStatusDir>)             \
  A(INPUT, netNs, NetNs, Kanet::NamespaceName)                                                  \
  A(POINTER, kernelNetworkInfoRoot, KernelNetworkInfoRoot, ::KernelNetworkInfo::Root)
  KEL_ENTITY(NetNsIntfStatusManager, "Interface::NetNsIntfStatusManager",
             KEL_ATTRS_NetNsIntfStatusManager)
#undef KEL_ATTRS_NetNsIntfStatusManager

  NetNsIntfStatusManager(const void* activityConfig, Kel::Ptr<const AllIntfStatusDir> all,
                         Kel::Ptr<const AllIntfStatusLocalDir> local,
                         Kel::Ptr<DeviceIntfStatusDir> kernelDir, const void* arpDir,
                         const void* arpShared, const Kanet::NamespaceName& netNs);

  // The status of the interface whose kernel device name is deviceName, or null.
  Kel::Ptr<const IntfStatus> intfStatusByDeviceName(const Kel::String8& deviceName) const;
  // The kernel device of that name in this namespace, or null.
  Kel::Ptr<const ::KernelNetworkInfo::Interface> kernelInterface(
      const Kel::String8& deviceName) const {
    return kernelNetworkInfoRoot()->interface(deviceName);
  }

  void handleIntfStatus(const Kanet::IntfId& id);
  void handleIntfStatus();
  void handleKernelIntf(const Kel::String8& deviceName);

 private:
  // Makes the directory's entry for `id` follow its status and kernel device; `newDevice` when
  // the device itself was replaced.
  void refresh(const Kanet::IntfId& id, bool newDevice);

  KelAllIntfStatusDir kelAllIntfStatusDir_{this};
  KelKernelNetworkInfoRoot kelKernelNetworkInfoRoot_{this};
  std::unordered_map<Kel::String8, Kanet::IntfId> byDeviceName_;  // device -> its interface
  std::unordered_map<Kanet::IntfId, Kel::String8> deviceOf_;      // interface -> its device
};

KEL_FACTORY(netNsIntfStatusManagerFactory, NetNsIntfStatusManager)
KEL_FACTORY(deviceIntfStatusDirFactory, DeviceIntfStatusDir)

}  // namespace Interface

KEL_TYPE_NAME(Interface::IntfOperStatus, "Interface::IntfOperStatus")
KEL_TYPE_NAME(Interface::IntfStatusAndDeviceName, "Interface::IntfStatusAndDeviceName")
