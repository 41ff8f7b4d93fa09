// The loopback device entered into the daemon.
#include "fwk/intf/LoopbackSm.h"

#include <cstring>

#include "fwk/DaemonAddr.h"
#include "fwk/ModuleSupport.h"
#include "fwk/daemon/corvd.h"
#include "fwk/intf/AddrRequest.h"
#include "fwk/intf/LinkState.h"

namespace InterfaceRouteInfo {

namespace {
constexpr const char* kLo = "lo";
constexpr mtu_t kLoMtu = 16536;
constexpr flag_t kBroadcast = 0x2;

// A request for one address of "lo", carrying the link's state, metric and MTU.
if_info loRequest(if_link* ifl) {
  if_info req;
  std::memset(&req, 0, sizeof req);
  req.ifi_state = ifl->ifl_state;
  req.ifi_metric = ifl->ifl_metric;
  req.ifi_mtu = ifl->ifl_mtu;
  req.ifi_link = ifl;
  return req;
}
}  // namespace

LoopbackSm::LoopbackSm(const KernelRootPtr& kernelNetworkInfoRoot) : Kel::Reactor("loopbackSm") {
  kelInputsIs(kernelNetworkInfoRoot);
  kelKernelNetworkInfoRoot_.notifierIs(kernelNetworkInfoRoot);
}

void LoopbackSm::handleInitialized() {
  IRI_TRACE_BEGIN();
  initializedIs(true);
  handleLoopbackDevice();
  IRI_TRACE_END();
}

void LoopbackSm::handleLoopbackDevice() {
  if (!initialized()) return;
  IRI_TRACE_BEGIN();
  Kel::Ptr<const KernelNetworkInfo::Interface> lo = kernelNetworkInfoRoot()->interface(kLo);
  if (!lo) return;
  const flag_t flags = linkState(lo->flags(), true);
  std::uint8_t mac[6];
  linkLayerBytes(lo->macAddr(), mac);
  sockaddr_un* lladdr = sockbuild_ll(0, mac, 6);
  const std::uint32_t ifIndex = lo->ifIndex();
  if_link* ifl = ifl_locate_index(ifIndex);
  if_conf_open(fwk_task, 0);
  if_conf_addlink(fwk_task, ifl, ifIndex, flags, 0, kLoMtu, kLo, 2, lladdr);
  if_conf_close(fwk_task, 1);
  IRI_TRACE(0, "Interface lo had been added to corvd");

  ifl = ifl_locate_index(ifIndex);
  if (!ifl) return;  // the daemon refused the link: there is nothing to give addresses to
  const Kanet::IpAddrWithMask lo4(Kanet::IpAddr(0x7f000001u), 24);
  if_info req = loRequest(ifl);
  req.ifi_addr_local = sockdup(daemonSock(lo4.address()));
  req.ifi_addr_remote = sockdup(sockbuild_in(0, Kanet::IpAddr(0x7f000000u).valueNetworkOrder()));
  req.ifi_addr_broadcast = sockdup(sockbuild_in(0, 0xffffffffu));
  req.ifi_state |= kBroadcast;
  req.ifi_netmask = daemonMask(SA_FAMILY_INET, lo4.maskLen());
  addAddr(req);
  IRI_TRACE(0, "Ip Address " << lo4 << " of interface " << kLo << " added ");

  ifl = ifl_locate_index(ifIndex);
  const Kanet::Ip6AddrWithMask lo6(Kanet::ip6AddrLoopback);
  if_info req6 = loRequest(ifl);
  sockaddr_un* built = daemonSock(lo6.address());
  req6.ifi_addr_remote = sockdup(built);
  req6.ifi_addr_local = sockdup(built);
  req6.ifi_netmask = daemonMask(SA_FAMILY_INET6, 0);
  sockmask(req6.ifi_addr_remote, req6.ifi_netmask);
  addAddr(req6);
  IRI_TRACE(0, "IP6 Address " << lo6 << " added on interface " << kLo);
  IRI_TRACE_END();
}

}  // namespace InterfaceRouteInfo
