// corvd-sim's scenarios: a small line language that plays the parts around the module — the
// kernel's devices, the interface status and address agents, the routing agents publishing route
// inputs — and lets the activity loops run on manual time between steps. Every VRF is its own
// world (World.h): its own daemon, activity loop and replica of the state database. State events
// (devices, interfaces, addresses) go into every world; route inputs into their VRF's world.
//
//   # comment                          blank lines and comments are ignored
//   device DEV IFINDEX [flags F] [mac M]   a kernel device (made again, as a new device, when DEV
//                                      exists: a re-created device, e.g. under a new ifIndex)
//   nodevice DEV                       the kernel deletes the device
//   flags DEV F                        kernel flags: names joined by ',' (up broadcast loopback
//                                      pointopoint running multicast) or a number; "none" is 0
//   mac DEV M                          the device's MAC (six hex bytes, ':'-separated)
//   intf INTFID DEV [vrf V] [mtu N]    the interface's status (oper up) on device DEV in VRF V
//                                      ("default"); again: moves it to V / sets its MTU
//   nointf INTFID                      the interface's status and its addresses go
//   mtu INTFID N                       MTU 68..65535
//   oper INTFID up|down                oper status
//   ip INTFID A/L [A/L]...             IPv4 addresses in its VRF: the first is the primary, the
//                                      rest secondaries (replaces what it had)
//   noip INTFID                        removes the interface's IPv4 status
//   ip6 INTFID A/L...                  IPv6 addresses (VRF "default" only; replaces)
//   noip6 INTFID                       removes the interface's IPv6 status
//   novrf V                            removes VRF V's address entries (IPv4 and IPv6)
//   vrf NAME                           starts the module (a Root) in VRF NAME's world
//   trace LEVELS                       changes tracing from here on, as --trace does
//                                      (InterfaceRouteInfo/0,8-9, */0-9, none)
//   stop VRF                           stops VRF's module: its routes are withdrawn from the
//                                      VRF's daemon, links and addresses stay; vrf starts it again
//   input VRF NAME proto N [pref N] [ipv6]     a route input of protocol N (1..255) in VRF's
//                                      directory
//   proto VRF NAME N                   sets the input's protocol number (1..255)
//   route VRF INPUT PREFIX [via HOP] [dev INTFID] [via ...]...   publishes (or republishes)
//   blackhole VRF INPUT PREFIX         publishes a blackhole route
//   withdraw VRF INPUT PREFIX          removes the route from the input
//   unpublish VRF INPUT                removes the input from the directory
//   daemon-netmask VRF DEV A/L         test event inside VRF's daemon: the address A of DEV's
//                                      link takes prefix length L in place (a subnet change the
//                                      module itself never makes)
//   run SECONDS                        runs every world's loop for that much manual time (finite,
//                                      decimal, not negative)
//   show routes [vrf V] [ipv4|ipv6] [json]      the daemons' tables and what the host observed
//   show interfaces [brief] [NAME] [vrf V] [json]   (ScenarioShow.h); without `vrf`, of every
//   show unresolved [vrf V] [json]              VRF; `json` prints one JSON document
//   show counters [json] / show summary [vrf V] [json]
//   get PATH                           prints a module attribute's value alone on a line
//   set PATH VALUE                     sets a settable attribute (backlogQuantum, backlogDelay)
//   ls PATH                            lists an object's attributes or a collection's members
//   call PATH OPERATION ARGS           runs an operation (doAddBacklog)
//   watch PATH / unwatch PATH          prints, after every line, the attributes of the object at
//                                      PATH that changed (as "PATH: ATTR VALUE")
//                                      PATH: root-VRF/attr/attr[KEY]/...; ScenarioGeneric.h
//
// A `via` takes the next hop, a `dev` the interface; one `via` and one `dev` in a row make one
// next hop with both. Every line is checked whole before anything of it is applied; an error
// names the source, the line and the reason ("NAME:LINE: reason") and changes nothing.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <iosfwd>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>

#include "fwk/Root.h"

namespace CorvdSim {

class World;

class ScenarioError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// The bundled scenario run when corvd-sim is given no file.
extern const char* const kDefaultScenario;

class Scenario {
 public:
  // `out` receives the `show` output. With `realTime` the worlds run on the real clock, driven by
  // a host loop through forEachWorld, instead of manual time moved by `run`.
  explicit Scenario(std::ostream& out, bool realTime = false);
  ~Scenario();

  // Runs every line of `text`; `source` names it in errors. Throws ScenarioError.
  void runText(const std::string& text, const std::string& source);
  // Runs the scenario file `path` line by line as it is read, so an endless or huge input costs
  // one line of memory: a line longer than the limit, a file that cannot be opened or read (a
  // directory, say) is an error. "-" is the standard input.
  void runFile(const std::string& path);
  // Runs `in` line by line the same way; `source` names it in errors.
  void runStream(std::istream& in, const std::string& source);
  // At the end of a run: the route keys left in the unresolved backlogs of every started VRF,
  // and the misuses every VRF's daemon recorded.
  std::size_t unresolvedCount();
  std::uint64_t misuseCount();
  // Runs one line (1-based `line` for errors), then reports what the watched objects changed.
  void runLine(const std::string& line, const std::string& source, int lineNo);

  // Trace configuration as --trace takes it ("" for silence; raises Kel::RangeException), trace
  // lines stamped with the manual time and the VRF, a progress line on stderr every second of
  // wall time while `run` works, and JSON for every `show`.
  void traceConfigIs(const std::string& text);
  void traceStampIs(bool on);
  void progressIs(bool on);
  void jsonIs(bool on);
  // Runs one due callback of world `w` (entered) as `run` does, observed for `show counters`.
  std::size_t runFirstDue(World& w);

  // The started Root of VRF `vrf`, or null (for tools that reach the module by name).
  Kel::Ptr<InterfaceRouteInfo::Root> root(const std::string& vrf) const;
  // Calls `fn` on every world in VRF-name order, each entered first.
  void forEachWorld(const std::function<void(World&)>& fn);
  // Stops VRF `vrf`: its world, module, daemon and route inputs go (a later `vrf` line starts
  // it afresh, with the state events so far). False when there is no such world.
  bool stopWorld(const std::string& vrf);

 private:
  void runCommand(const std::string& line, const std::string& source, int lineNo);
  void flush();

  struct State;
  std::unique_ptr<State> s_;
  std::ostream& out_;
};

}  // namespace CorvdSim
