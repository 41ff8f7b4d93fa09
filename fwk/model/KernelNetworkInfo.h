// The kernel's view of network devices of one network namespace, as the state database holds it.
//   Root.interfaceByName: device name -> Interface
//   Interface { deviceName (key), ifIndex, flags (kernel IFF_* bits), macAddr }
// A kernel source (tests, corvd-sim, a live kernel reader) publishes through the mutators; the
// module reads through Kel::Ptr<const ...>. A device that the kernel deletes and creates again
// (under a new ifIndex) is published as a new Interface entity under the same name, so that its
// watchers see a new device rather than a changed one; flags and MAC change in place.
#pragma once

#include <cstdint>

#include "fwk/framework/Attributes.h"
#include "fwk/model/KanetIpAddr.h"

namespace KernelNetworkInfo {

class Interface : public Kel::Entity {
 public:
#define KEL_ATTRS_KniInterface(A)                \
  A(INPUT, deviceName, DeviceName, Kel::String8) \
  A(SCALAR, ifIndex, IfIndex, std::uint32_t, 0)  \
  A(SCALAR, flags, Flags, std::uint32_t, 0)      \
  A(SCALAR, macAddr, MacAddr, Kanet::EthAddr, Kanet::EthAddr())
  KEL_ENTITY(Interface, "KernelNetworkInfo::Interface", KEL_ATTRS_KniInterface)
#undef KEL_ATTRS_KniInterface

  explicit Interface(const Kel::String8& deviceName) : Kel::Entity(deviceName) {
    kelInputsIs(deviceName);
  }
  const Kel::String8& key() const { return deviceName(); }
};
using InterfacePtr = Kel::Ptr<Interface>;

class Root : public Kel::Entity {
 public:
#define KEL_ATTRS_KniRoot(A) \
  A(COLLECTION, interfaceByName, InterfaceByName, Kel::String8, ::KernelNetworkInfo::InterfacePtr)
  KEL_ENTITY(Root, "KernelNetworkInfo::Root", KEL_ATTRS_KniRoot)
#undef KEL_ATTRS_KniRoot

  explicit Root(Kel::Name name) : Kel::Entity(std::move(name)) {}

  // The device named `deviceName`, or null.
  Kel::Ptr<const Interface> interface(const Kel::String8& deviceName) const {
    return interfaceByName(deviceName);
  }
};
using RootPtr = Kel::Ptr<Root>;

}  // namespace KernelNetworkInfo
