// Interface reconciliation: one interface of the daemon's interface table brought in line with
// the state database (IntfBacklogSm::processInterface).
//
// In order: decide whether the interface goes (no address status in either family, or not local
// to the namespace) and delete its link; stop when the kernel has no such device; flap it (delete
// the link, drop its reactor) when its ifIndex changed or a flap was asked for; make its
// IntfStatusSm (which adds the link) when it has none, or renew it when the status or device it
// watches was made again; read the addresses the daemon's link holds;
// delete those the state database no longer lists; then, unless another interface of the backlog
// still has stale addresses to delete, add the primary, the secondaries and the IPv6 addresses the
// daemon lacks. So after a burst of changes no address is ever on two links of the daemon at once.
// Each change of the daemon is its own if_conf_open/if_conf_close bracket.
#include <cstdint>

#include "fwk/DaemonAddr.h"
#include "fwk/IpAddrSet.h"
#include "fwk/ModuleSupport.h"
#include "fwk/daemon/corvd.h"
#include "fwk/intf/AddrRequest.h"
#include "fwk/intf/IntfBacklogSm.h"

namespace InterfaceRouteInfo {

namespace {

void delLink(std::uint32_t ifIndex, const Kel::String8& deviceName) {
  if_conf_open(fwk_task, 0);
  if_conf_dellink(fwk_task, ifIndex, deviceName.c_str());
  if_conf_close(fwk_task, 1);
}

// The addresses the daemon's link holds, with the prefix lengths of its shared masks.
IpAddrSet corvdAddresses(const if_link* ifl) {
  IpAddrSet set;
  for (const if_addr* a = ifl->ifl_addr_set.ias_first; a; a = a->ifa_next) {
    const if_info& info = a->ifa_info;
    const sockaddr_un* local = info.ifi_addr_local;
    if (local->sa_family == SA_FAMILY_INET) {
      const int len = sock_mask_len(inet_prefix_mask_locate_internal(info.ifi_netmask));
      set.newIpAddrWithMask(Kanet::IpAddrWithMask(modelAddr<Kanet::IpAddr>(local), len), true);
    } else if (local->sa_family == SA_FAMILY_INET6) {
      const int len = sock_mask_len(inet6_prefix_mask_locate_internal(info.ifi_netmask));
      set.newIp6AddrWithMask(Kanet::Ip6AddrWithMask(modelAddr<Kanet::Ip6Addr>(local), len), true);
    }
  }
  return set;
}

}  // namespace

bool IntfBacklogSm::processInterface(Kanet::IntfId intfId, bool flapInterface) {
  IRI_SIGNATURE("bool InterfaceRouteInfo::IntfBacklogSm::processInterface(Kanet::IntfId, bool)");
  IRI_TRACE(8, "Interface: " << intfId << " FlapInterface: " << flapInterface);

  Kel::Ptr<const Ip::IpIntfStatus> ipIntf;
  if (auto vrf = ipStatus()->vrfIpIntfStatus(vrfName())) ipIntf = vrf->ipIntfStatus(intfId);
  Kel::Ptr<const Ip6::IntfStatus> ip6Intf;
  if (ip6Status()) ip6Intf = ip6Status()->intf(intfId);
  bool deleteInterface = false;
  if (!ipIntf && !ip6Intf) {
    IRI_TRACE(8, "Delete interface that has no entry in both ipStatus and ip6Status");
    deleteInterface = true;
  }
  const Interface::IntfStatusAndDeviceName device =
      kernelIntfStatusDir()->intfStatusAndDeviceName(intfId);
  if (device == Interface::IntfStatusAndDeviceName()) {
    IRI_TRACE(8, "Interface " << intfId << "is not local to us");
    deleteInterface = true;
  }

  // Diagnostics only: the lookups feed nothing but these traces, so they wait for the level.
  if (traceActive(8)) {
    if (auto vrf = ipStatus()->vrfIpIntfStatus(Ip::VrfName("default"))) {
      auto ipDefault = vrf->ipIntfStatus(intfId);
      if (ipDefault && ipDefault->activeAddrWithMask().address() != Kanet::IpAddr()) {
        IRI_TRACE(8, "Interface " << intfId << " has valid ipv4 address");
      }
    }
    if (ip6Intf && ip6Intf->addrCount() != 0) {
      IRI_TRACE(8, "Interface " << intfId << " has valid ipv6 address");
    }
  }

  if (deleteInterface) {
    if (Kel::Ptr<IntfStatusSm> sm = intfStatusSm(intfId)) {
      IRI_TRACE(
          0, "Delete interface " << intfId << " with ifIndex " << sm->ifIndex() << " from corvd");
      delLink(sm->ifIndex(), sm->deviceName());
      intfStatusSmDel(intfId);
    }
    return false;
  }

  Kel::Ptr<const KernelNetworkInfo::Interface> kernelIntf =
      intfStatusManager()->kernelInterface(device.deviceName);
  if (!kernelIntf) {
    IRI_TRACE(8, "Interface " << device.deviceName << " with ifIndex "
                              << device.intfStatus->ifIndex() << " not present in kernel");
    return false;
  }
  const std::uint32_t ifIndex = kernelIntf->ifIndex();

  Kel::Ptr<IntfStatusSm> sm = intfStatusSm(intfId);
  bool flap = flapInterface;
  if (sm && sm->ifIndex() != ifIndex) {
    IRI_TRACE(0, "Flap the interface in corvd");
    flap = true;
  }
  if (flap) {
    IRI_ASSERT_TEXT(sm, "intfStatusSm( intfId )");
    IRI_TRACE(0, "Delete interface " << intfId << " with ifIndex " << sm->ifIndex()
                                     << " from corvd to flap it");
    delLink(sm->ifIndex(), sm->deviceName());
    if (auto entry = intfBacklog()->backlog(intfId)) entry->flapInterfaceIs(false);
    intfStatusSmDel(intfId);
    sm = nullptr;
  }
  // The status or the device was deleted and made again (same ifIndex) before this entry was
  // drained: the reactor still watches the old entities and would miss every later change. A new
  // reactor watches the current ones; its first scan refreshes the link, which keeps its addresses.
  if (sm && (sm->intfStatus() != device.intfStatus || sm->kernelIntf() != kernelIntf)) {
    IRI_TRACE(8, "Interface " << intfId << " status or device made again: reactor renewed");
    intfStatusSmDel(intfId);
    sm = nullptr;
  }
  if (!sm) {
    sm = intfStatusSmIs(intfId, ifIndex, device.deviceName, device.intfStatus, kernelIntf,
                        intfBacklog(), timerWheel());
  }

  if_link* ifl = ifl_locate_index(ifIndex);
  if (!ifl) {
    IRI_TRACE(8,
              "Interface " << intfId << " with ifIndex " << ifIndex << " is not present in corvd");
    return false;
  }
  IpAddrSet corvdSet = corvdAddresses(ifl);

  const Kanet::IpAddrWithMask primary =
      ipIntf ? ipIntf->activeAddrWithMask() : Kanet::IpAddrWithMask();
  for (auto it = corvdSet.ipAddrWithMaskIterator(); it; ++it) {
    const Kanet::IpAddrWithMask a = it.key();
    if (a == primary || (ipIntf && ipIntf->activeSecondaryWithMaskCollection().contains(a))) {
      continue;
    }
    corvdSet.ipAddrWithMaskDel(a);
    if_info request = addrRequest(ifl, a);
    IRI_TRACE(0, "Ip address " << a << " of interface " << intfId << " deleted");
    delAddr(request);
  }
  for (auto it = corvdSet.ip6AddrWithMaskIterator(); it; ++it) {
    const Kanet::Ip6AddrWithMask a = it.key();
    if (ip6Intf && ip6Intf->addrCollection().contains(a)) continue;
    corvdSet.ip6AddrWithMaskDel(a);
    if_info request = addrRequest(ifl, a);
    IRI_TRACE(0, "Ip6 address " << a << " of interface " << intfId << "deleted");
    delAddr(request);
  }

  if (auto entry = intfBacklog()->backlog(intfId)) entry->needCleanIs(false);
  if (intfBacklog()->needCleanCount() != 0) {
    IRI_TRACE(8, " Deferring adding addresses for " << intfId);
    return true;
  }

  const Kanet::IpAddr none;
  auto addIp = [&](const Kanet::IpAddrWithMask& a) {
    if (a.address() == none || corvdSet.ipAddrWithMaskCollection().contains(a)) return;
    if_info request = addrRequest(ifl, a);
    addAddr(request);
    IRI_TRACE(0, "Ip Address " << a << " of interface " << intfId << " added ");
  };
  if (ipIntf) {
    addIp(primary);
    for (auto it = ipIntf->activeSecondaryWithMaskIterator(); it; ++it) addIp(it.key());
  }
  if (ip6Intf) {
    for (auto it = ip6Intf->addrIterator(); it; ++it) {
      const Kanet::Ip6AddrWithMask& a = it.key();
      if (corvdSet.ip6AddrWithMaskCollection().contains(a)) continue;
      if_info request = addrRequest(ifl, a);
      IRI_TRACE(0, "IP6 Address " << a << " added on interface " << intfId);
      addAddr(request);
    }
  }
  return false;
}

}  // namespace InterfaceRouteInfo
