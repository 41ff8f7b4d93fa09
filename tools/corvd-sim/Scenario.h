// corvd-sim's scenarios: a small line language that plays the parts around the module — the
// kernel entering links and addresses into the daemon, the interface status agents, the routing
// agents publishing route inputs — and lets the activity loop run on manual time between steps.
//
//   # comment                 blank lines and comments are ignored
//   link IFINDEX DEVICE INTFID [up|down]      daemon link plus the interface's status entity
//   addr IFINDEX ADDR/LEN [peer ADDR]          daemon interface address (IPv4 or IPv6)
//   unaddr IFINDEX ADDR                        removes it
//   vrf NAME                                   starts a Root for VRF NAME (its route inputs are
//                                              those declared with `input` for NAME)
//   input VRF NAME proto N [pref N] [ipv6]     a route input of protocol N in VRF's directory
//   proto VRF NAME N                           sets the input's protocol number
//   route VRF INPUT PREFIX [via HOP] [dev INTFID] [via ...]...   publishes (or republishes)
//   blackhole VRF INPUT PREFIX                 publishes a blackhole route
//   withdraw VRF INPUT PREFIX                  removes the route from the input
//   unpublish VRF INPUT                        removes the input from the directory
//   run SECONDS                                runs the activity loop for that much manual time
//   show routes|interfaces                     prints the daemon's table
//
// A `via` takes the next hop, a `dev` the interface; one `via` and one `dev` in a row make one
// next hop with both. Every error names the source, the line and the reason
// ("NAME:LINE: reason"), and nothing of the line is applied.
#pragma once

#include <iosfwd>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>

namespace CorvdSim {

class ScenarioError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// The bundled scenario run when corvd-sim is given no file.
extern const char* const kDefaultScenario;

class Scenario {
 public:
  // `out` receives the `show` output.
  explicit Scenario(std::ostream& out);
  ~Scenario();

  // Runs every line of `text`; `source` names it in errors. Throws ScenarioError.
  void runText(const std::string& text, const std::string& source);
  // Runs one line (1-based `line` for errors).
  void runLine(const std::string& line, const std::string& source, int lineNo);

 private:
  struct State;
  std::unique_ptr<State> s_;
  std::ostream& out_;
};

}  // namespace CorvdSim
