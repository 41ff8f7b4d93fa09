// corvd-sim's generic scenario lines: any attribute of a running module, read, listed, set and
// called by name through the generic attribute interface alone (fwk/framework/GenericIf.h).
//
//   get PATH                 prints the attribute's value alone on a line (a collection as
//                            {'key': member, ...}; ATTR[KEY] prints that member)
//   set PATH VALUE           sets a settable attribute (the backlogs' backlogQuantum and
//                            backlogDelay: a finite, non-negative number of seconds); a new
//                            backlogDelay reschedules the drain as any change of it does, and a
//                            run already pending is never moved
//   ls PATH                  lists an object's attributes ("name value" per line, operations as
//                            "name()"), or, for a collection, its members ("key value" per line)
//   call PATH OPERATION ARGS runs an operation of the object at PATH (doAddBacklog of the
//                            interface backlog and of the route backlog reactors)
//   watch PATH               watches the object at PATH through a generic notifiee: after every
//                            later line, each attribute that changed meanwhile is printed once,
//                            in the order of its first change, as "PATH: ATTR VALUE" (the ends
//                            of its life too: isNondestructing, zeroReferencesIs)
//   unwatch PATH             stops watching it
// A PATH starts at a VRF's root, named root-NAME, and follows attribute names separated by '/';
// a collection member is written ATTR[KEY], and a KEY may hold '/' (a route prefix):
//   root-default/intfBacklog/backlogQuantum
//   root-default/routingConfigSm/routeInputDirSm/routeInputSm[bgp]/route[10.0.0.0/8]
// Every error names the path and leaves everything as it was: an unknown VRF, attribute or key,
// a value that does not parse, an attribute that cannot be set, a time that is not finite and
// non-negative, and an operation whose preconditions do not hold (a flap request for an
// interface that has no status reactor yet).
#pragma once

#include <functional>
#include <iosfwd>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "fwk/framework/GenericIf.h"
#include "tools/corvd-sim/World.h"

namespace CorvdSim {

// The objects watched by `watch` lines. A watch holds its object (and keeps it alive), so the
// watches of a VRF go before its module is stopped.
class Watches {
 public:
  Watches();
  ~Watches();
  void add(const std::string& path, World* world, Kel::GenericIfPtr object);
  void remove(const std::string& path);
  // Prints what changed since the last report, watch by watch in path order.
  void report(std::ostream& out);
  // Drops the watches into VRF `vrf` (every path starts with root-VRF).
  void dropVrf(const std::string& vrf);
  void clear();

 private:
  struct Watch;
  std::map<std::string, std::unique_ptr<Watch>> watches_;
  std::ostream* out_ = nullptr;
};

bool isGenericCommand(const std::string& cmd);

// Runs one generic line, split into words. `world` gives the VRF's world, or null. Errors are
// Kel::RangeException.
void runGenericCommand(const std::vector<std::string>& words,
                       const std::function<World*(const std::string&)>& world, std::ostream& out,
                       Watches& watches);

}  // namespace CorvdSim
