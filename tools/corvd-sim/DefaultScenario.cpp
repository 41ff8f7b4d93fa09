// The scenario corvd-sim runs when it is given no file: two VRFs, a handful of interfaces, two
// IPv4 protocols and one IPv6 protocol publishing routes, a withdrawal, a route parked until its
// next hop becomes reachable, and the daemon's tables at the end.
#include "tools/corvd-sim/Scenario.h"

namespace CorvdSim {

const char* const kDefaultScenario = R"(# The kernel's links and addresses, entered into the daemon.
link 1 et1 Ethernet1 up
addr 1 10.0.1.1/24
addr 1 2001:db8:1::1/64
link 2 et2 Ethernet2 up
addr 2 10.0.2.1/24
link 3 tun3 Tunnel3 up
addr 3 192.0.2.1/32 peer 198.51.100.7

# Routing agents publish their route inputs.
input default static proto 2 pref 1
input default bgp proto 8 pref 20
input default bgp6 proto 8 pref 20 ipv6
route default static 172.16.0.0/12 via 10.0.1.254
blackhole default static 192.168.0.0/16
route default bgp 203.0.113.0/24 via 10.0.1.2 via 10.0.2.2
route default bgp 198.18.0.0/15 dev Tunnel3
route default bgp 100.64.0.0/10 via 10.9.9.9
route default bgp6 2001:db8:100::/48 via 2001:db8:1::2
route default bgp 0.0.0.0/0 via 10.0.1.254

# Start the module for the default VRF and let the backlogs drain.
vrf default
run 1
show routes

# A route changes its next hop, another is withdrawn.
route default bgp 203.0.113.0/24 via 10.0.2.2
withdraw default static 172.16.0.0/12
run 1

# A second VRF with its own route input.
input blue ospf proto 7 pref 110
route blue ospf 10.20.0.0/16 via 10.0.2.3
vrf blue
run 1
show interfaces
show routes
)";

}  // namespace CorvdSim
