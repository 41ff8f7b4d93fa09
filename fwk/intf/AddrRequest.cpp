#include "fwk/intf/AddrRequest.h"

#include <cstring>

#include "fwk/DaemonAddr.h"

namespace InterfaceRouteInfo {

namespace {
constexpr uint32_t kAllOnes = 0xffffffffu;
}  // namespace

sockaddr_un* daemonMask(uint8_t family, int len) {
  const sock_info* info = sockaddr_sock_info[family] ? sockaddr_sock_info[family] : &zero_info;
  if (len < 0 || len > info->si_max_len) return nullptr;
  return info->si_mask_list[len];
}

if_info addrRequest(if_link* ifl, const Kanet::IpAddrWithMask& a) {
  if_info req;
  std::memset(&req, 0, sizeof req);
  req.ifi_link = ifl;
  // Built first, then copied: three temporaries of the daemon's pool are alive at once.
  sockaddr_un* local = daemonSock(a.address());
  sockaddr_un* mask = sockbuild_in(0, a.mask().valueNetworkOrder());
  sockaddr_un* allOnes = sockbuild_in(0, kAllOnes);
  req.ifi_addr_local = sockdup(local);
  req.ifi_netmask = sockdup(mask);
  req.ifi_addr_broadcast = sockdup(allOnes);
  return req;
}

if_info addrRequest(if_link* ifl, const Kanet::Ip6AddrWithMask& a) {
  if_info req;
  std::memset(&req, 0, sizeof req);
  req.ifi_link = ifl;
  sockaddr_un* built = daemonSock(a.address());
  req.ifi_addr_local = sockdup(built);
  req.ifi_addr_remote = sockdup(built);
  if (a.address().isLinkLocal()) req.ifi_state |= IFS_LINKLOCAL;
  req.ifi_netmask = daemonMask(SA_FAMILY_INET6, a.maskLen());
  sockmask(req.ifi_addr_remote, req.ifi_netmask);
  return req;
}

void addAddr(if_info& request) {
  if_conf_open(fwk_task, 0);
  if_conf_addaddr(fwk_task, &request);
  if_conf_close(fwk_task, 1);
}

void delAddr(if_info& request) {
  if_conf_open(fwk_task, 0);
  if_conf_deladdr(fwk_task, &request);
  if_conf_close(fwk_task, 1);
}

}  // namespace InterfaceRouteInfo
