// corvd-sim's `show` commands: the daemons' tables and the host's observations, as text for
// people or as one JSON document per command, with iproute2's `-j` names where the same thing is
// shown (dst, gateway, dev, protocol, nexthops; ifindex, ifname, flags, mtu, address, addr_info
// with family, local, prefixlen).
//
//   show routes [vrf V] [ipv4|ipv6] [json]     entries per prefix, selected one marked '*', each
//                                               naming its route input (or "input gone")
//   show interfaces [brief] [NAME] [vrf V] [json]   links with flags and addresses
//   show unresolved [vrf V] [json]             routes set aside per route input, with the reason
//   show counters [json]                       daemon calls and misuse per VRF, per backlog depth,
//                                               max depth, keys queued and drained, drain runs,
//                                               longest slice (wall time), loop callbacks
//   show summary [vrf V] [json]                per VRF: prefixes and entries per protocol, links,
//                                               addresses, keys pending, routes unresolved
#pragma once

#include <cstddef>
#include <iosfwd>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace CorvdSim {

class World;
class LoopObserver;

struct ShowContext {
  std::map<std::string, std::unique_ptr<World>>& worlds;
  const LoopObserver& observer;
  bool json = false;  // every show prints JSON (--json)
};

// Keys waiting in the module's backlogs of one world (interfaces, and routes per input).
std::size_t queuedKeys(World& w);

// Runs the words of one `show` line (w[0] == "show"). A bad line raises ArgError with the reason
// before anything is printed.
void runShow(const std::vector<std::string>& w, ShowContext& ctx, std::ostream& out);

}  // namespace CorvdSim
