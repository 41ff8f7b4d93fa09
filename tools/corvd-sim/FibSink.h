// The forwarding-table sink: keeps a network namespace's kernel routing tables equal to the
// daemons' choices. For each prefix of a VRF's daemon the active entry (the first of its
// selection order, rt_table.h) is installed with kFibProtocol: a gateway that is the router's
// own address (the interface address the entry resolved to) becomes a device route, devices are
// found by name in the namespace, several gateways make a multipath route, no gateway a
// blackhole. The VRF "default" goes into the main table, another VRF into the table of the
// namespace's VRF device of that name (its routes are skipped while there is none).
// A sync sends requests for at most kSyncSlice seconds (a burst of 100k routes costs the kernel
// far longer); behind() then says that another sync must follow, which resumes the work since
// everything not yet done still differs.
// sync() walks the daemon's table once and compares each active entry with what it installed
// (O(prefixes) per call, no allocation for an unchanged prefix): a changed prefix is replaced in
// place, a prefix that left is deleted. A route whose device the namespace lacks is not installed
// (counted as unmapped) until the daemon changes it again. The kernel's refusals are counted and
// reported on stderr, and the refused prefix is tried again at the next change. On start the
// namespace's routes of kFibProtocol (stale, from an earlier run) are deleted; on destruction the
// installed routes are deleted unless keepOnExit.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "tools/corvd-sim/Netlink.h"

struct _rt_head;

namespace CorvdSim {

// The kernel route protocol number of the routes corvd-sim installs (unassigned in the kernel's
// and iproute2's lists of route protocols).
constexpr std::uint8_t kFibProtocol = 73;
// Their metric: above the kernel's own connected routes (metric 0), which a replace of the same
// prefix and metric would overwrite.
constexpr std::uint32_t kFibMetric = 20;

class FibSink {
 public:
  struct Counters {
    std::uint64_t installed = 0;  // prefixes added
    std::uint64_t changed = 0;    // prefixes replaced in place
    std::uint64_t removed = 0;    // prefixes deleted
    std::uint64_t failed = 0;     // requests the kernel refused
    std::uint64_t unmapped = 0;   // routes skipped: a device the namespace lacks
    std::uint64_t stale = 0;      // routes of kFibProtocol deleted on start
  };

  FibSink(const std::string& netns, bool keepOnExit);
  ~FibSink();
  FibSink(const FibSink&) = delete;
  FibSink& operator=(const FibSink&) = delete;

  // Brings the table of `vrf` in line with the current daemon instance (the caller entered the
  // VRF's world).
  void sync(const std::string& vrf);
  // True when the last sync ran out of its time slice with requests left: sync again soon.
  bool behind() const { return behind_; }
  // The VRF stopped: its installed routes are deleted.
  void forget(const std::string& vrf);
  const Counters& counters() const { return counters_; }
  const std::string& netns() const { return nl_.netns(); }

  struct Hop {
    std::uint8_t family = 0;
    std::array<std::uint8_t, 16> gw{};  // all zero: a device route
    bool hasGw = false;
    std::string dev;
    bool operator==(const Hop&) const = default;
  };
  struct Route {
    bool blackhole = false;
    std::vector<Hop> hops;
    bool operator==(const Route&) const = default;
  };
  struct Prefix {
    std::uint8_t family;
    std::array<std::uint8_t, 16> addr;
    std::uint8_t plen;
    auto operator<=>(const Prefix&) const = default;
  };

 private:
  std::uint32_t tableOf(const std::string& vrf);
  // Queues one request; a null route deletes.
  bool request(const Prefix& p, const Route* r, std::uint32_t table, const std::string& vrf);
  void flush();
  void removeStale();
  // Counts one request against the sync's time slice; true once it is spent.
  bool overBudget();

  struct Installed {
    Route route;
    std::uint64_t gen = 0;  // the sync that last saw it
  };
  struct Walk;
  static void visit(::_rt_head* h, void* arg);

  NetlinkSocket nl_;
  int ioctlFd_ = -1;  // a datagram socket inside the namespace, to find devices by name
  bool keepOnExit_;
  Counters counters_;
  std::map<std::string, std::map<Prefix, Installed>> installed_;  // by VRF
  std::uint64_t gen_ = 0;
  bool behind_ = false;
  double sliceEnd_ = 0;
  std::uint64_t requests_ = 0;
  std::map<std::string, std::uint32_t> tables_;  // VRF -> table, found once
  std::vector<char> batch_;
  std::unordered_map<std::uint32_t, std::pair<std::string, Prefix>> pending_;  // by sequence
};

}  // namespace CorvdSim
