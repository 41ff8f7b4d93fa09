// A small world for interface mirroring tests: the state database's interface side (kernel
// devices of the namespace, interface status, IPv4 status per VRF, IPv6 status) published as the
// agents publish it, and the daemon's interface table read back.
// reference() is what the daemon's interface table must hold once the module is quiescent,
// computed from the published state by the rules of interface mirroring, independently of the
// module's code: a link for every interface that is local (status and kernel device present)
// and has address status (IPv4 in the served VRF, or IPv6 where the root has an IPv6 status),
// carrying the device's ifIndex, name, MTU, MAC and flags, and exactly the listed addresses; plus
// "lo" with its loopback addresses when the kernel has it.
#pragma once

#include <gtest/gtest.h>

#include <map>
#include <set>
#include <string>
#include <vector>

#include "tests/support/ModuleWorld.h"

namespace IntfTest {

using namespace InterfaceRouteInfo;

// Kernel device flags used by the tests.
constexpr std::uint32_t kUp = 0x1;
constexpr std::uint32_t kRunning = 0x40;

// The daemon's interface table: "ifIndex name mtu M state S ll L" -> sorted addresses
// ("10.0.0.1/24", "2001:db8::1/64").
using Table = std::map<std::string, std::set<std::string>>;

class IntfWorld : public ModuleWorld {
 protected:
  // Kernel devices. device() makes a new device entity (a re-created device when the name is in
  // use); flags and MAC change in place.
  void device(const std::string& name, std::uint32_t ifIndex, std::uint32_t flags = kUp | kRunning,
              const std::string& mac = "00:00:00:00:00:01");
  void deviceDel(const std::string& name);
  void deviceFlags(const std::string& name, std::uint32_t flags);
  void deviceMac(const std::string& name, const std::string& mac);
  // Interface status, oper up (with the device's ifIndex when given).
  void status(const std::string& intfId, const std::string& deviceName, std::uint16_t mtu = 1500,
              std::uint32_t ifIndex = 0);
  void statusDel(const std::string& intfId);
  void mtu(const std::string& intfId, std::uint16_t mtu);
  void oper(const std::string& intfId, bool up);
  // IPv4 status of an interface in a VRF: primary ("" for none) and secondaries, set exactly.
  void ip(const std::string& vrf, const std::string& intfId, const std::string& primary,
          const std::vector<std::string>& secondaries = {});
  void ipDel(const std::string& vrf, const std::string& intfId);
  void vrfDel(const std::string& vrf);
  // IPv6 status of an interface (VRF "default"), set exactly.
  void ip6(const std::string& intfId, const std::vector<std::string>& addrs);
  void ip6Del(const std::string& intfId);

  // Runs the loop until nothing is armed.
  void settle();

  static Table daemonTable();
  Table reference() const;
};

// A task that looks at the daemon's interface table at every address report (after every
// change, each being its own bracket) and counts the times an address was on two links at once.
class OverlapObserver {
 public:
  OverlapObserver();
  ~OverlapObserver();
  int overlaps() const { return overlaps_; }
  int reports() const { return reports_; }

 private:
  static void onChange(task* tp, if_addr*);
  task task_;
  int overlaps_ = 0;
  int reports_ = 0;
};

}  // namespace IntfTest
