// corvd-sim's route-input lines: the routing agents' side of a scenario. Each publishes into the
// route input directory of its VRF's world (made when new), as a routing agent would:
//   input VRF NAME proto N [pref N] [ipv6]   proto VRF NAME N
//   route VRF INPUT PREFIX [via HOP] [dev INTFID]...   blackhole / withdraw VRF INPUT PREFIX
//   unpublish VRF INPUT
// Every word is checked before anything is published; a bad line raises ArgError with the reason
// and changes nothing.
#pragma once

#include <functional>
#include <string>
#include <vector>

namespace CorvdSim {

class World;

bool isRouteCommand(const std::string& cmd);
// `world(vrf)` enters (or makes) the VRF's world; `known(vrf)` says whether it exists.
void runRouteCommand(const std::vector<std::string>& w,
                     const std::function<World&(const std::string&)>& world,
                     const std::function<bool(const std::string&)>& known);

}  // namespace CorvdSim
