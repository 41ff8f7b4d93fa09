// The scenario corvd-sim runs when it is given no file: a small router with two VRFs. Interfaces
// and their addresses arrive through the state database, an address moves between two
// interfaces, an interface flaps, the kernel re-creates a device under a new ifIndex, another
// interface goes away; then the routing agents publish, and the routes resolve over the mirrored
// interfaces, each VRF in its own daemon (the same prefix lives in both).
#include "tools/corvd-sim/Scenario.h"

namespace CorvdSim {

const char* const kDefaultScenario =
    R"(# The kernel's devices, the interfaces' status and their addresses.
device lo 1 flags up,loopback,running
device et1 2 mac 02:00:00:00:00:01
device et2 3 mac 02:00:00:00:00:02
device et3 4 mac 02:00:00:00:00:03
device et4 6 mac 02:00:00:00:00:04
intf Ethernet1 et1 mtu 9000
intf Ethernet2 et2
intf Ethernet3 et3 vrf blue
intf Ethernet4 et4
ip Ethernet1 10.0.1.1/24 10.0.11.1/24
ip6 Ethernet1 2001:db8:1::1/64
ip Ethernet2 10.0.2.1/24
ip Ethernet3 10.0.3.1/24
ip Ethernet4 10.0.4.1/24

# The module starts in both VRFs and mirrors the interfaces of each.
vrf default
vrf blue
run 1
show interfaces

# 10.0.11.1/24 moves from Ethernet1 to Ethernet2 in one burst; Ethernet2 flaps; the kernel
# re-creates et1 under a new ifIndex; Ethernet4 goes away.
ip Ethernet1 10.0.1.1/24
ip Ethernet2 10.0.2.1/24 10.0.11.1/24
oper Ethernet2 down
device et1 5 mac 02:00:00:00:00:01
nointf Ethernet4
run 1
show interfaces vrf default

# Routing agents publish; next hops resolve over the mirrored interfaces.
input default static proto 2 pref 1
input default bgp proto 8 pref 20
input default bgp6 proto 8 pref 20 ipv6
input blue ospf proto 7 pref 110
route default static 172.16.0.0/12 via 10.0.1.254
blackhole default static 192.168.0.0/16
route default bgp 203.0.113.0/24 via 10.0.1.2 via 10.0.11.2
route default bgp 198.18.0.0/15 dev Ethernet2
route default bgp 100.64.0.0/10 via 10.9.9.9
route default bgp6 2001:db8:100::/48 via 2001:db8:1::2
route blue ospf 203.0.113.0/24 via 10.0.3.2
run 1
show routes
)";

}  // namespace CorvdSim
