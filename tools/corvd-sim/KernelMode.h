// corvd-sim's kernel mode: a live network namespace as the source of the state database, and
// optionally another as the forwarding table (FibSink.h).
//
// KernelRunner owns the worlds (a Scenario on the real clock, fed by a KernelSource) and the
// netlink socket. turn() is one pass of the event loop: it waits, with poll, until the socket is
// readable or the earliest armed clock of any world is due (never longer than asked, and not at
// all while work is left), then does one piece of work, taken in rotation so that none starves
// the others: read the kernel's messages for at most kReadSlice seconds, or run one due callback
// of one world (a backlog drain takes one quantum), or bring the forwarding table in line with
// one daemon that changed (FibSink bounds a sync). So the loop is never held longer than the
// longest of those, and the backlogs drain on their quantum and delay in real time while the
// kernel keeps changing.
// An overrun (the kernel dropped messages: ENOBUFS) is counted and answered by a full dump of
// links, addresses and routes, which brings the worlds back in line; no change is lost silently.
// Dumps go through a second socket that joins no group, so that a queue full of notifications
// cannot stall them; notifications queued meanwhile are applied afterwards, and since each one
// carries the whole state of its object, the last one of each object wins as in the kernel.
#pragma once

#include <cstdint>
#include <iosfwd>
#include <map>
#include <memory>
#include <set>
#include <string>

#include "tools/corvd-sim/FibSink.h"
#include "tools/corvd-sim/KernelSource.h"
#include "tools/corvd-sim/Netlink.h"
#include "tools/corvd-sim/Scenario.h"

namespace CorvdSim {

struct KernelOptions {
  std::string netns;            // the source namespace
  std::string fibNetns;         // the forwarding table's namespace; empty for none
  double forSeconds = -1;       // how long to run; negative: until interrupted
  bool json = false;            // `show` output as JSON
  bool fibKeep = false;         // leave the installed routes in place on exit
  bool traceStamp = false;      // trace lines carry the time and the VRF
  int sourceBuffer = 64 << 20;  // receive buffer of the source socket, bytes (tests make it small)
};

class KernelRunner final : private Publisher {
 public:
  struct Counters {
    std::uint64_t overruns = 0;  // ENOBUFS seen on the source socket
    std::uint64_t resyncs = 0;   // full or IPv4-route dumps after the first
    std::uint64_t refused = 0;   // lines the scenario engine refused
    double longestSlice = 0;     // longest turn from poll to poll, seconds
    double longestRead = 0;      // ... of those that read the socket
    double longestCallback = 0;  // ... that ran a world's callback
    double longestFib = 0;       // ... that synced a FIB
  };

  // Opens the sockets, dumps the source namespace and starts the VRFs. Throws NetlinkError
  // (no such namespace, not permitted, --fib naming the source namespace).
  KernelRunner(const KernelOptions& opts, std::ostream& out);
  ~KernelRunner() override;

  // One pass of the loop, waiting at most `maxWait` seconds. Returns true when `extraFd` (-1
  // for none) became readable.
  bool turn(double maxWait, int extraFd = -1);
  // Prints `show interfaces` and `show routes` of every VRF, then the counters.
  void show();
  const Counters& counters() const { return counters_; }
  const KernelSource& source() const { return *source_; }
  const FibSink* fib() const { return fib_.get(); }
  const Scenario& scenario() const { return scenario_; }

 private:
  void line(const std::string& text) override;
  void vrfGone(const std::string& vrf) override;
  void resync(unsigned kinds);
  void readSource(double until);
  // Marks the VRFs whose daemon changed since their last sync (and new ones) for a FIB sync;
  // the world must be entered.
  void noteDaemon(const std::string& vrf);
  bool runOneCallback();
  bool syncOneFib();

  KernelOptions opts_;
  std::ostream& out_;
  Scenario scenario_;
  NetlinkSocket nl_;    // notifications
  NetlinkSocket dump_;  // dumps
  std::unique_ptr<KernelSource> source_;
  std::unique_ptr<FibSink> fib_;
  std::map<std::string, std::uint64_t> daemonVersions_;  // by VRF, see noteDaemon
  std::set<std::string> fibPending_;                     // VRFs whose FIB needs a sync
  int phase_ = 0;          // the piece of work a turn tries first (see turn)
  std::string lastWorld_;  // the world that ran the last callback
  std::string lastFib_;    // the VRF synced last
  Counters counters_;
  int lineNo_ = 0;
};

// The whole kernel mode: runs until the time is up or SIGINT/SIGTERM, prints on SIGUSR1 and at
// the end. Returns the exit status.
int runKernelMode(const KernelOptions& opts, std::ostream& out);

}  // namespace CorvdSim
