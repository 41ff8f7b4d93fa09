// Address requests for the daemon's if_conf_addaddr / if_conf_deladdr, built the same way for
// adding and deleting. Every socket address in a request is a lasting copy (sockdup) of a
// temporary built just before it, so the daemon can take the request over.
//   IPv4: ifi_addr_local the address, ifi_netmask the mask (a copy; the daemon keeps its shared
//         mask of that length), ifi_addr_broadcast 255.255.255.255; no remote (the daemon uses
//         the local address).
//   IPv6: ifi_addr_local the address, ifi_addr_remote the address masked to its subnet,
//         ifi_netmask the daemon's shared IPv6 mask of the prefix length, IFS_LINKLOCAL in
//         ifi_state for a link-local address.
#pragma once

#include "fwk/daemon/corvd.h"
#include "fwk/model/KanetIpAddr.h"

namespace InterfaceRouteInfo {

if_info addrRequest(if_link* ifl, const Kanet::IpAddrWithMask& a);
if_info addrRequest(if_link* ifl, const Kanet::Ip6AddrWithMask& a);

// One complete bracket around one change.
void addAddr(if_info& request);
void delAddr(if_info& request);

// The shared mask of `family` for `len` from the daemon's per-family mask table (null when the
// table has none for it).
sockaddr_un* daemonMask(uint8_t family, int len);

}  // namespace InterfaceRouteInfo
